#include "host/channel/source/shared_receiver.h"

#include <algorithm>
#include <exception>
#include <utility>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
}

#include "host/channel/source/rtp_receiver.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/inputs.h"
#include "platform/os/thread.h"

namespace host {
namespace {

// How long a cancelled reader may take to notice.
constexpr std::chrono::milliseconds kReceivePeriod{20};

}  // namespace

SharedReceiver::Subscription::Subscription(std::shared_ptr<SharedReceiver> receiver,
                                           const config::ProgramChoice& program)
    : receiver_(std::move(receiver)) {
  if (program.isGiven()) {
    filter_.emplace(program);
  }
}

SharedReceiver::Subscription::~Subscription() {
  receiver_->Leave(*this);
}

int SharedReceiver::Subscription::WaitUntilOpen(ffmpeg::IoDeadline& deadline) {
  const os::MutexLock guard(receiver_->lock_);
  while (receiver_->phase_ == Phase::kOpening) {
    if (deadline.ShouldStop()) {
      return AVERROR_EXIT;
    }
    receiver_->changed_.WaitUntil(receiver_->lock_,
                                  std::chrono::steady_clock::now() + kReceivePeriod);
  }
  return receiver_->failure_;
}

int SharedReceiver::Subscription::Read(std::span<std::uint8_t> buffer) {
  const os::MutexLock guard(receiver_->lock_);
  if (queue_.empty() && receiver_->phase_ != Phase::kEnded && !(filter_ && filter_->missing())) {
    came_.WaitUntil(receiver_->lock_, std::chrono::steady_clock::now() + kReceivePeriod);
  }
  if (queue_.empty()) {
    if (filter_ && filter_->missing()) {
      return AVERROR_STREAM_NOT_FOUND;
    }
    return receiver_->phase_ == Phase::kEnded ? receiver_->failure_ : 0;
  }
  const Bytes rest = Bytes(queue_.front().bytes).subspan(taken_);
  const std::size_t count = std::min(rest.size(), buffer.size());
  std::copy_n(rest.begin(), count, buffer.begin());
  taken_ += count;
  queued_ -= count;
  readAt_ = std::chrono::steady_clock::now();
  receiver_->read_.NotifyAll();
  if (count == rest.size()) {
    queue_.pop_front();
    taken_ = 0;
  }
  return static_cast<int>(count);
}

std::optional<std::string> SharedReceiver::Subscription::missingProgram() const {
  const os::MutexLock guard(receiver_->lock_);
  return filter_ ? filter_->missing() : std::nullopt;
}

int SharedReceiver::Subscription::programNumber() const {
  const os::MutexLock guard(receiver_->lock_);
  return filter_ ? filter_->number() : 0;
}

bool SharedReceiver::Subscription::carriesOther() const {
  const os::MutexLock guard(receiver_->lock_);
  return receiver_->carriesOther_;
}

std::uint64_t SharedReceiver::Subscription::overflows() const {
  const os::MutexLock guard(receiver_->lock_);
  return overflows_;
}

std::unique_ptr<SharedReceiver::Subscription> SharedReceiver::Subscribe(
    const config::ProgramChoice& program) {
  std::unique_ptr<Subscription> reader(new Subscription(shared_from_this(), program));
  const os::MutexLock guard(lock_);
  if (isLeft_ || phase_ == Phase::kEnded) {
    return nullptr;
  }
  readers_.push_back(reader.get());
  return reader;
}

void SharedReceiver::Leave(Subscription& reader) {
  const os::MutexLock guard(lock_);
  if (std::erase(readers_, &reader) == 0 || !readers_.empty()) {
    return;
  }
  isLeft_ = true;
  deadline_.Cancel();
  read_.NotifyAll();
  while (phase_ != Phase::kEnded) {
    changed_.Wait(lock_);
  }
}

bool SharedReceiver::WaitUntilEnded(ffmpeg::IoDeadline& deadline) {
  const os::MutexLock guard(lock_);
  while (phase_ != Phase::kEnded) {
    if (deadline.ShouldStop()) {
      return false;
    }
    changed_.WaitUntil(lock_, std::chrono::steady_clock::now() + kReceivePeriod);
  }
  return true;
}

void SharedReceiver::Run() {
  int failure = AVERROR(EIO);
  try {
    failure = Receive();
  } catch (const ffmpeg::Error& error) {
    failure = error.code();
  } catch (const std::bad_alloc&) {
    failure = AVERROR(ENOMEM);
  }
  End(failure);
}

void SharedReceiver::End(int failure) {
  const os::MutexLock guard(lock_);
  phase_ = Phase::kEnded;
  failure_ = failure;
  changed_.NotifyAll();
  for (Subscription* const reader : readers_) {
    reader->came_.NotifyAll();
  }
}

// Returns an AVERROR code when the connection fails or is cancelled; it is closed then.
int SharedReceiver::Receive() {
  ffmpeg::Options options;
  for (const auto& [key, value] : address_.options) {
    options.Set(key.c_str(), value);
  }
  std::optional<ffmpeg::PipeInput> pipe;
  ffmpeg::Connection connection;
  if (address_.isPipe) {
    pipe.emplace(address_.url, deadline_);
  } else {
    connection = ffmpeg::OpenConnection(address_.url, deadline_, options);
  }
  AVIOContext* const io = pipe ? pipe->io() : connection.get();
  {
    const os::MutexLock guard(lock_);
    phase_ = Phase::kOpen;
    changed_.NotifyAll();
  }
  RtpReceiver rtp;
  const bool isDatagrams = !address_.isPipe && address_.url.starts_with("udp:");
  const bool isPushed = !address_.isPipe && SourceAddress(address_.url).isPushed();
  std::vector<std::uint8_t> buffer(ffmpeg::kMaxPiece);
  for (;;) {
    deadline_.Arm(silenceLimit_);
    const int count = avio_read_partial(io, buffer.data(), static_cast<int>(buffer.size()));
    if (count < 0 || deadline_.cancelled()) {
      return count == AVERROR_EXIT && deadline_.expired() ? AVERROR(ETIMEDOUT)
             : count < 0                                  ? count
                                                          : AVERROR_EXIT;
    }
    Bytes bytes = Bytes(buffer).first(static_cast<std::size_t>(count));
    if (isDatagrams) {
      bytes = rtp.Take(bytes, RtpReceiver::Clock::now());
      packetsLost_ = rtp.lost();
      if (rtp.carriesOther()) {
        const os::MutexLock guard(lock_);
        carriesOther_ = true;
        return AVERROR_INVALIDDATA;
      }
    }
    if (!bytes.empty()) {
      Distribute(bytes);
    }
    if (!isPushed) {
      WaitForReaders();
    }
  }
}

void SharedReceiver::WaitForReaders() {
  const os::MutexLock guard(lock_);
  const auto isWaitedFor = [&](const Subscription* reader) {
    return reader->queued_ > kMaxQueued / 2 &&
           std::chrono::steady_clock::now() - reader->readAt_ < kMaxPause;
  };
  while (!isLeft_ && std::any_of(readers_.begin(), readers_.end(), isWaitedFor)) {
    read_.WaitUntil(lock_, std::chrono::steady_clock::now() + kReceivePeriod);
  }
}

void SharedReceiver::Distribute(Bytes bytes) {
  const os::MutexLock guard(lock_);
  const auto now = ProgramFilter::Clock::now();
  bool hasRandomAccess = false;
  packets_.Feed(bytes, [&](Bytes packet) {
    lock_.AssertHeld();
    tables_.Packet(packet);
    const bool isRandomAccess = TransportPackets::IsRandomAccess(packet);
    hasRandomAccess = hasRandomAccess || isRandomAccess;
    for (Subscription* const reader : readers_) {
      if (reader->filter_) {
        Subscription::Piece& next = reader->next_;
        const std::size_t before = next.bytes.size();
        reader->filter_->Packet(packet, tables_, now, next.bytes);
        next.isRandomAccess = next.isRandomAccess || (isRandomAccess && next.bytes.size() > before);
      }
    }
  });
  for (Subscription* const reader : readers_) {
    if (!reader->filter_) {
      reader->next_ = {{bytes.begin(), bytes.end()}, hasRandomAccess};
    }
    const bool isMissing = reader->filter_ && reader->filter_->missing();
    if (!reader->next_.bytes.empty()) {
      Push(*reader);
      reader->came_.NotifyAll();
    } else if (isMissing) {
      reader->came_.NotifyAll();
    }
  }
}

void SharedReceiver::Push(Subscription& reader) {
  reader.queued_ += reader.next_.bytes.size();
  reader.queue_.push_back(std::exchange(reader.next_, {}));
  if (reader.queued_ <= kMaxQueued) {
    return;
  }
  ++reader.overflows_;
  while (!reader.queue_.empty() &&
         (reader.queued_ > kMaxQueued / 2 || !reader.queue_.front().isRandomAccess)) {
    reader.queued_ -= reader.queue_.front().bytes.size() - std::exchange(reader.taken_, 0);
    reader.queue_.pop_front();
  }
}

std::unique_ptr<SharedReceiver::Subscription> SharedReceivers::Subscribe(
    const ReceiverAddress& address, std::chrono::milliseconds silenceLimit,
    const config::ProgramChoice& program, ffmpeg::IoDeadline& deadline) {
  for (;;) {
    std::shared_ptr<SharedReceiver> ending;
    {
      const os::MutexLock guard(lock_);
      std::erase_if(receivers_, [](const auto& each) { return each.second.expired(); });
      std::weak_ptr<SharedReceiver>& known = receivers_[address];
      ending = known.lock();
      if (ending == nullptr) {
        const auto receiver = std::make_shared<SharedReceiver>(address, silenceLimit);
        auto reader = receiver->Subscribe(program);
        try {
          // Goes on when the object is destroyed.
          const os::Thread thread([receiver] { receiver->Run(); }, "receiver");
        } catch (...) {
          receiver->End(AVERROR(EAGAIN));
          throw;
        }
        known = receiver;
        return reader;
      }
      if (auto reader = ending->Subscribe(program)) {
        return reader;
      }
    }
    if (!ending->WaitUntilEnded(deadline)) {
      return nullptr;
    }
    // An ended receiver takes no more readers.
    const os::MutexLock guard(lock_);
    const auto known = receivers_.find(address);
    if (known != receivers_.end() && known->second.lock() == ending) {
      receivers_.erase(known);
    }
  }
}

}  // namespace host
