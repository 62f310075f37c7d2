#include "host/output/listening.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <numeric>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavutil/mathematics.h>
}

#include "host/ffmpeg/error.h"
#include "host/ffmpeg/time_unit.h"

namespace host {

namespace {

// How long it may take to notice that a listener has left.
constexpr std::chrono::milliseconds kQueuePeriod{500};
// Timestamps of sources are rounded; a larger step back is a jump.
constexpr Time kTimestampTolerance = 20 * kMillisecond;
constexpr int kUsualFrameSize = 1024;  // samples of a packet of AAC

// The AAC profiles that MP4 players support: LC and HE.
bool PlaysAsItIs(const AVCodecParameters& parameters) {
  const std::optional<std::string> codec = CodecText(parameters);
  return codec == "mp4a.40.2" || codec == "mp4a.40.5" || codec == "mp4a.40.29";
}

ffmpeg::Parameters WithFrameSize(const AVCodecParameters& given) {
  ffmpeg::Parameters parameters = ffmpeg::CopyParameters(given);
  parameters->frame_size = parameters->frame_size > 0 ? parameters->frame_size : kUsualFrameSize;
  return parameters;
}

}  // namespace

struct Listening::Track {
  Track(const AudioFormat& format, FragmentFeed& feedOfSlot) : feed(feedOfSlot) {
    if (PlaysAsItIs(*format.parameters)) {
      parameters = WithFrameSize(*format.parameters);
      filter = ffmpeg::MakePacketFilter("aac_adtstoasc", *parameters);
    } else {
      transcoder = std::make_unique<AudioTranscoder>(format);
      parameters = WithFrameSize(*transcoder->format().parameters);
    }
    writer = std::make_unique<FragmentWriter>(*parameters);
    feed.Publish({.isKey = false,
                  .frame = 0,
                  .bytes = writer->description(),
                  .format = FragmentFormat{CodecText(*parameters).value_or("mp4a.40.2"),
                                           0,
                                           0,
                                           {0, 1},
                                           parameters->sample_rate,
                                           parameters->ch_layout.nb_channels}});
  }

  bool GoesBack(const AVPacket& packet) const {
    return end && packet.pts < *end - kTimestampTolerance;
  }

  void Take(ffmpeg::Packet packet) {
    end = packet->pts + packet->duration;
    if (transcoder) {
      transcoder->Push(*packet, [this](ffmpeg::Packet encoded) { Write(std::move(encoded)); });
      return;
    }
    int result = av_bsf_send_packet(filter.get(), packet.get());
    while (result >= 0) {
      ffmpeg::Packet filtered = ffmpeg::MakePacket();
      result = av_bsf_receive_packet(filter.get(), filtered.get());
      if (result >= 0) {
        // The configuration is in the description.
        av_packet_free_side_data(filtered.get());
        Write(std::move(filtered));
      }
    }
    // A damaged packet leaves a gap.
    if (result != AVERROR_INVALIDDATA && result != AVERROR(EAGAIN)) {
      ffmpeg::Check(result, "cannot take audio");
    }
  }

  void Write(ffmpeg::Packet packet) {
    if (packet->duration <= 0) {
      packet->duration = av_rescale(parameters->frame_size, kSecond, parameters->sample_rate);
    }
    feed.Publish({.isKey = true, .frame = 0, .bytes = writer->Write(std::move(packet))});
  }

  FragmentFeed& feed;
  ffmpeg::Parameters parameters;                // of what is sent
  ffmpeg::PacketFilter filter;                  // of AAC that is sent as it is
  std::unique_ptr<AudioTranscoder> transcoder;  // of everything else
  std::unique_ptr<FragmentWriter> writer;
  std::optional<Time> end{};  // of the latest packet of the channel
};

Listening::Listening(std::size_t slots) {
  for (std::size_t slot = 0; slot < slots; ++slot) {
    feeds_.push_back(FragmentFeed::Create());
  }
  thread_ =
      std::make_unique<os::Thread>([this] { Run(); }, "listening", os::Thread::Priority::kLow);
}

Listening::~Listening() {
  queue_.Close();
  thread_->Wait(os::kInfinite);
}

std::size_t Listening::listeners() const {
  return std::accumulate(feeds_.begin(), feeds_.end(), std::size_t{0},
                         [](std::size_t sum, const auto& feed) { return sum + feed->viewers(); });
}

void Listening::Take(std::size_t slot, const AVPacket& packet,
                     const std::shared_ptr<AudioTrack>& track) {
  if (slot < feeds_.size() && feeds_[slot]->viewers() > 0) {
    static_cast<void>(queue_.PushDroppingOldest({slot, ffmpeg::RefPacket(packet), track}));
  }
}

void Listening::Run() {
  while (!queue_.closed()) {
    std::optional<Item> item = tracks_.empty() ? queue_.Pop() : queue_.PopFor(kQueuePeriod);
    for (auto track = tracks_.begin(); track != tracks_.end();) {
      const std::size_t slot = (track++)->first;
      if (feeds_[slot]->viewers() == 0) {
        Close(slot);
      }
    }
    if (!item || feeds_[item->slot]->viewers() == 0) {
      continue;
    }
    const std::size_t slot = item->slot;
    try {
      Handle(std::move(*item));
    } catch (const std::exception& error) {
      Close(slot);
      feeds_[slot]->End(error.what());
    }
  }
}

void Listening::Close(std::size_t slot) {
  tracks_.erase(slot);
  feeds_[slot]->Forget();
}

void Listening::Handle(Item item) {
  std::unique_ptr<Track>& track = tracks_[item.slot];
  const std::shared_ptr<const AudioFormat> format = item.track ? item.track->format() : nullptr;
  if (!format) {
    tracks_.erase(item.slot);
    return;
  }
  if (!track || track->GoesBack(*item.packet)) {
    track = std::make_unique<Track>(*format, *feeds_[item.slot]);
  }
  track->Take(std::move(item.packet));
}

}  // namespace host
