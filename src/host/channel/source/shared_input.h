// SharedInputs: one demuxer for all readers of a source.
#pragma once

#include <atomic>
#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/channel/source/media_input.h"
#include "host/channel/source/packet_source.h"
#include "host/channel/source/stream_mirror.h"
#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/io_deadline.h"
#include "platform/os/mutex.h"

namespace host {

// Opens a source once and reads its packets once, however many readers it has: each gets those of
// the streams that it reads, in a bounded queue of its own, and sees the streams in a mirror of its
// own, which changes with the packets. Streams that nobody reads are not fetched.
//
// What is pushed (RTSP) is read without a pause, and a reader that is too slow loses its queue up
// to the next keyframe of its video. What waits for its reader (HLS, HTTP, RTMP) waits for the
// slowest one, but not for one that has read nothing for kMaxPause, unless there is no other.
//
// Opened for the first reader, by a thread of its own, read from when that one has chosen its
// streams, and closed when the last one leaves or when it fails; all readers fail with the same
// MediaError then, once they have read what they still have. A reader that fails by itself, as when
// it can decode nothing, leaves it to the others; but when none of them has been there since before
// another such failure, the source is to be opened again, and ends for all. What turns out to lie
// there as a whole, such as a file on a server, is given to the first reader, opened as it is.
//
// The thread may be stuck where nothing ends it, as in the resolution of a name. It touches nothing
// but what it shares with its readers, and ends as soon as the call returns.
class SharedInput : public std::enable_shared_from_this<SharedInput> {
 public:
  struct Limits {
    // Of what waits for one reader.
    std::size_t bytes = std::size_t{16} << 20;
    std::size_t packets = 4096;
    // That a source which waits for its reader is read ahead of the slowest one: about a second.
    std::size_t packetsAhead = 128;
  };

  class Subscription;

  SharedInput(MediaSettings settings, const Limits& limits);

 private:
  friend class SharedInputs;
  enum class Phase { kOpening, kOpen, kHandedOver, kEnded };
  // One packet, and the streams as they are from it on. Immutable.
  struct Piece {
    ffmpeg::Packet packet;
    std::shared_ptr<const AVFormatContext> streams;
  };

  using SteadyClock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kMaxPause{1000};
  // How long a reader that is cancelled may take to notice.
  static constexpr std::chrono::milliseconds kNoticePeriod{20};

  // None once the last reader has left, or what was opened is not shared any more.
  std::unique_ptr<Subscription> Subscribe();
  void Leave(Subscription& reader);
  void NoteFailure(const Subscription& reader, const MediaError& failure);
  // False at the deadline.
  bool WaitUntilEnded(ffmpeg::IoDeadline& deadline);
  // What is not shared: opened, for the first one that asks; null for all others.
  std::unique_ptr<MediaInput> TakeRecorded();
  void Run();
  void Serve(MediaInput& input);
  void End(const std::optional<MediaError>& failure);
  bool isEnding() const REQUIRES(lock_) { return isLeft_ || outdated_; }
  bool WaitUntilChosen();
  void ApplyChoices(MediaInput& input);
  bool WaitForReaders();
  void Distribute(const MediaInput& input, ffmpeg::Packet packet);
  void Push(Subscription& reader, const std::shared_ptr<const Piece>& piece) REQUIRES(lock_);

  const MediaSettings settings_;
  const std::string maskedSource_;
  const Limits limits_;

  os::Mutex lock_;
  os::ConditionVariable changed_;  // the phase
  os::ConditionVariable read_;     // a reader has, has chosen its streams, or has left
  Phase phase_ GUARDED_BY(lock_) = Phase::kOpening;
  std::optional<MediaError> failure_ GUARDED_BY(lock_);   // none: the source has ended
  bool isLeft_ GUARDED_BY(lock_) = false;                 // by the last reader
  std::optional<MediaError> outdated_ GUARDED_BY(lock_);  // why it is to be opened again
  std::uint64_t failures_ GUARDED_BY(lock_) = 0;          // of readers by themselves
  bool hasBegun_ GUARDED_BY(lock_) = false;               // packets have come
  bool choicesChanged_ GUARDED_BY(lock_) = false;
  std::vector<Subscription*> readers_ GUARDED_BY(lock_);
  std::shared_ptr<const AVFormatContext> streams_ GUARDED_BY(lock_);  // the latest mirror
  SourceKind kind_ GUARDED_BY(lock_) = SourceKind::kPull;
  unsigned openedStreams_ GUARDED_BY(lock_) = 0;
  std::vector<std::string> unknownOptions_ GUARDED_BY(lock_);
  SourceCounts counts_ GUARDED_BY(lock_);
  // Replaced under the lock, and otherwise the thread's.
  std::unique_ptr<MediaInput> input_;

  std::vector<int> places_;  // the thread's; by index of the demuxer: in the mirrors
};

// A reader's part of it. May be destroyed on any one thread after its last call; the last one to
// leave waits until the source is closed, at most as long as it may take to open.
class SharedInput::Subscription final : public PacketSource {
 public:
  ~Subscription() override;

  Outcome Read(ffmpeg::Packet& packet, bool isUnused) override;
  void Cancel() override { cancelled_ = true; }
  AVFormatContext& context() const override { return *mirror_; }
  SourceKind kind() const override { return kind_; }
  unsigned openedStreams() const override { return openedStreams_; }
  const std::vector<std::string>& unknownOptions() const override { return unknownOptions_; }
  // Of the source since it was subscribed to: what other readers caused is counted, too.
  SourceCounts counts() const override;
  [[noreturn]] void Fail(MediaError::Kind kind, const std::string& reason) const override;
  void OnProbed(int index, const AVCodecParameters& form) override;
  // How often its queue was full.
  std::uint64_t overflows() const;

 private:
  friend class SharedInput;
  friend class SharedInputs;
  // What is read, by place in the mirror.
  struct Choice {
    std::vector<bool> streams;  // of those after them, all
    std::vector<int> tracks;
    std::optional<int> video;
    bool operator==(const Choice&) const = default;

    bool Has(std::size_t place) const { return place >= streams.size() || streams[place]; }
  };

  explicit Subscription(std::shared_ptr<SharedInput> input) : input_(std::move(input)) {}

  // Until it is open or will not be.
  Phase WaitUntilOpen(ffmpeg::IoDeadline& deadline);
  // Once it is open.
  void Begin();
  void NoteChoice();
  // The next piece, where there is one. Throws MediaError.
  Outcome Take(std::shared_ptr<const Piece>& piece);
  // Whether a decoder may begin with it.
  bool IsStart(const Piece& piece) const;

  const std::shared_ptr<SharedInput> input_;
  std::atomic<bool> cancelled_{false};

  // Its reader's.
  StreamMirror mirror_;
  std::shared_ptr<const AVFormatContext> mirrored_;
  SourceKind kind_ = SourceKind::kPull;
  unsigned openedStreams_ = 0;
  std::vector<std::string> unknownOptions_;
  SourceCounts before_;                           // it has read
  std::chrono::steady_clock::duration waited_{};  // for the next packet

  // The following under the input's lock, but that its reader reads the choice without.
  os::ConditionVariable came_;
  std::uint64_t failuresBefore_ = 0;  // of readers, when it was subscribed
  bool isProbed_ = false;             // a stream, which is why it fails
  std::optional<Choice> choice_;
  std::deque<std::shared_ptr<const Piece>> queue_;
  std::size_t queued_ = 0;       // bytes
  bool awaitsKeyframe_ = false;  // since its queue was full
  std::size_t leftOut_ = 0;      // packets since then
  std::uint64_t overflows_ = 0;
  std::chrono::steady_clock::time_point readAt_ = std::chrono::steady_clock::now();
};

// The shared sources of one wall. Any thread; readers may outlive it.
class SharedInputs {
 public:
  explicit SharedInputs(const SharedInput::Limits& limits = {}) : limits_(limits) {}

  // Whether such a source, read live, may be shared so, by its address: it is neither a file nor a
  // connection whose bytes are shared.
  static bool Serves(const MediaSettings& settings);
  // Sources with equal keys are one.
  struct Key {
    std::string source;
    std::string playlist;
    std::map<std::string, std::string> options;
    Time openLimit = 0;
    Time readLimit = 0;
    bool repeat = false;
    int maxIndexEntries = 0;
    // NOLINTNEXTLINE(modernize-use-nullptr): there is none
    auto operator<=>(const Key&) const = default;
  };
  static Key KeyOf(const MediaSettings& settings);

  // The source, open: shared, or for this reader alone. Null: it has to be opened by itself. Waits
  // while the same source is being closed. The deadline is armed here. Throws MediaError, and
  // std::system_error when there is no thread for it.
  std::unique_ptr<PacketSource> Open(const MediaSettings& settings, ffmpeg::IoDeadline& deadline);

 private:
  const SharedInput::Limits limits_;
  os::Mutex lock_;
  std::map<Key, std::weak_ptr<SharedInput>> inputs_ GUARDED_BY(lock_);
};

}  // namespace host
