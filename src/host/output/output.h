// Output: one file or connection to which the wall is written.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "host/output/output_files.h"
#include "host/output/output_session.h"
#include "host/output/packet_queue.h"
#include "log/i_log_perf.h"
#include "platform/os/thread.h"
#include "util/reopen_delay.h"

namespace host {

// Is notified of what happens to an output; called by any thread.
class OutputObserver {
 public:
  virtual ~OutputObserver() = default;
  // reason: one sentence; retryIn: until the output is opened again, none when it is not.
  virtual void OutputFailed(const std::string& output, const std::string& reason,
                            std::optional<std::chrono::milliseconds> retryIn) = 0;
  enum class Opening {
    kFirst,
    kBeside,  // the first, into another file than was asked for, because there is one
    kAgain,   // after a failure
    kNext,    // the next segment of a recording
  };
  // It is open. target: the file that is written now; where it is none, the output's name.
  virtual void OutputOpened(const std::string& output, const std::string& target,
                            Opening opening) = 0;
  // Something that the operator should know about what is written.
  virtual void OutputSaid(const std::string& output, const std::string& what) = 0;
};

class OutputWriter;

// Takes the packets of the mosaic and of all channels' audio into a bounded queue; its thread opens
// the file or connection and writes. Live, no other thread ever waits for it: when its consumer is
// slow, the oldest GOP that waits is dropped and reported to the logger as a full buffer; when it
// fails, it is opened again after a growing delay. Rendering, the caller waits for room, and a
// failure is final.
//
// Threads: TakeVideo is the encoder's, TakeAudio the channels' streaming threads', Finish and the
// constructor the application's; the counters are any thread's.
class Output {
 public:
  struct Settings {
    std::string name;            // for people: the URL without credentials
    std::string pin = "output";  // for the logger's reports about full buffers
    OutputSession::Settings session;
    bool live = false;
    PacketQueue::Limits queue;
    // Of files: what happens to one that exists already.
    RecordingFiles::Existing existing = RecordingFiles::Existing::kKept;
    qorp::ReopenLimits reopen;  // until it is opened again after a failure
    // After a failure: so much must be written until the output counts as open again.
    Time openAfter = 2 * kSecond;
  };

  // video: of the encoder's packets. observer and logger outlive the output; logger may be null.
  Output(Settings settings, ffmpeg::Parameters video, OutputObserver* observer,
         qorp::log::ILogPerf* logger);
  // As Finish with a limit of 0, if that was not called.
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void TakeVideo(const AVPacket& packet);
  void TakeAudio(std::size_t channel, const AVPacket& packet, Time offset);
  // The encoder has failed. retryIn: until it is opened again; none: there is nothing more to
  // write.
  void EncoderFailed(const std::string& reason, std::optional<std::chrono::milliseconds> retryIn);
  void EncoderRecovered();
  // Waits until there is room for the next frames; false when that takes longer than the limit.
  bool WaitForRoom(std::chrono::milliseconds limit);
  // No more packets come.
  void Close();
  // Drops what waits, and ends all waits for room.
  void Abandon();
  // After Close: false when writing what waits takes longer than the limit.
  bool WaitForEnd(std::chrono::milliseconds limit);
  // Writes what waits and the trailer; drops what is not written within the limit, unless its file
  // still grows. A thread that is stuck in a call that cannot be cancelled, as on a dead mount, is
  // detached, and the output has failed.
  void Finish(std::chrono::milliseconds limit);

  const std::string& name() const;
  // What became of the packets of every track.
  const OutputCounters& counters() const;
  std::uint64_t overflows() const;  // how often packets were dropped
  std::uint64_t openings() const;
  // The number of files that were begun, and the latest one; 0 and empty where there is no file.
  std::uint64_t files() const;
  std::string file() const;
  std::size_t queuedBytes() const;
  // It has ended early and is not opened again.
  bool failed() const;
  // Why it does not work now or has ended early; empty when it works.
  std::string failure() const;

 private:
  const std::shared_ptr<OutputWriter> writer_;
  std::unique_ptr<os::Thread> thread_;  // null once finished
};

}  // namespace host
