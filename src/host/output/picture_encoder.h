// PictureEncoder: encodes the composed pictures for all outputs of one setting.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
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
// oldest picture that waits is dropped, counted and reported to the logger as a full buffer. A wall
// that is rendered waits for room before it sends the next frame.
//
// Owned by the set of outputs. Take is the composition thread's, the rest the application's.
class PictureEncoder {
 public:
  struct Settings {
    std::string name = "encoder";  // for the reports about full buffers
    VideoEncoder::Settings encoder;
    std::size_t queuedPictures = 16;
  };
  // Called by the encoder's thread.
  struct Consumer {
    std::function<void(const AVPacket& packet)> take;
    std::function<void(const std::string& reason)> fail;  // nothing more will come
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

  ffmpeg::Parameters parameters() const { return encoder_.parameters(); }
  std::uint64_t dropped() const { return dropped_; }

 private:
  struct Picture {
    ComPtr<IMediaSample> sample;
    Time start = 0;
  };

  void Encode();

  const std::string name_;
  qorp::log::ILogPerf* const logger_;
  VideoEncoder encoder_;
  std::vector<Consumer> consumers_;
  BoundedQueue<Picture> queue_;
  std::atomic<std::uint64_t> dropped_{0};
  std::atomic<bool> ended_{false};
  std::unique_ptr<os::Thread> thread_;
};

}  // namespace host
