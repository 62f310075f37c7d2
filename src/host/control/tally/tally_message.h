// TallyMessage: a message of a switcher or controller about one display (TSL UMD 3.1, 4.0, 5.0).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/config/wall.h"

namespace host::control {

struct TallyMessage {
  enum class Lamp { kOff, kRed, kGreen, kAmber };

  int display = 0;              // 3.1, 4.0: 0 to 126; 5.0: 0 to 65534
  int screen = 0;               // 5.0
  bool isForAll = false;        // 5.0: every display of the screen
  std::array<bool, 4> bits{};   // tally 1 to 4 of 3.1 and 4.0
  std::array<Lamp, 6> lamps{};  // left, text, right; 4.0: and those of its second display
  bool hasLamps = false;        // 4.0, 5.0
  std::string text;             // UTF-8, without padding and control characters
  bool operator==(const TallyMessage&) const = default;
};

// Splits a stream, or single datagrams, into messages and parses them. Invalid bytes are skipped
// and counted; an incomplete message waits for its rest. 3.1 and 4.0 have no delimiters: a message
// begins at a byte from 0x80 on. 5.0 comes over TCP after DLE STX, perhaps with DLE ETX at its end,
// and with every DLE doubled; over UDP in that form or bare. One thread.
class TallyParser {
 public:
  using Protocol = config::TallyOptions::Protocol;

  static constexpr std::size_t kMaxPacket = 2048;  // bytes of one packet of 5.0, as it defines it

  explicit TallyParser(Protocol protocol) : protocol_(protocol) {}

  // A datagram holds whole messages.
  std::vector<TallyMessage> ReadDatagram(std::span<const std::uint8_t> bytes);
  // The next bytes of a stream.
  std::vector<TallyMessage> ReadStream(std::span<const std::uint8_t> bytes);
  // Bytes that belong to no message.
  std::uint64_t skipped() const { return skipped_; }

 private:
  using Bytes = std::span<const std::uint8_t>;

  // Reads the complete messages; returns how many bytes were used. isEnd: nothing follows.
  std::size_t Read(Bytes bytes, bool isEnd, std::vector<TallyMessage>& messages);
  std::size_t ReadOld(Bytes bytes, bool isEnd, std::vector<TallyMessage>& messages);
  std::size_t ReadWrapped(Bytes bytes, bool isEnd, std::vector<TallyMessage>& messages);
  bool IsBarePacket(Bytes bytes) const;
  // False when it is not a packet of 5.0.
  bool ReadPacket(Bytes packet, std::vector<TallyMessage>& messages) const;

  const Protocol protocol_;
  std::vector<std::uint8_t> waiting_;  // of a stream
  bool awaitsEnd_ = false;  // the end mark of a packet that is complete by its length may follow
  std::uint64_t skipped_ = 0;
};

}  // namespace host::control
