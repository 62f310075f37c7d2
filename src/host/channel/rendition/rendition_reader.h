// RenditionReader: reads a source in the size that is right for its window.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/channel/rendition/rendition_opener.h"
#include "host/channel/rendition/rendition_set.h"
#include "host/channel/source/media_reader.h"
#include "host/config/wall.h"
#include "host/ffmpeg/io_deadline.h"
#include "platform/os/mutex.h"

namespace host {

// The rendition that is read, and why.
struct RenditionStatus {
  std::size_t number = 0;  // counted from 1, in the source's order
  std::size_t count = 0;
  int width = 0;  // 0: it has no video
  int height = 0;
  std::string source;  // masked
  std::string reason;  // a clause
};

// Reads one rendition of a source that has several: of an HLS master playlist, or of a channel with
// several sources. A source with one rendition is read by its MediaReader unchanged.
//
// When another rendition becomes right for the window, it is opened beside the one that is read
// (RenditionOpener). The reader then changes over at its first frame:
//
//   read before    v v v v v v v v . .      items after the change are dropped
//   audio           a  a  a  a  a  .
//   read after             . . v v v v v    items that were given already are dropped
//   audio                   .  .  a  a
//
// All items are on the clock of the rendition that was opened first. They are placed by the
// timestamps that the renditions share, otherwise by arrival; then the first frame and the first
// packet follow without a gap. A rendition that fails while it is read is replaced by the best one
// that opens.
//
// Owned by its channel. Open and Read block and belong to one thread; Cancel to any thread. For
// results and exceptions see MediaReader.
class RenditionReader {
 public:
  struct Settings {
    config::Channel channel;
    std::shared_ptr<SharedReceivers> receivers;  // null: every source has a connection of its own
    std::shared_ptr<SharedInputs> inputs;        // null: every source has a demuxer of its own
    bool isLive = false;                // otherwise the rendition changes only after a failure
    std::optional<Ratio> canvasRate{};  // see MediaSettings
  };

  // wanted: the size in which it is shown. renditions outlives the reader, and is used on the
  // reading thread only.
  RenditionReader(Settings settings, std::shared_ptr<const WantedSize> wanted,
                  RenditionSet& renditions);
  RenditionReader(const RenditionReader&) = delete;
  RenditionReader& operator=(const RenditionReader&) = delete;

  void Open();
  MediaItem Read();
  void Cancel();

  // Of the rendition that the latest item came from.
  const MediaInfo& info() const { return reader_->info(); }
  const AVCodecParameters* audioParameters() const { return reader_->audioParameters(); }
  bool canGoOn() const { return reader_->canGoOn(); }
  std::uint64_t renames() const { return reader_->renames(); }
  void SetStep(DecodeStep step);
  void TakeTurns(MediaDecoder::InTurn turns) { turns_ = std::move(turns); }
  int TakeFrames() { return reader_->TakeFrames(); }
  std::chrono::nanoseconds TakeWaited() { return reader_->TakeWaited(); }
  // Of all renditions.
  SourceCounts counts() const {
    return reader_ ? SourceCounts(former_) += reader_->counts() : former_;
  }

  // Once after each change of the rendition, the first one included; none if there is only one.
  std::optional<RenditionStatus> TakeChange() { return std::exchange(change_, std::nullopt); }

 private:
  using Clock = RenditionSet::Clock;
  // The latest item of one kind that was given, on the common clock.
  struct Given {
    Time start = 0;
    Time duration = 0;
    Clock::time_point arrival{};

    Time end() const { return start + duration; }
    // Whether something that begins at this time comes after it.
    bool IsBefore(Time other) const { return other >= start + duration / 2; }
  };
  enum Kind : std::size_t { kFrames, kPackets, kSamples, kKinds };
  // A rendition that is about to be read.
  struct Next {
    std::size_t index = 0;
    RenditionOpener::Opened opened;
    Time shift = 0;       // to the common clock
    Time audioShift = 0;  // likewise
    Time from = 0;        // start of its first frame on the common clock
    std::optional<Time> audioFrom{};
    Clock::time_point latest;  // when the change is made at the latest
    bool framesReached = false;
    std::string reason;
  };

  static Kind KindOf(const MediaItem& item);
  MediaSettings SettingsOf(std::size_t index) const;
  void OpenFirst(std::size_t index, std::string reason);
  bool cancelled() const;
  void Note(std::string reason);

  MediaItem TakeNext();
  void Consider();
  void BeginOpening(std::size_t index, std::string reason);
  // isNeeded: change over to it even if it is not the best.
  void OnOpened(bool isNeeded);
  bool FallBack(const MediaError& error);
  Next Align(RenditionOpener::Opened opened) const;
  void AlignByArrival(Next& next, const Given& last) const;
  void ChangeOver();
  // The item on the common clock; none when it is dropped.
  std::optional<MediaItem> Pass(MediaItem item);
  bool IsReached(const Next& next) const;
  std::string Purpose() const;

  const Settings settings_;
  const std::shared_ptr<const WantedSize> wanted_;
  RenditionSet& renditions_;
  ffmpeg::IoDeadline playlistDeadline_;

  mutable os::Mutex lock_;
  bool cancelled_ GUARDED_BY(lock_) = false;
  // Both are replaced under the lock, otherwise used by the reading thread only.
  std::shared_ptr<MediaReader> reader_;
  std::unique_ptr<RenditionOpener> opener_;

  // The reading thread only.
  std::size_t index_ = 0;
  std::size_t openingIndex_ = 0;
  std::string openingReason_;
  std::optional<Next> next_;
  std::deque<MediaItem> items_;  // that reader_ gave while it was opened; they come first
  Time shift_ = 0;
  Time audioShift_ = 0;
  Time audioSnap_ = 0;  // in addition, so that the first packet follows without a gap
  Time from_ = 0;       // where the rendition begins
  std::array<std::optional<Given>, kKinds> given_;
  std::array<bool, kKinds> follows_{};  // the next item must come after given_
  std::shared_ptr<RenditionOpener::Position> position_;
  DecodeStep step_ = DecodeStep::kFull;
  MediaDecoder::InTurn turns_;
  WindowSize window_;
  Clock::time_point considerAt_{};
  Clock::time_point openedAt_{};
  SourceCounts former_;
  std::optional<RenditionStatus> change_;
};

}  // namespace host
