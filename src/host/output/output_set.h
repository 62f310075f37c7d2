// OutputSet: all outputs of a wall.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/output/encoder_thread.h"
#include "host/output/output.h"

namespace host {

// Makes one encoder for all outputs with the same settings and hands it every frame; the outputs
// get the encoders' packets and all channels' audio. No output disturbs another, nor the wall.
//
// Owned by the wall's session. Take is the composition thread's, TakeAudio the channels'
// streaming threads'; both return at once. The rest is the application's.
class OutputSet {
 public:
  struct Item {
    std::string name;  // for people: the URL without credentials
    VideoEncoder::Settings encoder;
    Muxer::Settings muxer;
    bool audio = true;
    RecordingFiles::Existing existing = RecordingFiles::Existing::kKept;
    SegmentLimits segments;
    Time formatLimit = 5 * kSecond;  // see OutputSession
  };
  struct Settings {
    std::vector<Item> outputs;
    std::vector<OutputSession::Track> tracks;  // one for each channel of the wall
    Ratio frameRate{25, 1};
    bool live = false;
    PacketQueue::Limits queue;
    std::chrono::milliseconds finishLimit{5'000};  // of a live output, to write what waits
  };
  // Frames, or audio packets of one channel.
  struct TrackStatus {
    std::uint64_t written = 0;
    std::uint64_t dropped = 0;  // encoder or output was behind, or the output was not open
    std::uint64_t leftOut = 0;  // too late or too early for the file, or refused by it
    std::uint64_t silence = 0;  // written besides, where the channel had no audio
  };
  struct Status {
    std::string name;
    std::string file;         // the latest that is written; empty where it is no file
    std::uint64_t files = 0;  // how many were begun
    TrackStatus video;
    std::vector<TrackStatus> audio;  // of every channel; empty for an output without audio
    std::uint64_t overflows = 0;     // how often its queue was full
    std::uint64_t openings = 0;
    std::size_t queuedBytes = 0;   // packets that wait for it
    std::size_t queuedFrames = 0;  // frames that wait for its encoder
    std::string failure;           // empty while it works
    bool failed = false;           // permanently
  };

  // observer and logger outlive the set; logger may be null. An output whose encoder or container
  // is not available has failed from the start, and the observer is called.
  OutputSet(const Settings& settings, OutputObserver* observer, qorp::log::ILogPerf* logger);
  ~OutputSet();
  OutputSet(const OutputSet&) = delete;
  OutputSet& operator=(const OutputSet&) = delete;

  void Take(const ComPtr<IMediaSample>& frame, Time start);
  // offset: see AudioSink.
  void TakeAudio(std::size_t channel, const AVPacket& packet, Time offset);
  // Before each frame of a rendered wall: waits for room everywhere; false after the limit.
  bool WaitForRoom(std::chrono::milliseconds limit);
  // The wall has ended: writes everything to its end. hurried: whether a rendering, which otherwise
  // takes as long as its outputs, is to end at once; polled, may be null. An output that is stuck
  // is abandoned and has failed.
  void Finish(const std::function<bool()>& hurried = nullptr);

  bool empty() const { return entries_.empty(); }
  bool allFailed() const;
  std::vector<Status> status() const;
  // Frames that found an encoder too slow.
  std::uint64_t droppedBeforeEncoding() const;
  // Bytes of packets that wait for the outputs.
  std::size_t queuedBytes() const;

 private:
  struct Encoder {
    VideoEncoder::Settings settings;
    std::unique_ptr<EncoderThread> encoder;
  };
  struct Entry {
    std::string name;
    EncoderThread* encoder = nullptr;
    std::shared_ptr<Output> output;  // null: it failed from the start
    std::string failure;
  };

  using StartedAt = std::atomic<std::int64_t>;  // ticks of the steady clock; 0: no frame came yet

  static Time SinceStart(const StartedAt& startedAt);
  void FinishEncoder(Encoder& encoder, const std::function<std::chrono::milliseconds()>& left);
  void Add(const Item& item, const Settings& settings);
  EncoderThread& EncoderFor(const Item& item, bool live);

  OutputObserver* const observer_;
  qorp::log::ILogPerf* const logger_;
  const std::chrono::milliseconds finishLimit_;
  const std::shared_ptr<StartedAt> startedAt_ = std::make_shared<StartedAt>(0);
  // The encoders are destroyed first: their threads use the outputs.
  std::vector<Entry> entries_;
  std::vector<Encoder> encoders_;
  bool finished_ = false;
};

}  // namespace host
