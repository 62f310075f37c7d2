// ScreenOutput: an output that shows the wall on a display of this machine.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "host/config/wall.h"
#include "host/ffmpeg/handles.h"
#include "host/output/output.h"
#include "host/output/screen/screen_input.h"
#include "host/units.h"
#include "platform/com/com.h"
#include "platform/dshow/media.h"
#include "platform/os/companion_process.h"
#include "platform/os/mutex.h"
#include "platform/os/thread.h"

namespace host {

// The window belongs to a process of its own (`ScreenWindow`), because a display that is lost ends
// the process that uses it, and a graphics driver may stop or crash. This thread copies the newest
// composed frame into memory that both share, receives the operator's input, and starts the process
// again after a growing delay when it has ended. A window that the operator has closed stays
// closed.
//
// The composition never waits: a new frame replaces one that still waits.
//
// Take is the composition thread's, TakeAudio one streaming thread's; the rest the application's.
class ScreenOutput {
 public:
  struct Settings {
    std::string name;     // for people: "screen:0"
    std::string program;  // path of the program whose process shows the window
    std::string title;    // of the window
    config::Screen screen;
    int width = 0;  // of the canvas, pixels
    int height = 0;
    Ratio pixelAspect{1, 1};
    qorp::ReopenLimits reopen;                      // until it is opened again after a failure
    std::chrono::milliseconds answerLimit{10'000};  // for the display to take a frame
    // Called by the output's thread; may be empty.
    std::function<void(const std::string& screen, const ScreenInput& input)> takeInput;
  };
  enum class State { kOpening, kOpen, kFailed, kClosed };
  struct Status {
    std::string name;
    State state = State::kOpening;
    std::string failure;        // why it is not open; empty when it is
    std::uint64_t shown = 0;    // frames
    std::uint64_t skipped = 0;  // frames for which the display was too slow, while it was open
    std::uint64_t openings = 0;
    std::int64_t behind = 0;  // frames composed since the one that was shown last, at that moment
  };

  // observer outlives the output; it and takeInput are called until Finish returns. Throws
  // std::system_error when there is no thread.
  ScreenOutput(Settings settings, OutputObserver* observer);
  // As Finish.
  ~ScreenOutput();
  ScreenOutput(const ScreenOutput&) = delete;
  ScreenOutput& operator=(const ScreenOutput&) = delete;

  // Returns at once; keeps the frame no longer than it takes to copy it.
  void Take(const ComPtr<IMediaSample>& frame, Time start);
  // Decoded samples of what is to be heard, in any format, on the wall's clock. Returns at once.
  void TakeAudio(const AVFrame& samples, Time start);
  // Closes the window. Returns within a few seconds, whatever the display does.
  void Finish();

  Status status() const;

 private:
  struct Waiting {
    ComPtr<IMediaSample> frame;
    Time start = 0;
    std::int64_t number = 0;
  };
  // One process, to its end.
  struct Session;

  void Run();
  // Why it has ended; wasOpen: it had been open, isClosed: by the operator.
  std::string RunSession(bool& wasOpen, bool& isClosed);
  void Handle(Session& session, std::span<const std::uint8_t> bytes);
  void Copy(Session& session);
  void SetSocket(const os::MessageSocket* socket);
  void SendSamples(const float* samples, int count, Time start);

  const Settings settings_;
  OutputObserver* const observer_;
  os::Event stop_;
  mutable os::Mutex lock_;
  Status status_ GUARDED_BY(lock_);
  const os::MessageSocket* socket_ GUARDED_BY(lock_) = nullptr;  // of the window that is open
  Waiting waiting_ GUARDED_BY(lock_);                            // the newest frame; may be none
  std::int64_t taken_ GUARDED_BY(lock_) = 0;
  // The thread's own.
  bool isFirst_ = true;  // it was not open yet
  // TakeAudio's own.
  ffmpeg::Resampler resampler_;
  int sampleFormat_ = -1;
  int sampleRate_ = 0;
  int channels_ = 0;
  std::unique_ptr<os::Thread> thread_;
};

// "opening", "open", "failed", "closed".
const char* NameOf(ScreenOutput::State state);

}  // namespace host
