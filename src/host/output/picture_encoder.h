// PictureEncoder: encodes the composed pictures for all outputs of one setting.
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

#include "host/output/bounded_queue.h"
#include "host/output/video_encoder.h"
#include "host/units.h"
#include "log/i_log_perf.h"
#include "platform/com/com_ptr.h"
#include "platform/dshow/samples.h"
#include "platform/os/thread.h"

namespace host {

// Takes references to composed pictures into a bounded queue; its thread encodes them and hands
// every packet to each of its outputs. A live wall never waits: when the encoder is behind, the
// oldest picture that waits is dropped, counted and reported to the logger as a full buffer. An
// encoder that fails is opened again after a growing delay, in which frames are dropped; it begins
// again with a keyframe and with the same headers, so that its outputs continue. A wall that is
// rendered waits for room before it sends the next frame, and a failure is final.
//
// Owned by the set of outputs. Take is the composition thread's, the rest the application's.
class PictureEncoder {
 public:
  struct Settings {
    std::string name = "encoder";  // for the reports about full buffers
    VideoEncoder::Settings encoder;
    std::size_t queuedPictures = 16;
    bool live = false;
    std::chrono::milliseconds firstDelay{250};  // until it is opened again; doubles each time
    std::chrono::milliseconds longestDelay{5'000};
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
  PictureEncoder(const Settings& settings, qorp::log::ILogPerf* logger);
  ~PictureEncoder();
  PictureEncoder(const PictureEncoder&) = delete;
  PictureEncoder& operator=(const PictureEncoder&) = delete;

  // Before Start.
  void Add(Consumer consumer) { consumers_.push_back(std::move(consumer)); }
  void Start();

  // Returns at once.
  void Take(const ComPtr<IMediaSample>& picture, Time start);
  // Whether the next Take drops nothing; waits that long for it. An encoder that has ended takes
  // everything.
  bool WaitForRoom(std::chrono::milliseconds limit);
  // Encodes what waits and hands over the last packets.
  void Finish();

  ffmpeg::Parameters parameters() const;
  std::uint64_t dropped() const { return dropped_; }

 private:
  struct Picture {
    ComPtr<IMediaSample> sample;
    Time start = 0;
  };

  using Clock = std::chrono::steady_clock;

  void Run();
  void Hand(const ffmpeg::Packet& packet);
  void Encode(const Picture& picture);
  // Throws ffmpeg::Error.
  void Open();
  void OnFailure(const std::string& reason);

  const Settings settings_;
  qorp::log::ILogPerf* const logger_;
  std::optional<VideoEncoder> encoder_;  // none after a failure; the thread's once it runs
  const ffmpeg::Parameters parameters_;
  std::optional<Time> gridStart_;    // of the keyframes of all encoders
  std::chrono::milliseconds delay_;  // the thread's own, as is all up to here
  Clock::time_point openedAt_;
  Clock::time_point openAgainAt_;
  std::int64_t inside_ = 0;  // frames that the encoder holds
  bool failed_ = false;      // nothing was encoded since
  std::vector<Consumer> consumers_;
  BoundedQueue<Picture> queue_;
  std::atomic<std::uint64_t> dropped_{0};
  std::atomic<bool> ended_{false};
  std::unique_ptr<os::Thread> thread_;
};

}  // namespace host
