// A composer between scripted filters.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "filter/compose.h"
#include "platform/graph/filter_graph.h"
#include "tests/support/fake_filters.h"
#include "tests/support/recording_logger.h"

namespace fakes {

// The host's window object; the test sets what it answers.
class Window final : public CUnknown, public IComposeWindow {
 public:
  DECLARE_IUNKNOWN

  struct State {
    HRESULT result = S_OK;
    bool enabled = true;
    LONG x = 0;
    LONG y = 0;
    const char* colour = "#FFF";
    bool selected = false;
  };

  static ComPtr<Window> Create() { return ComPtr<Window>(std::make_unique<Window>().release()); }
  Window() : CUnknown("window", nullptr) {}

  HRESULT GetWindowState(BYTE* enabled, LONG* x, LONG* y, const char** colour,
                         BYTE* selected) override {
    if (onAsk) {
      onAsk();
    }
    const std::lock_guard guard(lock_);
    *enabled = state_.enabled ? 1 : 0;
    *x = state_.x;
    *y = state_.y;
    *colour = state_.colour;
    *selected = state_.selected ? 1 : 0;
    return state_.result;
  }
  void Set(const State& state) {
    const std::lock_guard guard(lock_);
    state_ = state;
  }

  // Called first whenever the composer asks; set before the graph runs.
  std::function<void()> onAsk;

 private:
  std::mutex lock_;
  State state_;  // guarded by lock_
};

}  // namespace fakes

// A composer of a small canvas in a graph with a background source, a sink on "Composition" and a
// number of inputs with window sources. Nothing is connected yet.
class ComposerFixture : public testing::Test {
 protected:
  static constexpr LONG kWidth = 160;
  static constexpr LONG kHeight = 120;
  static constexpr REFERENCE_TIME kFrame = 400000;  // 25 frames per second

  // Makes the composer with that many inputs; the windows' sources offer windowWidth x
  // windowHeight.
  void Make(LONG inputs, REFERENCE_TIME prerollPeriod = 0);
  void ConnectBackground(const CMediaType& type);
  void ConnectBackground() { ConnectBackground(fakes::Yv12Type(kWidth, kHeight, kFrame)); }
  void ConnectWindow(LONG index, LONG width, LONG height);
  void ConnectSink();
  // All of the above for every input, and the graph running.
  void MakeRunning(LONG inputs, LONG width, LONG height);

  // A source connected to the pin at a position of the composer's enumeration.
  ComPtr<fakes::Source> ConnectSide(int position, const CMediaType& type, LONG bytes = 4096);
  // With the type that the pin itself proposes.
  ComPtr<fakes::Source> ConnectSide(int position);
  static int PositionOfText(LONG index) { return 4 + 6 * index; }
  static int PositionOfVideoAlarm(LONG index) { return 6 + 6 * index; }
  static int PositionOfAudioAlarm(LONG index) { return 7 + 6 * index; }

  // Sends a background picture filled with one luma (chroma 128) and waits until it has left.
  // Returns the delivered sample.
  ComPtr<IMediaSample> Compose(REFERENCE_TIME start, BYTE luma = 16);
  // Sends one without waiting.
  HRESULT SendBackground(std::optional<REFERENCE_TIME> start, BYTE luma = 16);
  // Makes a moment the composer's present time, and returns when nothing is being composed any
  // more. The filter is paused then.
  void SetPresent(REFERENCE_TIME start);
  // Sends a window picture of one luma.
  HRESULT SendPicture(LONG index, REFERENCE_TIME start, BYTE luma);
  // Waits until a background frame has been composed or dropped: all its references are gone but
  // those of the sink.
  void WaitForLine(const std::string& text);

  static BYTE* Pixels(IMediaSample* sample);
  static BYTE Luma(IMediaSample* sample, LONG x, LONG y) { return Pixels(sample)[y * kWidth + x]; }

  void TearDown() override;

  RecordingLogger logger_;
  ComPtr<FilterGraph> graph_ = FilterGraph::Create();
  CCompose* composer_ = nullptr;  // kept by filter_
  ComPtr<IBaseFilter> filter_;
  ComPtr<fakes::Source> background_ = fakes::Source::Create();
  ComPtr<fakes::Sink> sink_ = fakes::Sink::Create();
  std::vector<ComPtr<fakes::Source>> sources_;
  std::vector<ComPtr<fakes::Window>> windows_;
  std::vector<ComPtr<fakes::Source>> sides_;
};
