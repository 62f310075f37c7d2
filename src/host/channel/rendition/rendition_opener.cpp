#include "host/channel/rendition/rendition_opener.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <utility>

namespace host {
namespace {

// Renditions that are further apart do not have the same timestamps.
constexpr Time kMaxDistance = 60 * kSecond;
// Items that are kept; before the frame, all are audio.
constexpr std::size_t kMaxKept = 1500;
// Frames that are read to find the audio beside the first frame.
constexpr int kMaxFrames = 8;
// How long a rendition that is behind may take to catch up; it is read faster than it plays.
constexpr std::chrono::seconds kMaxCatchUp{20};

}  // namespace

Alignment AlignmentOf(const MediaInfo& read, const MediaInfo& next) {
  if (read.format == next.format && (read.format == "hls" || read.format == "dash")) {
    return Alignment::kTimestamps;
  }
  const bool bothFiles = read.kind == SourceKind::kFile && next.kind == SourceKind::kFile;
  return bothFiles ? Alignment::kBeginning : Alignment::kArrival;
}

Time CommonTime(const MediaReader& reader, Alignment alignment, TrackKind kind, Time start) {
  const Time timestamp = start - reader.clockOffset(kind);
  return alignment == Alignment::kBeginning ? timestamp - reader.origin() : timestamp;
}

Time NearestTurn(Time time, Time period, Time near) {
  return period <= 0
             ? time
             : time + period * static_cast<Time>(std::llround(static_cast<double>(near - time) /
                                                              static_cast<double>(period)));
}

RenditionOpener::RenditionOpener(const Settings& settings)
    : state_(
          std::make_shared<State>(State{settings, std::make_shared<MediaReader>(settings.media)})),
      reader_(state_->reader),
      thread_([state = state_] { Run(*state); }, "rendition", os::Thread::Priority::kLow) {}

RenditionOpener::~RenditionOpener() {
  if (!thread_.Wait(0)) {
    Cancel();
  }
}

void RenditionOpener::Cancel() {
  if (const std::shared_ptr<MediaReader> reader = reader_.lock()) {
    reader->Cancel();
  }
}

std::optional<RenditionOpener::Opened> RenditionOpener::Take() {
  return std::exchange(state_->opened, std::nullopt);
}

void RenditionOpener::Run(State& state) {
  try {
    Opened opened;
    opened.reader = std::move(state.reader);
    opened.reader->Open();
    opened.reader->SetStep(state.settings.step);
    opened.alignment = AlignmentOf(state.settings.read, opened.reader->info());
    if (opened.reader->info().video) {
      ReadUpToFrame(state.settings, opened);
    }
    state.opened = std::move(opened);
  } catch (const MediaError& error) {
    state.failure = error.reason();
  } catch (const std::exception& error) {
    state.failure = error.what();
  }
}

// Sets opened.alignment to kArrival if the timestamps of both do not match.
bool RenditionOpener::HasReached(const Position& position, Opened& opened, Time frameStart) {
  if (opened.alignment == Alignment::kArrival) {
    return true;
  }
  const Time reached = position.Of(opened.alignment);
  const Time time = CommonTime(*opened.reader, opened.alignment, TrackKind::kVideo, frameStart);
  const Time distance = NearestTurn(time, opened.reader->wrapPeriod(), reached) - reached;
  if (std::abs(distance) > kMaxDistance) {
    opened.alignment = Alignment::kArrival;
    return true;
  }
  return distance >= 0;
}

void RenditionOpener::ReadUpToFrame(const Settings& settings, Opened& opened) {
  MediaReader& reader = *opened.reader;
  const Position& position = *settings.position;
  if (opened.alignment != Alignment::kArrival) {
    reader.SkipTo(position.Of(opened.alignment) +
                  (opened.alignment == Alignment::kBeginning ? reader.origin() : 0));
  }
  const auto deadline = Clock::now() + kMaxCatchUp;
  bool found = false;
  bool hasAudio = !reader.info().audio;  // or has none to wait for
  for (int frames = 0; !found || (!hasAudio && frames < kMaxFrames);) {
    MediaItem item = reader.Read();
    if (std::holds_alternative<EndOfMedia>(item) || (!found && Clock::now() >= deadline)) {
      throw MediaError(MediaError::Kind::kFailed, "it does not reach what is shown", "");
    }
    if (const auto* const frame = std::get_if<DecodedFrame>(&item)) {
      opened.frameStart = found ? opened.frameStart : frame->start;
      opened.arrival = found ? opened.arrival : Clock::now();
      found = found || HasReached(position, opened, frame->start);
      if (!found) {
        continue;
      }
      ++frames;
    }
    hasAudio = hasAudio || std::holds_alternative<AudioPacket>(item);
    opened.items.push_back(std::move(item));
    if (opened.items.size() > kMaxKept) {
      opened.items.pop_front();
    }
  }
}

}  // namespace host
