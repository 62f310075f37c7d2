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

// Opens a source and reads its packets once for any number of readers. Each reader gets the packets
// of the streams that it reads in a bounded queue of its own, and sees the streams in a mirror of
// its own, which changes with the packets. Streams that no reader reads are not fetched.
//
// A push source (RTSP) is read without a pause; a reader that is too slow loses its queue up to the
// next keyframe of its video. A pull source (HLS, HTTP, RTMP) waits for the slowest reader, but not
// for one that has read nothing for kMaxPause, unless there is no other.
//
// The source is opened for the first reader, by a thread of its own; reading begins when that
// reader has chosen its streams. The source is closed when the last reader leaves or when it fails;
// all readers then fail with the same MediaError once their queues are empty. If one reader fails
// by itself, as when it can decode nothing, the others go on; but if every other reader has joined
// since another such failure, the source ends for all and is opened again. A source that turns out
// to be complete, such as a file on a server, is handed over, open, to the first reader.
//
// The thread may be stuck where it cannot be cancelled, as in the resolution of a name. It touches
// only what it shares with its readers, and ends as soon as the call returns.
class SharedInput : public std::enable_shared_from_this<SharedInput> {
 public:
  struct Limits {
    // Of each reader's queue.
    std::size_t bytes = std::size_t{16} << 20;
    std::size_t packets = 4096;
    // How far a pull source is read ahead of the slowest reader: about a second.
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
  // How long a cancelled reader may take to notice.
  static constexpr std::chrono::milliseconds kNoticePeriod{20};

  // Null once the last reader has left, or the source is no longer shared.
  std::unique_ptr<Subscription> Subscribe();
  void Leave(Subscription& reader);
  void NoteFailure(const Subscription& reader, const MediaError& failure);
  // False at the deadline.
  bool WaitUntilEnded(ffmpeg::IoDeadline& deadline);
  // A complete source, open, for the first reader that asks; null for all others.
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
  os::ConditionVariable changed_;  // the phase has changed
  os::ConditionVariable read_;     // a reader has read, chosen its streams, or left
  Phase phase_ GUARDED_BY(lock_) = Phase::kOpening;
  std::optional<MediaError> failure_ GUARDED_BY(lock_);   // none: the source has ended
  bool isLeft_ GUARDED_BY(lock_) = false;                 // the last reader has left
  std::optional<MediaError> outdated_ GUARDED_BY(lock_);  // why it has to be opened again
  std::uint64_t failures_ GUARDED_BY(lock_) = 0;          // of single readers
  bool hasBegun_ GUARDED_BY(lock_) = false;               // packets have arrived
  bool choicesChanged_ GUARDED_BY(lock_) = false;
  std::vector<Subscription*> readers_ GUARDED_BY(lock_);
  std::shared_ptr<const AVFormatContext> streams_ GUARDED_BY(lock_);  // the latest mirror
  SourceKind kind_ GUARDED_BY(lock_) = SourceKind::kPull;
  unsigned openedStreams_ GUARDED_BY(lock_) = 0;
  std::vector<std::string> unknownOptions_ GUARDED_BY(lock_);
  SourceCounts counts_ GUARDED_BY(lock_);
  // Replaced under the lock, otherwise used by the thread only.
  std::unique_ptr<MediaInput> input_;

  std::vector<int> places_;  // of the demuxer's streams in the mirrors; used by the thread only
};

// The access of one reader. May be destroyed on any thread after the last call; the last one to
// leave waits until the source is closed, for the open limit at most.
class SharedInput::Subscription final : public PacketSource {
 public:
  ~Subscription() override;

  Outcome Read(ffmpeg::Packet& packet, bool isUnused) override;
  void Cancel() override { cancelled_ = true; }
  AVFormatContext& context() const override { return *mirror_; }
  SourceKind kind() const override { return kind_; }
  unsigned openedStreams() const override { return openedStreams_; }
  const std::vector<std::string>& unknownOptions() const override { return unknownOptions_; }
  // Of the source since this reader joined, for all readers together.
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
    std::vector<bool> streams;  // streams beyond these are all read
    std::vector<int> tracks;
    std::optional<int> video;
    bool operator==(const Choice&) const = default;

    bool Has(std::size_t place) const { return place >= streams.size() || streams[place]; }
  };

  explicit Subscription(std::shared_ptr<SharedInput> input) : input_(std::move(input)) {}

  // Waits until the source is open or has failed.
  Phase WaitUntilOpen(ffmpeg::IoDeadline& deadline);
  // Once the source is open.
  void Begin();
  void NoteChoice();
  // The next piece, if there is one. Throws MediaError.
  Outcome Take(std::shared_ptr<const Piece>& piece);
  // Whether a decoder may begin with this piece.
  bool IsStart(const Piece& piece) const;

  const std::shared_ptr<SharedInput> input_;
  std::atomic<bool> cancelled_{false};

  // Used by the reader only.
  StreamMirror mirror_;
  std::shared_ptr<const AVFormatContext> mirrored_;
  SourceKind kind_ = SourceKind::kPull;
  unsigned openedStreams_ = 0;
  std::vector<std::string> unknownOptions_;
  SourceCounts before_;                           // those of the source when it was subscribed
  std::chrono::steady_clock::duration waited_{};  // for the next packet

  // The following are guarded by the input's lock; the reader reads its own choice without it.
  os::ConditionVariable came_;
  std::uint64_t failuresBefore_ = 0;  // of readers, when it was subscribed
  bool isProbed_ = false;             // fails only because it has probed a new stream
  std::optional<Choice> choice_;
  std::deque<std::shared_ptr<const Piece>> queue_;
  std::size_t queued_ = 0;       // bytes
  bool awaitsKeyframe_ = false;  // since its queue was full
  std::size_t leftOut_ = 0;      // packets dropped since then
  std::uint64_t overflows_ = 0;
  std::chrono::steady_clock::time_point readAt_ = std::chrono::steady_clock::now();
};

// The shared sources of one wall. Any thread; readers may outlive it.
class SharedInputs {
 public:
  explicit SharedInputs(const SharedInput::Limits& limits = {}) : limits_(limits) {}

  // Whether a live source with this address may be shared in this way: it is neither a file nor a
  // connection whose bytes are shared (SharedReceivers).
  static bool Serves(const MediaSettings& settings);
  // Sources with equal keys are shared.
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

  // The open source: shared, or for this reader alone. Null: the reader has to open it itself.
  // Waits while the same source is being closed. Arms the deadline. Throws MediaError, and
  // std::system_error when no thread can be started.
  std::unique_ptr<PacketSource> Open(const MediaSettings& settings, ffmpeg::IoDeadline& deadline);

 private:
  const SharedInput::Limits limits_;
  os::Mutex lock_;
  std::map<Key, std::weak_ptr<SharedInput>> inputs_ GUARDED_BY(lock_);
};

}  // namespace host
