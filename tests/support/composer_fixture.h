// A composer between scripted filters.
#pragma once

#include <algorithm>
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
  void Make(LONG inputs, REFERENCE_TIME prerollPeriod = 0) {
    HRESULT hr = S_OK;
    auto composer = std::make_unique<CCompose>(nullptr, &hr);
    composer_ = composer.get();
    filter_ = ComPtr<IBaseFilter>(composer.release());
    ASSERT_EQ(composer_->Configure(inputs, &logger_, kWidth, kHeight, 4, 3, prerollPeriod, {25, 1}),
              S_OK);
    graph_->AddFilter(filter_.Get(), u"composer");
    graph_->AddFilter(background_.Get(), u"background");
    graph_->AddFilter(sink_.Get(), u"sink");
    for (LONG i = 0; i < inputs; ++i) {
      windows_.push_back(fakes::Window::Create());
      sources_.push_back(fakes::Source::Create());
      graph_->AddFilter(sources_.back().Get(), u"channel");
      ASSERT_EQ(composer_->AddInput(i, static_cast<IComposeWindow*>(windows_.back().Get())), S_OK);
    }
  }
  void ConnectBackground(const CMediaType& type) {
    background_->pin.types = {type};
    background_->pin.wanted = {80, static_cast<LONG>(PictureBytes(kWidth, kHeight)), 32, 0};
    ASSERT_EQ(graph_->ConnectDirect(&background_->pin, composer_->GetPin(0), nullptr), S_OK);
  }
  void ConnectBackground() { ConnectBackground(fakes::Yv12Type(kWidth, kHeight, kFrame)); }
  void ConnectWindow(LONG index, LONG width, LONG height) {
    fakes::Source& source = *sources_[static_cast<std::size_t>(index)];
    source.pin.types = {fakes::Yv12Type(width, height, kFrame)};
    source.pin.wanted = {100, static_cast<LONG>(PictureBytes(width, height)), 32, 0};
    ASSERT_EQ(graph_->ConnectDirect(&source.pin, composer_->GetPin(2 + 6 * index), nullptr), S_OK);
  }
  void ConnectSink() {
    ASSERT_EQ(graph_->ConnectDirect(composer_->GetPin(1), &sink_->pin, nullptr), S_OK);
  }
  // All of the above for every input, and the graph running.
  void MakeRunning(LONG inputs, LONG width, LONG height) {
    Make(inputs);
    ConnectBackground();
    for (LONG i = 0; i < inputs; ++i) {
      ConnectWindow(i, width, height);
    }
    ConnectSink();
    ASSERT_EQ(graph_->Run(0), S_OK);
  }

  // A source connected to the pin at a position of the composer's enumeration.
  ComPtr<fakes::Source> ConnectSide(int position, const CMediaType& type, LONG bytes = 4096) {
    ComPtr<fakes::Source> source = fakes::Source::Create();
    source->pin.types = {type};
    source->pin.wanted = {100, bytes, 1, 0};
    EXPECT_GE(graph_->AddFilter(source.Get(), u"side"), 0);
    EXPECT_EQ(graph_->ConnectDirect(&source->pin, composer_->GetPin(position), nullptr), S_OK);
    sides_.push_back(source);
    return source;
  }
  // With the type that the pin itself proposes.
  ComPtr<fakes::Source> ConnectSide(int position) {
    CMediaType type;
    EXPECT_EQ(composer_->GetPin(position)->GetMediaType(0, &type), S_OK);
    return ConnectSide(position, type);
  }
  static int PositionOfText(LONG index) { return 4 + 6 * index; }
  static int PositionOfVideoAlarm(LONG index) { return 6 + 6 * index; }
  static int PositionOfAudioAlarm(LONG index) { return 7 + 6 * index; }

  // Sends a background frame filled with one luma (chroma 128) and waits until it is delivered.
  // Returns the delivered sample.
  ComPtr<IMediaSample> Compose(REFERENCE_TIME start, BYTE luma = 16) {
    sink_->Forget();
    EXPECT_EQ(SendBackground(start, luma), S_OK);
    EXPECT_TRUE(sink_->WaitForSamples(1)) << "no composed frame has left for " << start;
    const std::vector<ComPtr<IMediaSample>> samples = sink_->Samples();
    return samples.empty() ? nullptr : samples.front();
  }
  // Sends one without waiting.
  HRESULT SendBackground(std::optional<REFERENCE_TIME> start, BYTE luma = 16) {
    const ComPtr<IMediaSample> sample = start.has_value()
                                            ? background_->NewSample(start, *start + kFrame)
                                            : background_->NewSample();
    std::fill_n(Pixels(sample.Get()), kWidth * kHeight, luma);
    std::fill_n(Pixels(sample.Get()) + kWidth * kHeight, kWidth * kHeight / 2, BYTE{128});
    return background_->Send(sample.Get());
  }
  // Sets the composer's present time, and returns when nothing is being composed. The filter is
  // then paused.
  void SetPresent(REFERENCE_TIME start) {
    if (composer_->IsStopped()) {
      ASSERT_EQ(filter_->Pause(), S_OK);
    }
    ASSERT_EQ(SendBackground(start), S_OK);
    ASSERT_EQ(filter_->Pause(), S_OK);
  }
  // Sends a window frame of one luma.
  HRESULT SendPicture(LONG index, REFERENCE_TIME start, BYTE luma) {
    fakes::Source& source = *sources_[static_cast<std::size_t>(index)];
    const ComPtr<IMediaSample> sample = source.NewSample(start, start + kFrame);
    std::fill_n(Pixels(sample.Get()), sample->GetSize(), luma);
    return source.Send(sample.Get());
  }
  // Waits until a background frame has been composed or dropped: only the sink still references it.
  void WaitForLine(const std::string& text) {
    EXPECT_TRUE(logger_.WaitForLine(text)) << "never logged: " << text;
  }

  static BYTE* Pixels(IMediaSample* sample) {
    BYTE* pixels = nullptr;
    sample->GetPointer(&pixels);
    return pixels;
  }
  static BYTE Luma(IMediaSample* sample, LONG x, LONG y) { return Pixels(sample)[y * kWidth + x]; }

  void TearDown() override {
    sink_->Forget();
    graph_->Stop();
    graph_.Reset();
    filter_.Reset();
    background_.Reset();
    sink_.Reset();
    sources_.clear();
    windows_.clear();
    sides_.clear();
    EXPECT_EQ(CUnknown::ObjectsActive(), 0) << "an object of the graph was leaked";
  }

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
