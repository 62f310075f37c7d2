// OutputWriter: what the thread of an output does and touches.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "host/output/output.h"

namespace host {

// Writes what waits in its queue, and opens its file or connection again after failures. A write
// into a dead mount may never return: the writer owns everything that its thread touches, and after
// Detach calls nobody.
//
// Shared by an Output and its thread. Run is the thread's, the rest anybody's.
class OutputWriter {
 public:
  OutputWriter(Output::Settings settings, ffmpeg::Parameters video, OutputObserver* observer,
               qorp::log::ILogPerf* logger);

  void Run();
  // Ends blocking calls, as far as something can end them.
  void Cancel();
  // Observer and logger may be destroyed afterwards.
  void Detach();
  // It has failed and is not opened again.
  void Fail(const std::string& reason);

  // The observer and the logger are called with the lock of both held, and return at once.
  template <typename Call>
  void Tell(Call call) {
    const std::lock_guard guard(contactsLock_);
    if (observer_ != nullptr) {
      call(*observer_);
    }
  }
  void NoteOverflow();

  std::string failure() const;
  std::string file() const;
  // Bytes that have reached the file that is written; 0 where there is none.
  std::int64_t FileBytes();
  void EncoderFailed(const std::string& reason, std::optional<std::chrono::milliseconds> retryIn);
  void EncoderRecovered();

  const Output::Settings settings;
  OutputCounters counters;
  PacketQueue queue;
  std::atomic<std::uint64_t> overflows{0};
  std::atomic<std::uint64_t> openings{0};
  std::atomic<std::uint64_t> fileCount{0};
  std::atomic<bool> failed{false};

 private:
  // One opening, to the end of what comes; empty, or why it failed.
  std::string RunSession(OutputSession& session);
  void Opened(const OutputSession& session, const std::string& file);
  // What Cancel ends; false when it was called already.
  bool SetSession(OutputSession* session);
  void SetFailure(const std::string& reason);

  const ffmpeg::Parameters video_;
  std::optional<RecordingFiles> recording_;  // the thread's own
  std::mutex contactsLock_;
  OutputObserver* observer_;     // guarded by contactsLock_; null once detached
  qorp::log::ILogPerf* logger_;  // likewise; may be null
  mutable std::mutex lock_;
  std::string failure_;               // guarded by lock_
  std::string encoderFailure_;        // guarded by lock_
  std::string file_;                  // guarded by lock_
  OutputSession* session_ = nullptr;  // guarded by lock_; what Cancel ends
  bool cancelled_ = false;            // guarded by lock_
};

}  // namespace host
