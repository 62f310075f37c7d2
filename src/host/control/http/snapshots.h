// Snapshots: JPEG pictures of the wall, encoded on request by a thread of their own.
#pragma once

#include <array>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/config/wall.h"
#include "host/control/http/mailbox.h"
#include "platform/os/mutex.h"
#include "platform/os/thread.h"

namespace host::control::http {

// One picture serves all requests for it within a quarter of a second (a small one 150 ms), and no
// more than ten per second are encoded, however many clients ask.
class Snapshots {
 public:
  // Of all or a part of the canvas; isSmall: in the size of the preview.
  struct View {
    std::optional<config::Window> window{};
    bool isSmall = false;
  };
  using Encode = std::function<std::optional<std::string>(const View&)>;
  using Picture = std::shared_ptr<const std::string>;
  using Done = std::function<void(Picture)>;

  // encode may be empty.
  Snapshots(Encode encode, std::shared_ptr<Mailbox> mailbox);
  // Waits for the picture that is being encoded.
  ~Snapshots();

  // Server's thread, which calls done, perhaps at once; null when there is no picture.
  void Get(const View& view, Done done);

 private:
  using Clock = std::chrono::steady_clock;
  using Key = std::array<int, 5>;  // the window, and whether it is small
  struct Entry {
    Picture picture;
    Clock::time_point at{};
    std::vector<Done> waiting;
  };

  void Run();
  void Deliver(const Key& key, const Picture& picture);

  const Encode encode_;
  const std::shared_ptr<Mailbox> mailbox_;
  std::map<Key, Entry> entries_;  // server's thread
  os::Mutex lock_;
  os::ConditionVariable changed_;
  std::deque<Key> queue_ GUARDED_BY(lock_);
  bool ends_ GUARDED_BY(lock_) = false;
  std::unique_ptr<os::Thread> thread_;
};

}  // namespace host::control::http
