#include "host/channel/source/media_input.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <string_view>
#include <system_error>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "host/channel/source/media_info.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/inputs.h"
#include "host/ffmpeg/time_unit.h"

namespace host {

namespace {

// Of a replacement until it is read: seconds of the fastest sources.
constexpr std::size_t kMaxPacketBytes = std::size_t{64} << 20;

bool IsAt(const AVFormatContext& input, int index, const ReplacementInput::Position& position) {
  return input.streams[index]->codecpar->codec_type == position.kind &&
         OrdinalOf(input, index) == position.ordinal;
}

// Streams that are not read are not fetched.
void DiscardOthers(AVFormatContext& input,
                   const std::vector<ReplacementInput::Position>& positions) {
  for (unsigned i = 0; i < input.nb_streams; ++i) {
    const bool isRead = std::any_of(positions.begin(), positions.end(), [&](const auto& position) {
      return IsAt(input, static_cast<int>(i), position);
    });
    input.streams[i]->discard = isRead ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
  }
}

}  // namespace

struct ReplacementInput::State {
  Settings settings;
  std::shared_ptr<ffmpeg::IoDeadline> deadline = std::make_shared<ffmpeg::IoDeadline>();
  std::optional<Opened> opened{};
};

ReplacementInput::ReplacementInput(Settings settings)
    : state_(std::make_shared<State>(State{std::move(settings)})),
      thread_([state = state_] { Run(*state); }, "replacement") {}

ReplacementInput::~ReplacementInput() {
  if (state_->deadline) {
    state_->deadline->Cancel();
  }
}

std::optional<ReplacementInput::Opened> ReplacementInput::Take() {
  state_->deadline.reset();  // passes to the caller with Opened
  return std::exchange(state_->opened, std::nullopt);
}

void ReplacementInput::Run(State& state) {
  const Settings& settings = state.settings;
  try {
    Opened opened{state.deadline, nullptr, nullptr, {}};
    if (!settings.playlist.empty()) {
      opened.playlist = std::make_shared<ffmpeg::TextInput>(settings.playlist);
    }
    ffmpeg::Options options;
    for (const auto& [key, value] : settings.options) {
      options.Set(key.c_str(), value);
    }
    opened.deadline->Arm(settings.limit);
    opened.input =
        ffmpeg::OpenInput(settings.name, opened.playlist ? opened.playlist->io() : nullptr, options,
                          *opened.deadline);
    DiscardOthers(*opened.input, settings.positions);
    std::size_t bytes = 0;
    for (bool reached = false; !reached;) {
      ffmpeg::Packet packet = ffmpeg::MakePacket();
      ffmpeg::Check(av_read_frame(opened.input.get(), packet.get()), "cannot read");
      const AVStream& stream = *opened.input->streams[packet->stream_index];
      const std::optional<Time> time = ffmpeg::ToTime(packet->dts, stream.time_base);
      for (const Position& position : settings.positions) {
        if (time && *time > position.latest && IsAt(*opened.input, stream.index, position)) {
          bytes += static_cast<std::size_t>(packet->size);
          if (bytes > kMaxPacketBytes) {
            throw ffmpeg::Error(AVERROR(ENOMEM), "cannot keep the packets of a replacement");
          }
          opened.packets.push_back(std::move(packet));
          reached = &position == &settings.positions.front();
          break;
        }
      }
    }
    opened.deadline->Disarm();
    state.opened = std::move(opened);
  } catch (const std::exception&) {
    // The first demuxer is read on.
  }
}

namespace {

// A replacement begins with the oldest segment of a playlist: the reader is somewhere in it.
constexpr const char* kFirstSegment = "live_start_index";
constexpr const char* kOldest = "-1000";

bool HasSegments(const AVFormatContext& input) {
  const std::string_view name = input.iformat->name;
  return name == "hls" || name == "dash";
}

// Video with the decoder configuration before the packets, as in MP4; and all audio.
bool IsFromMp4(const AVStream& stream) {
  const AVCodecParameters& parameters = *stream.codecpar;
  const bool isVideo =
      parameters.codec_id == AV_CODEC_ID_H264 || parameters.codec_id == AV_CODEC_ID_HEVC;
  return !isVideo || (parameters.extradata_size > 0 && parameters.extradata[0] == 1);
}

}  // namespace

MediaInput::MediaInput(MediaSettings settings)
    : settings_(std::move(settings)),
      connection_(settings_, [this] { return ChangedKind().has_value(); }) {}

void MediaInput::Open() {
  if (repeats()) {
    file_ = ReadFileState();
  }
  input_ = connection_.Open();
  headerEnd_ = input_->pb != nullptr ? avio_tell(input_->pb) : 0;
  // FFmpeg renders any text file as a terminal would; here it is a wrong path.
  if (std::string_view(input_->iformat->name) == "tty") {
    connection_.FailFor(AVERROR_INVALIDDATA, true);
  }
  const int result = avformat_find_stream_info(input_.get(), nullptr);
  if (result < 0 || connection_.deadline().cancelled()) {
    connection_.FailFor(result, true);
  }
  connection_.deadline().Disarm();
  kind_ = DescribeMedia(*input_).kind;
}

// The index of a file in the MP4 family comes after the data, to which the demuxer cannot seek
// back, even if a server has promised byte ranges.
bool MediaInput::LiesBehindItsData() const {
  if (input_->pb == nullptr ||
      ((input_->pb->seekable & AVIO_SEEKABLE_NORMAL) != 0 && !connection_.address().isHttp()) ||
      !IsMp4(*input_)) {
    return false;
  }
  for (unsigned i = 0; i < input_->nb_streams; ++i) {
    const AVIndexEntry* const first = avformat_index_get_entry(input_->streams[i], 0);
    if (first != nullptr && first->pos < headerEnd_) {
      return true;
    }
  }
  return false;
}

bool MediaInput::isRecorded() const {
  return kind_ == SourceKind::kFile ||
         (HasSegments(*input_) && (input_->ctx_flags & AVFMTCTX_UNSEEKABLE) == 0 &&
          input_->duration > 0);
}

unsigned MediaInput::openedStreams() const {
  return input_->nb_streams;
}

void MediaInput::Select(TrackKind kind, int index) {
  PacketSource::Select(kind, index);
  std::vector<int> streams;
  for (const std::optional<int>& each : selection()) {
    if (each) {
      streams.push_back(*each);
    }
  }
  Follow(streams);
}

void MediaInput::Follow(const std::vector<int>& streams) {
  std::map<int, Position> followed;
  for (const int stream : streams) {
    followed[stream] = followed_[stream];
  }
  followed_ = std::move(followed);
}

std::vector<int> MediaInput::FollowedInOrder() const {
  std::vector<int> streams;
  for (const auto& [index, position] : followed_) {
    const bool isVideo = input_->streams[index]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
    streams.insert(isVideo ? streams.begin() : streams.end(), index);
  }
  return streams;
}

std::optional<TrackKind> MediaInput::ChangedKind() const {
  for (const auto& [index, position] : followed_) {
    const AVStream& stream = *input_->streams[index];
    // In a transport stream, a stream's id is its PID.
    if (connection_.HasChanged(stream.id)) {
      return stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO ? TrackKind::kVideo
                                                               : TrackKind::kAudio;
    }
  }
  return std::nullopt;
}

MediaInput::Outcome MediaInput::Read(ffmpeg::Packet& packet, bool isUnused) {
  if (connection_.deadline().cancelled()) {
    connection_.FailFor(AVERROR_EXIT, false);
  }
  canGoOn_ = false;
  if (AdoptReplacement()) {
    return Outcome::kReplaced;
  }
  if (!pending_.empty()) {
    packet = std::move(pending_.front());
    pending_.pop_front();
    return IsRepeated(*packet) ? Outcome::kNothing : Outcome::kPacket;
  }
  connection_.deadline().Arm(Milliseconds(settings_.options.readLimit));
  const int result = av_read_frame(input_.get(), packet.get());
  if (result >= 0) {
    silences_ = 0;
    packetBytes_ += static_cast<std::uint64_t>(packet->size);
    packetsDamaged_ += (packet->flags & AV_PKT_FLAG_CORRUPT) != 0 ? 1 : 0;
    WatchIndex();
    return IsRepeated(*packet) ? Outcome::kNothing : Outcome::kPacket;
  }
  return result == AVERROR(EAGAIN) ? Outcome::kNothing : HandleFailure(result, isUnused);
}

MediaInput::Outcome MediaInput::HandleFailure(int code, bool isUnused) {
  if (const std::optional<TrackKind> changed = ChangedKind()) {
    Fail(MediaError::Kind::kFailed,
         std::string("its ") + NameOf(*changed) + " has changed its form");
  }
  if (connection_.missingProgram()) {
    connection_.FailFor(code, false);
  }
  // The demuxer may have returned buffered packets after the call that the deadline ended.
  const bool wasEnded = connection_.deadline().expired() || code == AVERROR_EXIT;
  if (wasEnded && !connection_.deadline().cancelled() && connection_.ReceiveOn()) {
    ++silences_;
    canGoOn_ = silences_ <= kMaxSilences;
    connection_.FailFor(code, false);
  }
  silences_ = 0;
  if (code == AVERROR_EOF && connection_.fragments() && connection_.fragments()->ended()) {
    formerBytes_ += ffmpeg::BytesRead(*input_);
    // The I/O context is replaced when the next demuxer is opened.
    input_->pb = nullptr;
    Exchange(connection_.OpenAtNextFragment());
    return Outcome::kReplaced;
  }
  if (isUnused && !connection_.deadline().ShouldStop() && LiesBehindItsData()) {
    connection_.FailForItsIndex();
  }
  // Demuxers report a broken connection as an ordinary end.
  if (code != AVERROR_EOF || connection_.deadline().expired() ||
      connection_.deadline().cancelled()) {
    connection_.FailFor(code, false);
  }
  if (input_->pb != nullptr && input_->pb->error < 0 && input_->pb->error != AVERROR_EOF) {
    connection_.FailFor(input_->pb->error, false);
  }
  return Outcome::kEnd;
}

void MediaInput::CheckUnchanged() const {
  const std::optional<FileState> now = ReadFileState();
  if (file_ && now && *now != *file_) {
    Fail(MediaError::Kind::kFailed, "the file was written again");
  }
}

std::optional<MediaInput::FileState> MediaInput::ReadFileState() const {
  constexpr std::string_view kScheme = "file:";
  const std::string_view name = connection_.address().name();
  const std::filesystem::path path = name.substr(name.starts_with(kScheme) ? kScheme.size() : 0);
  std::error_code failure;
  if (connection_.address().isRemote() || !std::filesystem::is_regular_file(path, failure)) {
    return std::nullopt;
  }
  FileState state;
  state.written = std::filesystem::last_write_time(path, failure);
  if (!failure) {
    state.size = std::filesystem::file_size(path, failure);
  }
  return failure ? std::nullopt : std::optional(state);
}

bool MediaInput::SkipTo(Time timestamp) {
  if ((input_->ctx_flags & AVFMTCTX_UNSEEKABLE) != 0 ||
      (kind_ != SourceKind::kFile && !HasSegments(*input_))) {
    return false;
  }
  connection_.deadline().Arm(Milliseconds(settings_.options.readLimit));
  const std::int64_t position = av_rescale(timestamp, AV_TIME_BASE, kSecond);
  const int result = av_seek_frame(input_.get(), -1, position, AVSEEK_FLAG_BACKWARD);
  connection_.deadline().Disarm();
  return result >= 0;
}

SourceCounts MediaInput::counts() const {
  const std::uint64_t counted = formerBytes_ + (input_ ? ffmpeg::BytesRead(*input_) : 0);
  return {counted > 0 ? counted : packetBytes_, connection_.packetsLost(), packetsDamaged_};
}

void MediaInput::Rewind() {
  CheckUnchanged();
  // A transport stream has no index: its beginning is found by position, not by time.
  const bool byPosition = (input_->iformat->flags & AVFMT_TS_DISCONT) != 0;
  const Time start = input_->start_time != AV_NOPTS_VALUE ? input_->start_time : 0;
  int result = byPosition ? av_seek_frame(input_.get(), -1, 0, AVSEEK_FLAG_BYTE)
                          : av_seek_frame(input_.get(), -1, start, AVSEEK_FLAG_BACKWARD);
  if (result < 0) {
    result = av_seek_frame(input_.get(), -1, byPosition ? start : 0,
                           byPosition ? AVSEEK_FLAG_BACKWARD : AVSEEK_FLAG_BYTE);
  }
  if (result < 0) {
    Fail(MediaError::Kind::kFailed, "cannot begin again: " + ffmpeg::ErrorText(result));
  }
}

// FFmpeg's MP4 demuxer keeps an index entry for every packet.
void MediaInput::WatchIndex() {
  ++packetsOfInput_;
  if (kind_ == SourceKind::kFile || replacement_) {
    return;
  }
  if (connection_.fragments()) {
    for (const auto& [index, position] : followed_) {
      if (avformat_index_get_entries_count(input_->streams[index]) >= settings_.maxIndexEntries) {
        connection_.fragments()->EndBeforeNextFragment();
      }
    }
    return;
  }
  if (packetsOfInput_ < settings_.maxIndexEntries || followed_.empty()) {
    return;
  }
  const int first = FollowedInOrder().front();
  if (followed_[first].latest && HasSegments(*input_) && IsFromMp4(*input_->streams[first])) {
    OpenReplacement();
  }
}

void MediaInput::OpenReplacement() {
  ReplacementInput::Settings settings;
  settings.name = connection_.address().name();
  settings.playlist = settings_.playlist;
  settings.options = connection_.address().OpenOptions(settings_.options.options);
  if (input_->iformat->name == std::string_view("hls")) {
    settings.options[kFirstSegment] = kOldest;
  }
  for (const int stream : FollowedInOrder()) {
    if (const std::optional<Time>& latest = followed_[stream].latest) {
      settings.positions.push_back(
          {input_->streams[stream]->codecpar->codec_type, OrdinalOf(*input_, stream), *latest});
    }
  }
  replacement_.emplace(std::move(settings));
}

bool MediaInput::AdoptReplacement() {
  if (!replacement_ || !replacement_->ready()) {
    return false;
  }
  std::optional<ReplacementInput::Opened> opened = replacement_->Take();
  replacement_.reset();
  packetsOfInput_ = 0;
  if (!opened) {
    return false;  // the next try is after as many packets
  }
  opened->deadline->Follow(connection_.deadline());
  for (auto& [index, position] : followed_) {
    position.resumeAfter = position.latest;
  }
  formerBytes_ += ffmpeg::BytesRead(*input_);
  Exchange(std::move(opened->input));
  inputDeadline_ = std::move(opened->deadline);
  inputPlaylist_ = std::move(opened->playlist);
  std::move(opened->packets.begin(), opened->packets.end(), std::back_inserter(pending_));
  return true;
}

int MediaInput::StreamIn(const AVFormatContext& input, int index) const {
  const int same = SameStreamIn(input, *input_, index);
  if (same < 0) {
    Fail(MediaError::Kind::kFailed, "its streams have changed");
  }
  return same;
}

void MediaInput::Exchange(ffmpeg::InputFormat next) {
  for (unsigned i = 0; i < next->nb_streams; ++i) {
    next->streams[i]->discard = AVDISCARD_ALL;
  }
  std::map<int, Position> followed;
  for (const auto& [index, position] : followed_) {
    const int moved = StreamIn(*next, index);
    next->streams[moved]->discard = AVDISCARD_DEFAULT;
    followed[moved] = position;
  }
  Selection selection = this->selection();
  for (std::optional<int>& each : selection) {
    each = each ? std::optional(StreamIn(*next, *each)) : std::nullopt;
  }
  Move(selection);
  followed_ = std::move(followed);
  input_ = std::move(next);
  inputDeadline_.reset();
  inputPlaylist_.reset();
  headerEnd_ = input_->pb != nullptr ? avio_tell(input_->pb) : 0;
  packetsOfInput_ = 0;
  ++exchanges_;
}

bool MediaInput::IsRepeated(const AVPacket& packet) {
  const auto found = followed_.find(packet.stream_index);
  if (found == followed_.end()) {
    return false;
  }
  Position& position = found->second;
  const std::optional<Time> dts =
      ffmpeg::ToTime(packet.dts, input_->streams[packet.stream_index]->time_base);
  if (position.resumeAfter && dts && *dts <= *position.resumeAfter) {
    return true;
  }
  position.resumeAfter.reset();
  if (dts) {
    position.latest = dts;
  }
  return false;
}

}  // namespace host
