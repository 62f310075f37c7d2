// PictureRecorder: encodes the composed pictures and writes them to a file.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "host/output/bounded_queue.h"
#include "host/output/muxer.h"
#include "host/output/video_encoder.h"
#include "host/units.h"
#include "platform/com/com_ptr.h"
#include "platform/dshow/samples.h"
#include "platform/os/thread.h"

namespace host {

// Takes references to composed pictures into a bounded queue; its thread encodes and writes them. A
// live wall never waits: when the encoder is behind, the oldest picture that waits is dropped and
// counted. A wall that is rendered waits for room before it sends the next frame.
class PictureRecorder {
 public:
  struct Settings {
    VideoEncoder::Settings encoder;
    Muxer::Settings muxer;
    Ratio frameRate{25, 1};
    std::size_t queuedPictures = 16;
  };

  // Opens encoder and file. Throws ffmpeg::Error.
  explicit PictureRecorder(const Settings& settings);
  // Finishes the file if Finish was not called, without a word when that fails.
  ~PictureRecorder();
  PictureRecorder(const PictureRecorder&) = delete;
  PictureRecorder& operator=(const PictureRecorder&) = delete;

  // Composition thread; returns at once. False when a picture that waited was dropped for it.
  bool Take(const ComPtr<IMediaSample>& picture, Time start);
  // Any thread: whether the next Take drops nothing; waits that long for it.
  bool WaitForRoom(std::chrono::milliseconds limit) { return queue_.WaitForRoom(limit); }
  // Application's thread: encodes what waits, ends the file. Throws the failure that ended the
  // recording early, if one did.
  void Finish();

  std::uint64_t dropped() const { return dropped_; }
  std::uint64_t written() const { return written_; }
  // The recording has ended early; Finish tells why.
  bool failed() const { return failed_; }

 private:
  struct Picture {
    ComPtr<IMediaSample> sample;
    Time start = 0;
  };

  void Record();
  void WritePackets(ffmpeg::Packet packet);

  VideoEncoder encoder_;
  Muxer muxer_;
  std::size_t track_ = 0;
  BoundedQueue<Picture> queue_;
  std::atomic<std::uint64_t> dropped_{0};
  std::atomic<std::uint64_t> written_{0};
  std::atomic<bool> failed_{false};
  std::string failure_;  // the recording thread's until it has ended
  bool finished_ = false;
  std::unique_ptr<os::Thread> thread_;
};

}  // namespace host
