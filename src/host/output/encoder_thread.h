// EncoderThread: encodes the composed frames for all outputs of one setting.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/output/video_encoder.h"
#include "host/units.h"
#include "log/i_log_perf.h"
#include "platform/com/com.h"
#include "platform/dshow/media.h"
#include "platform/os/thread.h"
#include "util/bounded_queue.h"
#include "util/reopen_delay.h"

namespace host {

// Takes references to composed frames into a bounded queue; its thread encodes them and hands
// every packet to each of its outputs. A live wall never waits: when the encoder is behind, the
// oldest frame that waits is dropped, counted and reported to the logger as a full buffer. An
// encoder that fails is opened again after a growing delay, in which frames are dropped; it begins
// again with a keyframe and with the same headers, so that its outputs continue. A wall that is
// rendered waits for room before it sends the next frame, and a failure is final.
//
// Owned by the set of outputs. Take is the composition thread's, the rest the application's.
class EncoderThread {
 public:
  struct Settings {
    std::string name = "encoder";  // for the reports about full buffers
    VideoEncoder::Settings encoder;
    std::size_t queuedFrames = 16;
    bool live = false;
    qorp::ReopenLimits reopen;  // until it is opened again after a failure
  };
  // Called by the encoder's thread.
  struct Consumer {
    std::function<void(const AVPacket& packet)> take;
    // retryIn: until the encoder is opened again; none: nothing more will come.
    std::function<void(const std::string& reason, std::optional<std::chrono::milliseconds> retryIn)>
        fail;
    std::function<void()> recover;  // it encodes again
  };

  // Opens the encoder. Throws ffmpeg::Error. logger may be null; it outlives the encoder.
  EncoderThread(const Settings& settings, qorp::log::ILogPerf* logger);
  ~EncoderThread();
  EncoderThread(const EncoderThread&) = delete;
  EncoderThread& operator=(const EncoderThread&) = delete;

  // Before Start. A consumer owns what it calls: the thread may have to be detached.
  void Add(Consumer consumer);
  void Start();

  // Returns at once.
  void Take(const ComPtr<IMediaSample>& frame, Time start);
  // Waits until the next Take drops nothing; false when that takes longer than the limit. An
  // encoder that has ended takes everything.
  bool WaitForRoom(std::chrono::milliseconds limit);
  // No more frames come.
  void Close();
  // After Close: false when encoding what waits and handing over the last packets takes longer than
  // the limit.
  bool WaitForEnd(std::chrono::milliseconds limit);
  // Packets that were handed over so far.
  std::uint64_t handed() const;
  // Closes and waits for the end. After the limit a thread that is stuck in the encoder or in a
  // consumer is detached: false.
  bool Finish(std::chrono::milliseconds limit);

  ffmpeg::Parameters parameters() const;
  std::uint64_t dropped() const;
  // Frames that wait to be encoded. Any thread.
  std::size_t queued() const;

 private:
  struct QueuedFrame;
  // What the thread runs and uses; shared with it.
  struct Work;

  const std::shared_ptr<Work> work_;
  qorp::log::ILogPerf* const logger_;
  std::unique_ptr<os::Thread> thread_;
};

}  // namespace host
