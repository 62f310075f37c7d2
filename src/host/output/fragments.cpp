#include "host/output/fragments.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <new>
#include <utility>

extern "C" {
#include <libavcodec/codec_par.h>
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

#include "host/ffmpeg/error.h"
#include "host/ffmpeg/time_unit.h"

namespace host {

namespace {

constexpr const char* kWhat = "cannot write fragments of MP4";
// Fragments end where the writer flushes.
constexpr const char* kFlags = "frag_custom+empty_moov+default_base_moof";

}  // namespace

FragmentFeed::Subscription::Subscription(std::shared_ptr<FragmentFeed> feed, Limits limits,
                                         std::function<void()> wake)
    : feed_(std::move(feed)), limits_(limits), wake_(std::move(wake)) {
  ++feed_->viewers_;
}

FragmentFeed::Subscription::~Subscription() {
  --feed_->viewers_;
}

FragmentFeed::Piece FragmentFeed::Subscription::Next() {
  const os::MutexLock guard(lock_);
  if (description_) {
    return std::exchange(description_, nullptr);
  }
  if (waiting_.empty()) {
    return nullptr;
  }
  Piece next = std::move(waiting_.front());
  waiting_.pop_front();
  bytes_ -= next->bytes.size();
  return next;
}

std::string FragmentFeed::Subscription::end() const {
  const os::MutexLock guard(lock_);
  return end_;
}

std::uint64_t FragmentFeed::Subscription::skipped() const {
  const os::MutexLock guard(lock_);
  return skipped_;
}

void FragmentFeed::Subscription::Add(const Piece& piece) {
  bool wakes = false;
  {
    const os::MutexLock guard(lock_);
    const bool isIdle = !description_ && waiting_.empty();
    if (piece->format) {
      // What waits belongs to the former description.
      skipped_ += waiting_.size();
      waiting_.clear();
      bytes_ = 0;
      description_ = piece;
      waitsForKey_ = true;
    } else if (waitsForKey_ && !piece->isKey) {
      ++skipped_;
    } else {
      waitsForKey_ = false;
      waiting_.push_back(piece);
      bytes_ += piece->bytes.size();
      if (waiting_.size() > limits_.fragments || bytes_ > limits_.bytes) {
        SkipToKeyframe();
      }
    }
    wakes = isIdle && (description_ || !waiting_.empty());
  }
  if (wakes && wake_) {
    wake_();
  }
}

void FragmentFeed::Subscription::SkipToKeyframe() {
  const auto newest = std::find_if(waiting_.rbegin(), waiting_.rend(),
                                   [](const Piece& piece) { return piece->isKey; });
  // If the newest keyframe is also the oldest fragment, only the next keyframe is left to skip to.
  const auto from = newest == waiting_.rend() || std::next(newest) == waiting_.rend()
                        ? waiting_.end()
                        : std::prev(newest.base());
  waitsForKey_ = from == waiting_.end();
  for (auto piece = waiting_.begin(); piece != from; ++piece) {
    bytes_ -= (*piece)->bytes.size();
    ++skipped_;
  }
  waiting_.erase(waiting_.begin(), from);
}

void FragmentFeed::Subscription::End(const std::string& why) {
  {
    const os::MutexLock guard(lock_);
    end_ = why;
  }
  if (wake_) {
    wake_();
  }
}

std::shared_ptr<FragmentFeed::Subscription> FragmentFeed::Subscribe(Limits limits,
                                                                    std::function<void()> wake) {
  auto subscription = std::make_shared<Subscription>(shared_from_this(), limits, std::move(wake));
  {
    const os::MutexLock guard(lock_);
    std::erase_if(subscriptions_, [](const auto& one) { return one.expired(); });
    subscriptions_.push_back(subscription);
    if (description_) {
      subscription->Add(description_);
    }
  }
  if (joined_) {
    joined_();
  }
  return subscription;
}

void FragmentFeed::Publish(Fragment fragment) {
  const auto piece = std::make_shared<const Fragment>(std::move(fragment));
  const os::MutexLock guard(lock_);
  if (piece->format) {
    description_ = piece;
  }
  std::erase_if(subscriptions_, [&](const std::weak_ptr<Subscription>& one) {
    const std::shared_ptr<Subscription> alive = one.lock();
    if (alive) {
      alive->Add(piece);
    }
    return alive == nullptr;
  });
}

void FragmentFeed::Forget() {
  const os::MutexLock guard(lock_);
  description_ = nullptr;
}

void FragmentFeed::End(const std::string& why) {
  const os::MutexLock guard(lock_);
  description_ = nullptr;
  for (const std::weak_ptr<Subscription>& one : std::exchange(subscriptions_, {})) {
    if (const std::shared_ptr<Subscription> alive = one.lock()) {
      alive->End(why);
    }
  }
}

FragmentWriter::FragmentWriter(const AVCodecParameters& parameters)
    : io_(ffmpeg::MakeWritingIo(this, &FragmentWriter::OnWrite)) {
  AVFormatContext* context = nullptr;
  ffmpeg::Check(avformat_alloc_output_context2(&context, nullptr, "mp4", nullptr), kWhat);
  output_.reset(context);
  output_->flags |= AVFMT_FLAG_CUSTOM_IO | AVFMT_FLAG_BITEXACT;
  output_->pb = io_.get();
  output_->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;  // times stay those of the wall
  AVStream* const stream = avformat_new_stream(output_.get(), nullptr);
  if (stream == nullptr || avcodec_parameters_copy(stream->codecpar, &parameters) < 0) {
    throw std::bad_alloc();
  }
  stream->codecpar->codec_tag = 0;
  stream->sample_aspect_ratio = parameters.sample_aspect_ratio;
  // At all usual frame rates a frame is a whole number of ticks of 90 kHz.
  stream->time_base = parameters.codec_type == AVMEDIA_TYPE_AUDIO
                          ? AVRational{1, parameters.sample_rate}
                          : AVRational{1, 90'000};
  ffmpeg::Options options;
  options.Set("movflags", kFlags);
  options.Set("use_editlist", "0");
  ffmpeg::Check(avformat_write_header(output_.get(), options.Exchange()), kWhat);
  description_ = TakeWritten();
}

int FragmentWriter::OnWrite(void* self, std::uint8_t* bytes, int size) {
  static_cast<FragmentWriter*>(self)->written_.append(reinterpret_cast<const char*>(bytes),
                                                      static_cast<std::size_t>(size));
  return size;
}

std::string FragmentWriter::TakeWritten() {
  avio_flush(io_.get());
  return std::exchange(written_, {});
}

std::string FragmentWriter::Write(ffmpeg::Packet packet) {
  const AVStream& stream = *output_->streams[0];
  // A duration that is rounded up would move every frame behind it a little further.
  const auto rounding =
      stream.codecpar->codec_type == AVMEDIA_TYPE_AUDIO ? AV_ROUND_NEAR_INF : AV_ROUND_DOWN;
  const std::int64_t duration =
      av_rescale_q_rnd(packet->duration, ffmpeg::kTimeUnit, stream.time_base, rounding);
  av_packet_rescale_ts(packet.get(), ffmpeg::kTimeUnit, stream.time_base);
  packet->stream_index = 0;
  packet->time_base = stream.time_base;
  packet->duration = duration;
  packet->dts = std::max(packet->dts, end_);
  packet->pts = std::max(packet->pts, packet->dts);
  end_ = packet->dts + duration;
  // Otherwise a fragment would begin where the one before it ends, whatever the packet's time.
  ffmpeg::Check(av_opt_set(output_->priv_data, "movflags", "+frag_discont", 0), kWhat);
  ffmpeg::Check(av_write_frame(output_.get(), packet.get()), kWhat);
  ffmpeg::Check(av_write_frame(output_.get(), nullptr), kWhat);
  return TakeWritten();
}

std::optional<std::string> CodecText(const AVCodecParameters& parameters) {
  const std::uint8_t* const data = parameters.extradata;
  const int size = parameters.extradata_size;
  char text[16];
  if (parameters.codec_id == AV_CODEC_ID_H264) {
    constexpr int kSequenceHeader = 7;
    for (int i = 0; i + 6 < size; ++i) {
      const bool isStart = data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1;
      if (isStart && (data[i + 3] & 0x1F) == kSequenceHeader) {
        std::snprintf(text, sizeof(text), "avc1.%02x%02x%02x", data[i + 4], data[i + 5],
                      data[i + 6]);
        return text;
      }
    }
  } else if (parameters.codec_id == AV_CODEC_ID_AAC && size >= 2) {
    std::snprintf(text, sizeof(text), "mp4a.40.%d", data[0] >> 3);
    return text;
  }
  return std::nullopt;
}

}  // namespace host
