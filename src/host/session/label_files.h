// Labels whose texts are in files: read when the wall starts (FirstLabels) and polled while it runs
// (LabelFiles).
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/config/wall.h"
#include "platform/os/mutex.h"
#include "platform/os/thread.h"

namespace host {

// The text of one file, which is polled. One thread at a time.
class LabelFile {
 public:
  // More than any label shows.
  static constexpr std::size_t kMax = 4096;  // bytes

  explicit LabelFile(std::filesystem::path path) : path_(std::move(path)) {}

  // What the file holds now, without the white space at its end. None when there is no such file.
  std::optional<std::string> Read() const;

  // A new text once it is stable: programs empty a file before they write it again, so a text
  // counts when two looks in a row have found it. None when there is no new text or no file.
  std::optional<std::string> Look();
  const std::filesystem::path& path() const { return path_; }

 private:
  const std::filesystem::path path_;
  std::optional<std::string> found_;  // at the last look
  std::optional<std::string> given_;  // by the last look that had a new text
};

// The text that a label has at once; that of its file, or of the source's service, comes later.
std::string GivenText(const config::Label& label);

// The texts that the channels of a wall begin with. A rendered wall keeps them: its files are read
// once. Application's thread.
class FirstLabels {
 public:
  // Reads the label's file, if it has one. A dead mount holds up all of them together for a few
  // seconds at most.
  std::string TextOf(const config::Label& label) const;

 private:
  static constexpr std::chrono::seconds kLimit{2};  // for all labels, from construction on
  static constexpr std::chrono::milliseconds kLimitOfEach{100};  // at least

  const std::chrono::steady_clock::time_point until_ = std::chrono::steady_clock::now() + kLimit;
};

// Looks at all label files of a wall from a thread of its own, four times a second, so that a file
// on a slow disk stops nothing but its label. Owned by the wall; Start and Stop belong to the
// application's thread.
class LabelFiles {
 public:
  using TakeText = std::function<void(const std::string& text)>;

  LabelFiles() = default;
  ~LabelFiles() { Stop(); }
  LabelFiles(const LabelFiles&) = delete;
  LabelFiles& operator=(const LabelFiles&) = delete;

  // take gets every new text, on the thread of the files; it returns at once. key: for Remove.
  void Add(std::size_t key, std::filesystem::path path, TakeText take);
  // Afterwards no text of that file is handed over.
  void Remove(std::size_t key);
  // Starts polling.
  void Start();
  // Afterwards no text is handed over. A thread that is stuck in a file, as on a dead mount, is
  // detached.
  void Stop();

 private:
  struct Entry {
    std::size_t key = 0;
    LabelFile file;  // the thread's own
    TakeText take;
    bool removed = false;  // under the lock
  };
  // What the thread uses. The lock guards the request to stop and is held while a text is handed
  // over, but not while a file is read.
  struct Run {
    os::Mutex lock;
    os::ConditionVariable changed;
    std::vector<std::shared_ptr<Entry>> entries GUARDED_BY(lock);
    bool stopped GUARDED_BY(lock) = false;
    bool ended GUARDED_BY(lock) = false;

    void LookUntilStopped();
    // Hands a new text over. False once stopped.
    bool Give(const std::shared_ptr<Entry>& entry, const std::optional<std::string>& text);
    // False once stopped.
    bool WaitForNextLook();
  };

  // Starts the thread once there is a file to look at.
  void StartThread();

  std::shared_ptr<Run> run_ = std::make_shared<Run>();  // shared with the thread
  bool isStarted_ = false;
  std::unique_ptr<os::Thread> thread_;
};

}  // namespace host
