#include "host/control/http/snapshots.h"

#include <exception>
#include <utility>

namespace host::control::http {

namespace {

constexpr std::chrono::milliseconds kFresh{250};
constexpr std::chrono::milliseconds kFreshSmall{150};  // of those that follow one another
constexpr std::chrono::milliseconds kBetween{100};
constexpr std::chrono::seconds kKept{10};

}  // namespace

Snapshots::Snapshots(Encode encode, std::shared_ptr<Mailbox> mailbox)
    : encode_(std::move(encode)), mailbox_(std::move(mailbox)) {
  if (encode_) {
    thread_ =
        std::make_unique<os::Thread>([this] { Run(); }, "snapshots", os::Thread::Priority::kLow);
  }
}

Snapshots::~Snapshots() {
  {
    const os::MutexLock guard(lock_);
    ends_ = true;
  }
  changed_.NotifyAll();
  if (thread_) {
    thread_->Wait(os::kInfinite);
  }
}

void Snapshots::Get(const View& view, Done done) {
  if (!encode_) {
    done(nullptr);
    return;
  }
  const Clock::time_point now = Clock::now();
  std::erase_if(entries_, [&](const auto& one) {
    return one.second.waiting.empty() && now - one.second.at > kKept;
  });
  const config::Window window = view.window.value_or(config::Window{});
  const Key key{window.x, window.y, window.width, window.height, view.isSmall ? 1 : 0};
  Entry& entry = entries_[key];
  if (entry.picture && now - entry.at < (view.isSmall ? kFreshSmall : kFresh)) {
    done(entry.picture);
    return;
  }
  entry.waiting.push_back(std::move(done));
  if (entry.waiting.size() == 1) {
    {
      const os::MutexLock guard(lock_);
      queue_.push_back(key);
    }
    changed_.NotifyAll();
  }
}

void Snapshots::Run() {
  for (;;) {
    Key key{};
    {
      const os::MutexLock guard(lock_);
      while (queue_.empty() && !ends_) {
        changed_.Wait(lock_);
      }
      if (ends_) {
        return;
      }
      key = queue_.front();
      queue_.pop_front();
    }
    const Clock::time_point begun = Clock::now();
    Picture picture;
    try {
      View view{std::nullopt, key[4] != 0};
      if (key[2] > 0) {
        view.window = config::Window{key[0], key[1], key[2], key[3]};
      }
      if (std::optional<std::string> jpeg = encode_(view)) {
        picture = std::make_shared<const std::string>(std::move(*jpeg));
      }
    } catch (const std::exception&) {
      // No picture: the answer reports it.
    }
    mailbox_->Post([this, key, picture] { Deliver(key, picture); });
    const os::MutexLock guard(lock_);
    while (!ends_ && changed_.WaitUntil(lock_, begun + kBetween)) {
    }
  }
}

void Snapshots::Deliver(const Key& key, const Picture& picture) {
  Entry& entry = entries_[key];
  entry.picture = picture;
  entry.at = Clock::now();
  for (const Done& done : std::exchange(entry.waiting, {})) {
    done(picture);
  }
}

}  // namespace host::control::http
