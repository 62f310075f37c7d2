#include "host/output/output_set.h"

#include <algorithm>
#include <optional>
#include <thread>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "host/ffmpeg/error.h"
#include "host/output/container.h"

namespace host {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kForever{0x7FFF'FFFF};
constexpr milliseconds kPoll{50};
// How long encoders of a live wall may take to hand over what they hold, and outputs of a rendering
// that is to end at once.
constexpr milliseconds kEncoderLimit{2'000};
constexpr milliseconds kHurriedLimit{3'000};
// An encoder that hands over nothing for that long after the limit is stuck.
constexpr milliseconds kEncoderStall{1'000};
// How long an encoder's thread may take to notice that its outputs were abandoned.
constexpr milliseconds kCancelLimit{250};

OutputSet::TrackStatus StatusOf(const TrackCounters& counters) {
  return {counters.written, counters.dropped, counters.leftOut, counters.silence};
}

}  // namespace

OutputSet::OutputSet(const Settings& settings, OutputObserver* observer,
                     qorp::log::ILogPerf* logger)
    : observer_(observer),
      logger_(logger),
      finishLimit_(settings.live ? settings.finishLimit : kForever) {
  for (const Item& item : settings.outputs) {
    entries_.push_back({item.name, nullptr, nullptr, {}});
    try {
      Add(item, settings);
    } catch (const ffmpeg::Error& error) {
      entries_.back().failure = error.what();
      observer_->OutputFailed(item.name, error.what(), std::nullopt);
    }
  }
  for (const Encoder& encoder : encoders_) {
    encoder.encoder->Start();
  }
}

OutputSet::~OutputSet() {
  Finish();
}

void OutputSet::Add(const Item& item, const Settings& settings) {
  // Permanent errors are reported before the wall starts.
  const AVOutputFormat* const container = FindContainer(item.muxer.format, item.muxer.url);
  const AVCodec* const codec = FindVideoEncoder(item.encoder.codec);
  if (container == nullptr) {
    throw ffmpeg::Error(AVERROR_MUXER_NOT_FOUND, "no known format for", item.muxer.url);
  }
  if (codec != nullptr && !Holds(*container, codec->id)) {
    throw ffmpeg::Error(AVERROR(ENOSYS), CannotHold(*container, codec->id));
  }
  EncoderThread& encoder = EncoderFor(item, settings.live);
  Output::Settings output;
  output.name = item.name;
  output.pin = "output " + std::to_string(entries_.size());
  output.live = settings.live;
  output.queue = settings.queue;
  output.existing = item.existing;
  output.session.muxer = item.muxer;
  output.session.frameRate = settings.frameRate;
  output.session.formatLimit = item.formatLimit;
  output.session.waitForSources = settings.live;
  output.session.segments = item.segments;
  output.session.keyFrameInterval = KeyframeInterval(item.encoder);
  output.session.muxer.survivesKill = settings.live;
  if (!settings.live) {
    output.session.muxer.writeLimit = kForever;
  }
  output.session.muxer.isPaced = settings.live;
  output.session.muxer.lowDelay = item.encoder.lowDelay;
  if (settings.live) {
    output.session.sinceStart = [startedAt = startedAt_] { return SinceStart(*startedAt); };
  }
  if (item.audio) {
    output.session.tracks = settings.tracks;
  }
  Entry& entry = entries_.back();
  entry.encoder = &encoder;
  entry.output =
      std::make_shared<Output>(std::move(output), encoder.parameters(), observer_, logger_);
  encoder.Add(
      {[output = entry.output](const AVPacket& packet) { output->TakeVideo(packet); },
       [output = entry.output](const std::string& reason, std::optional<milliseconds> retryIn) {
         output->EncoderFailed(reason, retryIn);
       },
       [output = entry.output] { output->EncoderRecovered(); }});
}

EncoderThread& OutputSet::EncoderFor(const Item& item, bool live) {
  VideoEncoder::Settings wanted = item.encoder;
  // Where a container wants the headers in the stream, its muxer repeats them there.
  wanted.globalHeader = true;
  const auto found = std::find_if(encoders_.begin(), encoders_.end(), [&](const Encoder& encoder) {
    return encoder.settings == wanted;
  });
  if (found != encoders_.end()) {
    return *found->encoder;
  }
  EncoderThread::Settings settings;
  settings.name = "encoder " + std::to_string(encoders_.size() + 1);
  settings.encoder = wanted;
  settings.live = live;
  encoders_.push_back({wanted, std::make_unique<EncoderThread>(settings, logger_)});
  return *encoders_.back().encoder;
}

Time OutputSet::SinceStart(const StartedAt& startedAt) {
  using std::chrono::steady_clock;
  const std::int64_t started = startedAt;
  const steady_clock::duration since =
      steady_clock::now().time_since_epoch() - steady_clock::duration(started);
  return started == 0 ? 0 : std::chrono::nanoseconds(since).count() / 100;
}

void OutputSet::Take(const ComPtr<IMediaSample>& frame, Time start) {
  if (*startedAt_ == 0) {
    *startedAt_ = std::chrono::steady_clock::now().time_since_epoch().count();
  }
  for (const Encoder& encoder : encoders_) {
    encoder.encoder->Take(frame, start);
  }
}

void OutputSet::TakeAudio(std::size_t channel, const AVPacket& packet, Time offset) {
  for (const Entry& entry : entries_) {
    if (entry.output) {
      entry.output->TakeAudio(channel, packet, offset);
    }
  }
}

bool OutputSet::WaitForRoom(milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  const auto left = [&] {
    return std::max(milliseconds(0), std::chrono::duration_cast<milliseconds>(
                                         end - std::chrono::steady_clock::now()));
  };
  for (const Encoder& encoder : encoders_) {
    if (!encoder.encoder->WaitForRoom(left())) {
      return false;
    }
  }
  for (const Entry& entry : entries_) {
    if (entry.output && !entry.output->WaitForRoom(left())) {
      return false;
    }
  }
  return true;
}

// An encoder that still delivers packets is waited for. One of a rendering may wait for an output
// that is stuck.
void OutputSet::FinishEncoder(Encoder& encoder, const std::function<milliseconds()>& left) {
  std::uint64_t handed = encoder.encoder->handed();
  milliseconds idle{0};
  while (!encoder.encoder->WaitForEnd(kPoll)) {
    const bool progresses = std::exchange(handed, encoder.encoder->handed()) != handed;
    idle = progresses ? milliseconds(0) : idle + kPoll;
    if (left() == milliseconds(0) && idle >= kEncoderStall) {
      break;
    }
  }
  if (encoder.encoder->WaitForEnd(milliseconds(0))) {
    return;
  }
  for (const Entry& entry : entries_) {
    if (entry.output && entry.encoder == encoder.encoder.get()) {
      entry.output->Abandon();
    }
  }
  if (!encoder.encoder->Finish(kCancelLimit)) {
    for (const Entry& entry : entries_) {
      if (entry.output && entry.encoder == encoder.encoder.get()) {
        entry.output->EncoderFailed("its encoder does not end and was abandoned", std::nullopt);
      }
    }
  }
}

void OutputSet::Finish(const std::function<bool()>& hurried) {
  using Clock = std::chrono::steady_clock;
  if (std::exchange(finished_, true)) {
    return;
  }
  const bool isLive = finishLimit_ != kForever;
  std::optional<Clock::time_point> end;
  const auto begin = [&end](milliseconds limit) { end = Clock::now() + limit; };
  const auto left = [&] {
    if (!end && !isLive && hurried && hurried()) {
      begin(kHurriedLimit);
    }
    return end ? std::max(milliseconds(0),
                          std::chrono::duration_cast<milliseconds>(*end - Clock::now()))
               : kForever;
  };
  if (isLive) {
    begin(kEncoderLimit);
  }
  for (const Encoder& encoder : encoders_) {
    encoder.encoder->Close();
  }
  for (Encoder& encoder : encoders_) {
    FinishEncoder(encoder, left);
  }
  // All are closed before the first is waited for: together they take no longer than one.
  for (const Entry& entry : entries_) {
    if (entry.output) {
      entry.output->Close();
    }
  }
  if (isLive) {
    begin(finishLimit_);
  }
  for (const Entry& entry : entries_) {
    if (!entry.output) {
      continue;
    }
    while (left() > milliseconds(0) && !entry.output->WaitForEnd(std::min(left(), kPoll))) {
    }
  }
  // In parallel: all that are stuck take no longer than one.
  std::vector<std::thread> finishing;
  for (const Entry& entry : entries_) {
    if (entry.output && !entry.output->WaitForEnd(milliseconds(0))) {
      finishing.emplace_back([&entry] { entry.output->Finish(milliseconds(0)); });
    } else if (entry.output) {
      entry.output->Finish(milliseconds(0));
    }
  }
  for (std::thread& thread : finishing) {
    thread.join();
  }
}

bool OutputSet::allFailed() const {
  return !entries_.empty() && std::all_of(entries_.begin(), entries_.end(), [](const Entry& entry) {
    return !entry.output || entry.output->failed();
  });
}

std::uint64_t OutputSet::droppedBeforeEncoding() const {
  std::uint64_t dropped = 0;
  for (const Encoder& encoder : encoders_) {
    dropped += encoder.encoder->dropped();
  }
  return dropped;
}

std::size_t OutputSet::queuedBytes() const {
  std::size_t bytes = 0;
  for (const Entry& entry : entries_) {
    bytes += entry.output ? entry.output->queuedBytes() : 0;
  }
  return bytes;
}

std::vector<OutputSet::Status> OutputSet::status() const {
  std::vector<Status> all;
  for (const Entry& entry : entries_) {
    Status status;
    status.name = entry.name;
    status.failure = entry.failure;
    status.failed = !entry.output || entry.output->failed();
    if (entry.output) {
      status.failure = entry.output->failure();
      status.file = entry.output->file();
      status.files = entry.output->files();
      const OutputCounters& counters = entry.output->counters();
      status.video = StatusOf(counters.of(OutputCounters::kVideo));
      status.video.dropped += entry.encoder->dropped();
      for (std::size_t i = 0; i < counters.channels(); ++i) {
        status.audio.push_back(StatusOf(counters.of(static_cast<int>(i))));
      }
      status.overflows = entry.output->overflows();
      status.openings = entry.output->openings();
      status.queuedBytes = entry.output->queuedBytes();
      status.queuedFrames = entry.encoder->queued();
    }
    all.push_back(std::move(status));
  }
  return all;
}

}  // namespace host
