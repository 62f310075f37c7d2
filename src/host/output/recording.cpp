#include "host/output/recording.h"

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

extern "C" {
#include <libavutil/error.h>
}

#include "host/config/value_text.h"
#include "host/ffmpeg/error.h"

namespace host {
namespace {

using ffmpeg::FileOutput;

constexpr std::size_t kMaxNumber = 1'000'000;

std::string Numbered(const std::filesystem::path& path, std::size_t number) {
  std::filesystem::path numbered = path;
  if (number > 1) {
    numbered.replace_filename(path.stem().string() + "-" + std::to_string(number) +
                              path.extension().string());
  }
  return numbered.string();
}

}  // namespace

std::string FreeName(const std::string& path) {
  std::error_code ignored;
  std::size_t number = 1;
  while (number < kMaxNumber && std::filesystem::exists(Numbered(path, number), ignored)) {
    ++number;
  }
  return Numbered(path, number);
}

RecordingFiles::RecordingFiles(std::string path, Existing existing)
    : path_(std::move(path)), existing_(existing) {}

std::string RecordingFiles::Name() const {
  return config::ExpandFileName(path_);
}

std::string RecordingFiles::NextName() {
  const std::string name = Name();
  const std::string next = existing_ == Existing::kReplaced ? name : FreeName(name);
  avoided_ = next != name;
  return next;
}

void RecordingFiles::ForgetLatest() {
  number_ -= number_ > 0 ? 1 : 0;
  if (std::exchange(replaced_, false)) {
    existing_ = Existing::kReplaced;
  }
}

std::unique_ptr<FileOutput> RecordingFiles::Next() {
  const std::string name = Name();
  const Existing existing = existing_;
  number_ = name == name_ ? number_ : 0;
  name_ = name;
  if (existing == Existing::kReplaced) {
    auto file = std::make_unique<FileOutput>(name, FileOutput::Existing::kReplaced);
    existing_ = Existing::kKept;
    number_ = 1;
    replaced_ = true;
    return file;
  }
  for (const std::size_t first = number_ + 1;;) {
    try {
      auto file =
          std::make_unique<FileOutput>(Numbered(name, number_ + 1), FileOutput::Existing::kKept);
      ++number_;
      avoided_ = number_ > first;
      existing_ = Existing::kKept;
      replaced_ = false;
      return file;
    } catch (const ffmpeg::Error& error) {
      if (error.code() != AVERROR(EEXIST) || existing == Existing::kRefused ||
          number_ >= kMaxNumber) {
        throw;
      }
      ++number_;
    }
  }
}

}  // namespace host
