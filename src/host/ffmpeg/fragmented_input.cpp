#include "host/ffmpeg/fragmented_input.h"

#include <algorithm>
#include <array>
#include <limits>
#include <string_view>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
#include <libavutil/intreadwrite.h>
}

namespace host::ffmpeg {
namespace {

constexpr std::size_t kBoxHeader = 8;       // size and type
constexpr std::size_t kLongBoxHeader = 16;  // ... and a size of 64 bits
constexpr std::size_t kPiece = 32'768;
constexpr std::uint64_t kToTheEnd = std::numeric_limits<std::uint64_t>::max();

// The boxes with which a fragment may begin.
bool BeginsFragment(std::string_view type) {
  constexpr std::array<std::string_view, 5> kTypes{"moof", "styp", "sidx", "prft", "emsg"};
  return std::find(kTypes.begin(), kTypes.end(), type) != kTypes.end();
}

bool BeginsHeader(std::string_view type) {
  return type == "ftyp" || type == "moov";
}

bool IsPrintable(std::string_view type) {
  return std::all_of(type.begin(), type.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

}  // namespace

FragmentedInput::FragmentedInput(AVIOContext* below)
    : below_(below), io_(MakeReadingIo(this, &ReadCallback)) {}

void FragmentedInput::Restart() {
  ended_ = ending_ = false;
  repeat_ = header_.size();
  io_ = MakeReadingIo(this, &ReadCallback);
}

int FragmentedInput::ReadCallback(void* input, std::uint8_t* buffer, int size) {
  return static_cast<FragmentedInput*>(input)->Read(buffer, size);
}

int FragmentedInput::ReadBelow() {
  pending_.erase(0, given_);
  given_ = 0;
  std::array<std::uint8_t, kPiece> piece;
  const int count = avio_read_partial(below_, piece.data(), static_cast<int>(piece.size()));
  if (count > 0) {
    pending_.append(reinterpret_cast<const char*>(piece.data()), static_cast<std::size_t>(count));
  }
  return count == 0 ? AVERROR_EOF : count;
}

bool FragmentedInput::BeginBox() {
  const std::size_t here = pending_.size() - given_;
  if (here < kBoxHeader) {
    return false;
  }
  const char* const box = pending_.data() + given_;
  const std::string_view type(box + 4, 4);
  std::uint64_t size = AV_RB32(box);
  if (size == 1 && here < kLongBoxHeader) {
    return false;
  }
  const std::size_t least = size == 1 ? kLongBoxHeader : kBoxHeader;
  size = size == 1 ? AV_RB64(box + kBoxHeader) : size;
  if (!IsPrintable(type) || (size != 0 && size < least)) {
    isOther_ = true;
    header_.clear();
    left_ = kToTheEnd;
    return true;
  }
  left_ = size == 0 ? kToTheEnd : size;
  if (BeginsFragment(type)) {
    ended_ = ending_;
    inFragments_ = true;
  } else if (inFragments_ && BeginsHeader(type)) {
    inFragments_ = false;
    header_.clear();
  }
  return true;
}

void FragmentedInput::Remember(std::size_t count) {
  if (inFragments_ || isOther_) {
    return;
  }
  header_.append(pending_, given_, count);
  if (header_.size() > kMaxHeader) {
    isOther_ = true;
    header_.clear();
  }
}

int FragmentedInput::Read(std::uint8_t* buffer, int size) {
  const auto room = static_cast<std::size_t>(size);
  if (repeat_ > 0) {
    const std::size_t count = std::min(repeat_, room);
    std::copy_n(header_.end() - static_cast<std::ptrdiff_t>(repeat_), count, buffer);
    repeat_ -= count;
    return static_cast<int>(count);
  }
  int result = 1;
  while (!ended_) {
    // What is left of a box whose header was cut off by the end goes through as it is.
    if (left_ == 0 && !BeginBox() && result == AVERROR_EOF) {
      left_ = kToTheEnd;
    }
    if (ended_) {
      break;
    }
    const std::size_t here = pending_.size() - given_;
    const std::size_t count =
        static_cast<std::size_t>(std::min<std::uint64_t>({left_, here, room}));
    if (count > 0) {
      std::copy_n(pending_.begin() + static_cast<std::ptrdiff_t>(given_), count, buffer);
      Remember(count);
      given_ += count;
      left_ -= left_ == kToTheEnd ? 0 : count;
      return static_cast<int>(count);
    }
    if (result <= 0) {
      return result;
    }
    result = ReadBelow();
  }
  return AVERROR_EOF;
}

}  // namespace host::ffmpeg
