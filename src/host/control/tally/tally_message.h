// TallyMessage: what a switcher or controller says about one display (TSL UMD 3.1, 4.0 and 5.0).
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

// Cuts a stream, or single datagrams, into messages and reads them. What cannot be read is skipped
// and counted; a message that is not whole yet waits for its rest. Of 3.1 and 4.0, which have no
// marks, the next message begins at a byte from 0x80 on; 5.0 comes over TCP between DLE STX and
// perhaps DLE ETX with every DLE doubled, over UDP bare or likewise. One thread.
class TallyParser {
 public:
  using Protocol = config::TallyOptions::Protocol;

  static constexpr std::size_t kMaxPacket = 2048;  // bytes of one packet of 5.0, as it defines it

  explicit TallyParser(Protocol protocol) : protocol_(protocol) {}

  // A datagram holds whole messages.
  std::vector<TallyMessage> ReadDatagram(std::span<const std::uint8_t> bytes);
  // What came next of a stream.
  std::vector<TallyMessage> ReadStream(std::span<const std::uint8_t> bytes);
  // Bytes that belong to no message.
  std::uint64_t skipped() const { return skipped_; }

 private:
  using Bytes = std::span<const std::uint8_t>;

  // Reads what is whole; returns how much was used. isEnd: nothing follows.
  std::size_t Read(Bytes bytes, bool isEnd, std::vector<TallyMessage>& messages);
  std::size_t ReadOld(Bytes bytes, bool isEnd, std::vector<TallyMessage>& messages);
  std::size_t ReadWrapped(Bytes bytes, bool isEnd, std::vector<TallyMessage>& messages);
  bool IsBarePacket(Bytes bytes) const;
  // False when it is no packet of 5.0.
  bool ReadPacket(Bytes packet, std::vector<TallyMessage>& messages) const;

  const Protocol protocol_;
  std::vector<std::uint8_t> waiting_;  // of a stream
  bool awaitsEnd_ = false;  // a packet's end mark may come, which its length makes needless
  std::uint64_t skipped_ = 0;
};

}  // namespace host::control
