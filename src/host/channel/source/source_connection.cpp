#include "host/channel/source/source_connection.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <new>
#include <span>
#include <string_view>
#include <utility>

extern "C" {
#include <libavformat/avformat.h>
#include <libavformat/avio.h>
#include <libavutil/error.h>
}

#include "host/channel/source/media_info.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/inputs.h"
#include "host/ffmpeg/mask.h"

namespace host {
namespace {

// Time to find out why a file on a server did not open.
constexpr std::chrono::milliseconds kSecondLook{2000};
constexpr const char* kSeekable = "seekable";
constexpr std::size_t kBeginning = 4096;  // bytes
constexpr std::size_t kMaxBoxHeader = 16;

std::uint64_t BigEndian(std::span<const std::uint8_t> bytes) {
  std::uint64_t number = 0;
  for (const std::uint8_t byte : bytes) {
    number = number << 8 | byte;
  }
  return number;
}

// Whether a source that failed with this AVERROR code may open as a stream from its beginning: some
// servers refuse a request for a range of bytes, others promise ranges and do not serve them.
bool MayKnowNoRanges(int code) {
  return code == AVERROR_HTTP_BAD_REQUEST || code == AVERROR_HTTP_OTHER_4XX ||
         code == AVERROR_HTTP_SERVER_ERROR || code == AVERROR_INVALIDDATA;
}

// Whether the beginning of a file in the MP4 family shows that its data come before the index that
// is needed to read them. Boxes: four bytes of size, four of type, and eight more of size if the
// first size is 1.
bool DataComesFirst(std::span<const std::uint8_t> beginning) {
  while (beginning.size() >= kMaxBoxHeader) {
    std::uint64_t size = BigEndian(beginning.first(4));
    const std::string_view type(reinterpret_cast<const char*>(beginning.data()) + 4, 4);
    if (type == "mdat" || type == "moov") {
      return type == "mdat";
    }
    if (size == 1) {
      size = BigEndian(beginning.subspan(8, 8));
    }
    if (size < 8 || size > beginning.size()) {
      return false;
    }
    beginning = beginning.subspan(static_cast<std::size_t>(size));
  }
  return false;
}

// The same for a file on a server without byte ranges, over a connection of its own. False if the
// deadline ends it first.
bool ServesDataFirst(const std::string& url, ffmpeg::Options& options,
                     ffmpeg::IoDeadline& deadline) {
  const AVIOInterruptCB interrupt{&ffmpeg::IoDeadline::Callback, &deadline};
  AVIOContext* opened = nullptr;
  if (avio_open2(&opened, url.c_str(), AVIO_FLAG_READ, &interrupt, options.Exchange()) < 0) {
    return false;
  }
  const ffmpeg::Connection connection(opened);
  std::array<std::uint8_t, kBeginning> bytes{};
  const int count = avio_read(connection.get(), bytes.data(), static_cast<int>(bytes.size()));
  return count > 0 && (connection->seekable & AVIO_SEEKABLE_NORMAL) == 0 &&
         DataComesFirst(std::span(bytes).first(static_cast<std::size_t>(count)));
}

std::string Seconds(std::chrono::milliseconds limit) {
  std::string text = std::to_string(limit.count() / 1000);
  if (limit.count() % 1000 != 0) {
    text += "." + std::to_string(limit.count() % 1000 / 100);
  }
  return text + " s";
}

}  // namespace

bool MayShareConnection(const MediaSettings& settings) {
  const bool hasProgram = settings.program.isGiven();
  return ffmpeg::PipeInput::Serves(settings.source)
             ? hasProgram
             : SourceAddress(settings.source).isShareable(hasProgram);
}

std::string LateOpening(const MediaSettings& settings) {
  return "did not open within " + Seconds(Milliseconds(settings.options.openLimit));
}

std::string LateData(const MediaSettings& settings) {
  return "no data for " + Seconds(Milliseconds(settings.options.readLimit));
}

SourceConnection::SourceConnection(const MediaSettings& settings, std::function<bool()> isChanged)
    : settings_(settings),
      maskedSource_(ffmpeg::MaskUrl(settings_.source)),
      secrets_(settings_.source, settings_.options.options),
      address_(settings_.source),
      isChanged_(std::move(isChanged)) {}

void SourceConnection::Fail(MediaError::Kind kind, const std::string& reason) const {
  throw MediaError(kind, reason, maskedSource_);
}

void SourceConnection::FailFor(int code, bool opening) const {
  if (code == AVERROR(ENOMEM) && address_.isRemote()) {
    Fail(MediaError::Kind::kFailed, "it asks for more memory than a source may have");
  }
  if (code == AVERROR(ENOMEM)) {
    throw std::bad_alloc();
  }
  if (deadline_.cancelled()) {
    Fail(MediaError::Kind::kCancelled, "stopped");
  }
  if (const std::optional<std::string> reason = missingProgram()) {
    Fail(MediaError::Kind::kNoStreams, *reason);
  }
  // Calls that the deadline ended may fail later, after a packet that was still buffered.
  if (deadline_.expired() || code == AVERROR_EXIT) {
    Fail(MediaError::Kind::kTimedOut, opening ? LateOpening(settings_) : LateData(settings_));
  }
  const std::string text = ffmpeg::ErrorText(code);
  if (opening && code == AVERROR(ENOENT)) {
    Fail(MediaError::Kind::kNotFound, "no such file");
  }
  if (opening && (code == AVERROR_INVALIDDATA || code == AVERROR_EOF)) {
    Fail(MediaError::Kind::kNotMedia, "not a media file, or damaged (" + text + ")");
  }
  // FFmpeg's error for a format or protocol that is not on the source's whitelist.
  const bool mayBeForbidden =
      opening && code == AVERROR(EINVAL) && (pipe_ || !address_.OpenOptions({}).empty());
  const char* const hint =
      mayBeForbidden ? "; its format may need \"format_whitelist\" among its options" : "";
  Fail(MediaError::Kind::kFailed,
       (opening ? "cannot be opened: " : "cannot be read further: ") + text + hint);
}

void SourceConnection::FailForItsIndex() const {
  Fail(MediaError::Kind::kFailed,
       "its index comes behind its data, but it can only be read from its beginning: "
       "write it with the index first (ffmpeg: -movflags +faststart)" +
           std::string(address_.isHttp() ? " or use a server with byte ranges" : ""));
}

ffmpeg::InputFormat SourceConnection::Open() {
  deadline_.Arm(Milliseconds(settings_.options.openLimit));
  try {
    return OpenSource();
  } catch (const ffmpeg::Error& error) {
    const bool isLate = deadline_.expired() && !deadline_.cancelled();
    if (isLate && address_.isHttp()) {
      // Without byte ranges, a whole file is read before its index.
      deadline_.Arm(kSecondLook);
      ffmpeg::Options options;
      SetOptions(options, settings_.options.options);
      if (ServesDataFirst(address_.name(), options, deadline_)) {
        FailForItsIndex();
      }
    }
    FailFor(isLate ? AVERROR_EXIT : error.code(), true);
  }
}

ffmpeg::InputFormat SourceConnection::OpenSource() {
  if (!settings_.playlist.empty()) {
    playlist_.emplace(settings_.playlist);
    return OpenDemuxer(playlist_->io(), address_.OpenOptions(settings_.options.options));
  }
  if (isShared()) {
    return OpenTapped();
  }
  if (isPipe()) {
    pipe_.emplace(settings_.source, deadline_);
    fragments_.emplace(pipe_->io());
    return OpenDemuxer(fragments_->io(), SourceAddress::PipeOptions(settings_.options.options));
  }
  if (address_.carriesTransportStream()) {
    return OpenTapped();
  }
  return address_.isHttp() ? OpenHttp()
                           : OpenDemuxer(nullptr, address_.OpenOptions(settings_.options.options));
}

ffmpeg::InputFormat SourceConnection::OpenHttp() {
  SourceAddress::Options options = address_.OpenOptions(settings_.options.options);
  ffmpeg::InputFormat input;
  try {
    input = OpenDemuxer(nullptr, options);
  } catch (const ffmpeg::Error& error) {
    if (!MayKnowNoRanges(error.code()) || deadline_.ShouldStop() ||
        !options.try_emplace(kSeekable, "0").second) {
      throw;
    }
    input = OpenDemuxer(nullptr, options);
  }
  // An endless one is read through FragmentedInput.
  if (IsMp4(*input) && (input->pb->seekable & AVIO_SEEKABLE_NORMAL) == 0 &&
      avio_size(input->pb) < 0) {
    input.reset();
    return OpenTapped();
  }
  return input;
}

bool SourceConnection::isPipe() const {
  return ffmpeg::PipeInput::Serves(settings_.source);
}

bool SourceConnection::isShared() const {
  return settings_.receivers != nullptr && MayShareConnection(settings_);
}

void SourceConnection::Connect(ffmpeg::Options& options) {
  const auto tap = [this](ffmpeg::TappedInput::Bytes bytes) { return Tap(bytes); };
  const SourceAddress::Options& wanted = settings_.options.options;
  if (!isShared()) {
    if (settings_.program.isGiven()) {
      program_.emplace(settings_.program);
    }
    SetOptions(options, address_.ReceiverOptions(wanted));
    connection_.emplace(address_.ReceiverUrl(), deadline_, options, tap);
    return;
  }
  const ReceiverAddress receiver =
      isPipe() ? ReceiverAddress{settings_.source, {}, true} : address_.Receiver(wanted);
  subscription_ = settings_.receivers->Subscribe(
      receiver, kMaxSilences * Milliseconds(settings_.options.readLimit), settings_.program,
      deadline_);
  ffmpeg::Check(subscription_ != nullptr ? subscription_->WaitUntilOpen(deadline_) : AVERROR_EXIT,
                "cannot open");
  SourceAddress::Options others = address_.ReceiverOptions(wanted);
  for (const auto& [key, value] : receiver.options) {
    others.erase(key);
  }
  SetOptions(options, others);
  connection_.emplace(
      [this](std::span<std::uint8_t> buffer) { return subscription_->Read(buffer); }, deadline_,
      tap);
}

void SourceConnection::Disconnect() {
  connection_.reset();
  subscription_.reset();
}

bool SourceConnection::carriesOtherRtp() const {
  return subscription_ ? subscription_->carriesOther() : rtp_.carriesOther();
}

std::optional<std::string> SourceConnection::missingProgram() const {
  if (subscription_) {
    return subscription_->missingProgram();
  }
  return program_ ? program_->missing() : std::nullopt;
}

int SourceConnection::onlyProgram() const {
  if (subscription_) {
    return subscription_->programNumber();
  }
  return program_ ? program_->number() : 0;
}

ffmpeg::InputFormat SourceConnection::OpenTapped() {
  ffmpeg::Options options;
  Connect(options);
  AVIOContext* io = connection_->io();
  if (!address_.isDatagrams()) {
    io = fragments_.emplace(io).io();
  }
  // Options that the protocol has used are not passed to the demuxer.
  for (const auto& [key, value] :
       isPipe() ? SourceAddress::PipeOptions({}) : address_.OpenOptions({})) {
    const auto given = settings_.options.options.find(key);
    options.Set(key.c_str(), given != settings_.options.options.end() ? given->second : value);
  }
  try {
    return OpenDemuxer(io, options);
  } catch (const ffmpeg::Error&) {
    if (!carriesOtherRtp()) {
      throw;
    }
    Disconnect();
    return OpenOtherRtp();
  }
}

// Audio or video without a transport stream: FFmpeg's own receiver knows some payload types without
// an SDP file.
ffmpeg::InputFormat SourceConnection::OpenOtherRtp() {
  if (address_.isRtp()) {
    try {
      return OpenDemuxer(nullptr, SourceAddress::RtpOptions(settings_.options.options));
    } catch (const ffmpeg::Error&) {
      if (deadline_.cancelled() || deadline_.expired()) {
        throw;
      }
    }
  }
  Fail(MediaError::Kind::kNotMedia,
       "its RTP packets carry no transport stream; open an SDP file that says what they carry");
}

std::optional<ffmpeg::TappedInput::Bytes> SourceConnection::Tap(ffmpeg::TappedInput::Bytes bytes) {
  if (address_.isDatagrams() && !subscription_) {
    bytes = rtp_.Take(bytes, RtpReceiver::Clock::now());
  }
  if (program_) {
    bytes = program_->Take(bytes);
  }
  programs_.Feed(bytes);
  const bool ends = isChanged_() || rtp_.carriesOther() || (program_ && program_->missing());
  return ends ? std::nullopt : std::optional(bytes);
}

void SourceConnection::SetOptions(ffmpeg::Options& options,
                                  const SourceAddress::Options& wanted) const {
  if (settings_.live) {
    // The default of twenty frames is most of a second.
    options.Set("fpsprobesize", "3");
  }
  if (settings_.live && address_.isRemote()) {
    // The default is five to seven seconds if an announced stream sends nothing; this is longer
    // than most keyframe intervals.
    options.Set("analyzeduration", "2500000");  // microseconds
  }
  for (const auto& [key, value] : wanted) {
    options.Set(key.c_str(), value);
  }
}

ffmpeg::InputFormat SourceConnection::OpenDemuxer(AVIOContext* io,
                                                  const SourceAddress::Options& wanted) {
  ffmpeg::Options options;
  SetOptions(options, wanted);
  return OpenDemuxer(io, options);
}

ffmpeg::InputFormat SourceConnection::OpenDemuxer(AVIOContext* io, ffmpeg::Options& options) {
  ffmpeg::InputFormat input = ffmpeg::OpenInput(address_.name(), io, options, deadline_);
  unknownOptions_ = options.UnusedKeys();
  return input;
}

ffmpeg::InputFormat SourceConnection::OpenAtNextFragment() {
  // The time until the next fragment arrives.
  deadline_.Arm(Milliseconds(settings_.options.readLimit));
  fragments_->Restart();
  ffmpeg::Options options;
  SetOptions(options, pipe_ ? SourceAddress::PipeOptions(settings_.options.options)
                            : address_.OpenOptions(settings_.options.options));
  try {
    return ffmpeg::OpenInput(address_.name(), fragments_->io(), options, deadline_);
  } catch (const ffmpeg::Error& error) {
    FailFor(error.code(), false);
  }
}

bool SourceConnection::ReceiveOn() {
  if (!connection_ || !address_.isDatagrams()) {
    return false;
  }
  connection_->Resume();
  return true;
}

}  // namespace host
