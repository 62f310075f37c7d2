#include "host/session/label_files.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string_view>
#include <system_error>

#include "host/ffmpeg/mask.h"

namespace host {
namespace {

constexpr std::chrono::milliseconds kBetweenLooks{250};
constexpr std::chrono::milliseconds kStopLimit{500};  // for a look at a file to end
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

}  // namespace

std::optional<std::string> LabelFile::Read() const {
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(path_, ignored)) {
    return std::nullopt;  // reading a pipe would block
  }
  std::ifstream file(path_, std::ios::binary);
  if (!file) {
    return std::nullopt;
  }
  constexpr std::size_t kMaxCharacter = 4;  // bytes
  std::string text(kMax + kMaxCharacter, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  text.resize(ffmpeg::CutToBytes(text, kMax).size());
  if (text.starts_with(kByteOrderMark)) {
    text.erase(0, kByteOrderMark.size());
  }
  text.erase(text.find_last_not_of(" \t\r\n") + 1);
  return text;
}

std::optional<std::string> LabelFile::Look() {
  const std::optional<std::string> before = std::exchange(found_, Read());
  if (!found_ || found_ != before || found_ == given_) {
    return std::nullopt;
  }
  given_ = found_;
  return given_;
}

std::string GivenText(const config::Label& label) {
  return label.source == config::Label::Source::kNone ? "" : label.text;
}

std::string FirstLabels::TextOf(const config::Label& label) const {
  if (label.source != config::Label::Source::kFile) {
    return GivenText(label);
  }
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      until_ - std::chrono::steady_clock::now());
  const auto text = os::CallWithin<std::optional<std::string>>(
      std::max(left, kLimitOfEach), [file = LabelFile(label.file)] { return file.Read(); },
      "label");
  return text.value_or(std::nullopt).value_or(label.text);
}

void LabelFiles::Add(std::size_t key, std::filesystem::path path, TakeText take) {
  {
    const os::MutexLock guard(run_->lock);
    run_->entries.push_back(
        std::make_shared<Entry>(Entry{key, LabelFile(std::move(path)), std::move(take)}));
  }
  if (isStarted_) {
    StartThread();
  }
}

void LabelFiles::Remove(std::size_t key) {
  const os::MutexLock guard(run_->lock);
  std::erase_if(run_->entries, [&](const std::shared_ptr<Entry>& entry) {
    entry->removed = entry->removed || entry->key == key;
    return entry->removed;
  });
}

void LabelFiles::Start() {
  isStarted_ = true;
  StartThread();
}

void LabelFiles::StartThread() {
  bool isEmpty = false;
  {
    const os::MutexLock guard(run_->lock);
    isEmpty = run_->entries.empty();
  }
  if (thread_ == nullptr && !isEmpty) {
    thread_ = std::make_unique<os::Thread>([run = run_] { run->LookUntilStopped(); }, "labels");
  }
}

void LabelFiles::Stop() {
  if (thread_ == nullptr) {
    return;
  }
  bool ended = false;
  {
    const auto deadline = std::chrono::steady_clock::now() + kStopLimit;
    const os::MutexLock guard(run_->lock);
    run_->stopped = true;
    run_->changed.NotifyAll();
    while (!run_->ended && run_->changed.WaitUntil(run_->lock, deadline)) {
    }
    ended = run_->ended;
  }
  if (ended) {
    thread_->Wait(os::kInfinite);
  }
  thread_.reset();
  // The thread may still be stuck in the former Run.
  auto next = std::make_shared<Run>();
  {
    const os::MutexLock guard(run_->lock);
    const os::MutexLock own(next->lock);
    for (const std::shared_ptr<Entry>& entry : run_->entries) {
      next->entries.push_back(
          std::make_shared<Entry>(Entry{entry->key, LabelFile(entry->file.path()), entry->take}));
    }
  }
  run_ = std::move(next);
  isStarted_ = false;
}

void LabelFiles::Run::LookUntilStopped() {
  bool continues = true;
  while (continues) {
    std::vector<std::shared_ptr<Entry>> now;
    {
      const os::MutexLock guard(lock);
      now = entries;
    }
    for (const std::shared_ptr<Entry>& entry : now) {
      continues = continues && Give(entry, entry->file.Look());
    }
    continues = continues && WaitForNextLook();
  }
  const os::MutexLock guard(lock);
  ended = true;
  changed.NotifyAll();
}

bool LabelFiles::Run::Give(const std::shared_ptr<Entry>& entry,
                           const std::optional<std::string>& text) {
  const os::MutexLock guard(lock);
  if (!stopped && !entry->removed && text) {
    entry->take(*text);
  }
  return !stopped;
}

bool LabelFiles::Run::WaitForNextLook() {
  const auto next = std::chrono::steady_clock::now() + kBetweenLooks;
  const os::MutexLock guard(lock);
  while (!stopped && changed.WaitUntil(lock, next)) {
  }
  return !stopped;
}

}  // namespace host
