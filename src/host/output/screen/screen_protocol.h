// The messages between a wall and the process that shows its screen. Both are the same program.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/os/companion_process.h"

namespace host {

// The command that makes a process of `tavrel` the window of a screen; for internal use only.
inline constexpr const char* kScreenWindowCommand = "screen-window";

// The beginning of the memory that both share; from kHeader on it holds kSlots frames, planar 4:2:0
// as they are composed. One slot is the wall's, to write into, one the window's, to show, and one
// is handed over: each side exchanges its own for it. So the wall never waits, and the window
// always shows the newest frame.
class ScreenFrames {
 public:
  static constexpr std::size_t kHeader = 4096;
  static constexpr std::size_t kSlots = 3;
  struct Slot {
    std::int64_t number = 0;
    std::int64_t start = 0;  // on the wall's clock, 100 ns
  };

  static constexpr std::size_t SizeFor(std::size_t frame) { return kHeader + kSlots * frame; }
  static std::uint8_t* Pixels(std::span<std::uint8_t> memory, std::size_t slot, std::size_t frame) {
    return memory.data() + kHeader + slot * frame;
  }

  // own: the caller's slot, which becomes another one. The wall's side: hands its slot over; true
  // when the one before was never taken.
  bool HandOver(std::size_t& own) {
    const std::uint32_t before =
        between_.exchange(static_cast<std::uint32_t>(own) | kFresh, std::memory_order_acq_rel);
    own = (before & ~kFresh) % kSlots;
    return (before & kFresh) != 0;
  }
  // The window's side: false when there is no new frame.
  bool TakeOver(std::size_t& own) {
    if ((between_.load(std::memory_order_relaxed) & kFresh) == 0) {
      return false;
    }
    own =
        (between_.exchange(static_cast<std::uint32_t>(own), std::memory_order_acq_rel) & ~kFresh) %
        kSlots;
    return true;
  }

  static constexpr std::size_t kOfWall = 0;  // at first
  static constexpr std::size_t kOfWindow = 2;
  std::array<Slot, kSlots> slots{};

 private:
  static constexpr std::uint32_t kFresh = 0x100;

  std::atomic<std::uint32_t> between_{1};
  static_assert(std::atomic<std::uint32_t>::is_always_lock_free);
};
static_assert(sizeof(ScreenFrames) <= ScreenFrames::kHeader);

// The head of a message, followed by the body of its kind.
struct ScreenMessage {
  enum class Kind : std::uint32_t {
    // to the window
    kSetup,  // ScreenSetup; the first message
    kFrame,  // one was handed over
    kAudio,  // start, then stereo samples of 32-bit floating point, 48 kHz
    kQuit,
    // to the wall
    kOpened,
    kShown,   // number
    kInput,   // ScreenInput
    kClosed,  // by the operator; the last message
    kSaid,    // a sentence
    kFailed,  // a sentence; the last message
  };

  Kind kind = Kind::kQuit;
  std::int64_t number = 0;  // of a frame
  std::int64_t start = 0;   // on the wall's clock, 100 ns
};

struct ScreenSetup {
  std::int32_t width = 0;  // of the canvas, pixels
  std::int32_t height = 0;
  std::int32_t shapeX = 1;  // width to height of a pixel
  std::int32_t shapeY = 1;
  std::int32_t display = 0;
  std::int32_t windowWidth = 0;  // 0: full screen
  std::int32_t windowHeight = 0;
  std::int32_t hasAudio = 0;
  char title[256] = {};
};

inline bool Send(const os::MessageSocket& socket, const ScreenMessage& message,
                 std::span<const std::uint8_t> rest = {}) {
  std::vector<std::uint8_t> bytes(sizeof(message) + rest.size());
  std::memcpy(bytes.data(), &message, sizeof(message));
  if (!rest.empty()) {
    std::memcpy(bytes.data() + sizeof(message), rest.data(), rest.size());
  }
  return socket.Send(bytes);
}

template <typename Body>
std::span<const std::uint8_t> BytesOf(const Body& body) {
  static_assert(std::is_trivially_copyable_v<Body>);
  return {reinterpret_cast<const std::uint8_t*>(&body), sizeof(body)};
}

inline std::span<const std::uint8_t> BytesOf(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// A message that was received.
class ScreenMessageView {
 public:
  // None for what is too short.
  static std::optional<ScreenMessageView> Of(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < sizeof(ScreenMessage)) {
      return std::nullopt;
    }
    ScreenMessageView view;
    std::memcpy(&view.head, bytes.data(), sizeof(view.head));
    view.rest = bytes.subspan(sizeof(view.head));
    return view;
  }
  template <typename Body>
  Body Read() const {
    Body body;
    std::memcpy(&body, rest.data(), std::min(sizeof(body), rest.size()));
    return body;
  }
  std::string Text() const { return {rest.begin(), rest.end()}; }

  ScreenMessage head;
  std::span<const std::uint8_t> rest;  // of the bytes that were received
};

}  // namespace host
