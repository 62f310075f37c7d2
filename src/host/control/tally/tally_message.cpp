#include "host/control/tally/tally_message.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "util/text_codecs.h"

namespace host::control {
namespace {

using Lamp = TallyMessage::Lamp;

constexpr std::uint8_t kDle = 0xFE;
constexpr std::uint8_t kStx = 0x02;
constexpr std::uint8_t kEtx = 0x03;
constexpr std::size_t kOldSize = 18;      // of 3.1: address, control, 16 characters
constexpr std::size_t kPacketHeader = 6;  // of 5.0: length, version, flags, screen
constexpr std::size_t kMessageHeader = 4;
constexpr int kAllDisplays = 0xFFFF;
constexpr std::size_t kMaxTallyText = 256;  // bytes of a label

unsigned Word(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return bytes[offset] + 256U * bytes[offset + 1];
}

Lamp LampOf(unsigned bits) {
  return static_cast<Lamp>(bits & 3U);
}

// Without control characters; blanks at the ends and everything after a NUL are padding. Invalid
// characters are replaced or left out.
std::string TextOf(std::span<const std::uint8_t> bytes, bool isUtf16) {
  const qorp::TextBytes given(bytes.begin(), bytes.end());
  std::vector<std::uint32_t> points = isUtf16 ? qorp::TextParserUTF16LE().Parse(given, true)
                                              : qorp::TextParserUTF8().Parse(given, true);
  points.erase(std::find(points.begin(), points.end(), 0U), points.end());
  std::erase_if(points, [](std::uint32_t point) {
    const bool isControl = point < 0x20 || (point >= 0x7F && point < 0xA0);
    return isControl || (point >= 0xD800 && point < 0xE000) || point > 0x10FFFF || point == 0xFEFF;
  });
  while (!points.empty() && points.back() == ' ') {
    points.pop_back();
  }
  points.erase(points.begin(),
               std::find_if(points.begin(), points.end(), [](auto point) { return point != ' '; }));
  points.resize(std::min(points.size(), kMaxTallyText / 4));
  const qorp::TextBytes text = qorp::TextEmitterUTF8().Emit(points);
  return {text.begin(), text.end()};
}

// 3.1; its brightness, in bits 4 and 5 or 6 and 7, is ignored.
TallyMessage OldMessage(std::span<const std::uint8_t> bytes) {
  TallyMessage message;
  message.display = bytes[0] & 0x7F;
  for (std::size_t bit = 0; bit < message.bits.size(); ++bit) {
    message.bits[bit] = (bytes[1] >> bit & 1) != 0;
  }
  message.text = TextOf(bytes.subspan(2, kOldSize - 2), false);
  return message;
}

bool HasChecksum(std::span<const std::uint8_t> bytes) {
  unsigned sum = 0;
  for (std::size_t i = 0; i < kOldSize; ++i) {
    sum += bytes[i];
  }
  return bytes[kOldSize] == ((0U - sum) & 0x7F);
}

}  // namespace

std::vector<TallyMessage> TallyParser::ReadDatagram(Bytes bytes) {
  std::vector<TallyMessage> messages;
  skipped_ += bytes.size() - Read(bytes, true, messages);
  return messages;
}

std::vector<TallyMessage> TallyParser::ReadStream(Bytes bytes) {
  std::vector<TallyMessage> messages;
  // In pieces, so that the waiting bytes are bounded however much comes at once.
  while (!bytes.empty()) {
    const std::size_t count = std::min(bytes.size(), kMaxPacket);
    waiting_.insert(waiting_.end(), bytes.begin(),
                    bytes.begin() + static_cast<std::ptrdiff_t>(count));
    bytes = bytes.subspan(count);
    const std::size_t used = Read(waiting_, false, messages);
    waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(used));
  }
  return messages;
}

std::size_t TallyParser::Read(Bytes bytes, bool isEnd, std::vector<TallyMessage>& messages) {
  const bool isOld = protocol_ == Protocol::kV31 || protocol_ == Protocol::kV40;
  std::size_t used = 0;
  bool mayBegin = true;  // nothing was skipped just now
  while (used < bytes.size()) {
    const Bytes rest = bytes.subspan(used);
    std::size_t count = 0;
    if (awaitsEnd_ && rest.size() > 1) {
      awaitsEnd_ = false;
      if (rest[0] == kDle && rest[1] == kEtx) {
        used += 2;
        continue;
      }
    }
    if (!isOld && rest[0] == kDle && (rest.size() == 1 || rest[1] == kStx)) {
      count = ReadWrapped(rest, isEnd, messages);
    } else if (!isOld && isEnd && mayBegin && IsBarePacket(rest) && ReadPacket(rest, messages)) {
      count = Word(rest, 0) + 2;
    } else if (protocol_ != Protocol::kV50 && rest[0] >= 0x80) {
      count = ReadOld(rest, isEnd, messages);
    } else {
      mayBegin = false;
      ++skipped_;
      ++used;
      continue;
    }
    if (count == 0) {
      break;
    }
    mayBegin = true;
    used += count;
  }
  return used;
}

// Several messages of 3.1 may look like the beginning of a longer packet.
bool TallyParser::IsBarePacket(Bytes bytes) const {
  return protocol_ == Protocol::kV50 || (bytes.size() > 2 && Word(bytes, 0) + 2 == bytes.size());
}

std::size_t TallyParser::ReadOld(Bytes bytes, bool isEnd, std::vector<TallyMessage>& messages) {
  if (bytes.size() < kOldSize) {
    if (!isEnd || bytes.size() < 2) {
      return 0;
    }
    // A datagram whose text is not padded.
    std::array<std::uint8_t, kOldSize> padded{};
    std::copy(bytes.begin(), bytes.end(), padded.begin());
    messages.push_back(OldMessage(padded));
    return bytes.size();
  }
  // Characters are below 0x80 (except in UTF-8), an address is not.
  TallyMessage message = OldMessage(bytes);
  const bool mayHaveTrailer = protocol_ != Protocol::kV31;
  std::size_t size = kOldSize;
  if (mayHaveTrailer && bytes.size() == kOldSize && !isEnd && protocol_ == Protocol::kV40) {
    return 0;  // its trailer is to come
  }
  if (mayHaveTrailer && bytes.size() > kOldSize && HasChecksum(bytes)) {
    // In a stream of 3.1 nothing is waited for: the next byte is an address.
    const std::size_t count = bytes.size() > kOldSize + 1 ? bytes[kOldSize + 1] & 0x0F : 2;
    const std::size_t whole = kOldSize + 2 + count;
    if (bytes.size() < whole && !isEnd) {
      return 0;
    }
    for (std::size_t i = 0; i < 2 && i < count && kOldSize + 2 + i < bytes.size(); ++i) {
      const unsigned lamps = bytes[kOldSize + 2 + i];
      message.lamps[3 * i] = LampOf(lamps >> 4);
      message.lamps[3 * i + 1] = LampOf(lamps >> 2);
      message.lamps[3 * i + 2] = LampOf(lamps);
      message.hasLamps = true;
    }
    size = std::min(whole, bytes.size());
  }
  messages.push_back(std::move(message));
  return size;
}

std::size_t TallyParser::ReadWrapped(Bytes bytes, bool isEnd, std::vector<TallyMessage>& messages) {
  std::vector<std::uint8_t> packet;
  std::size_t at = 2;
  bool isWhole = false;
  while (at < bytes.size() && !isWhole) {
    if (bytes[at] == kDle && at + 1 == bytes.size() && !isEnd) {
      break;  // the next byte decides
    }
    if (bytes[at] == kDle && at + 1 < bytes.size() && bytes[at + 1] == kDle) {
      packet.push_back(kDle);
      at += 2;
    } else if (bytes[at] == kDle && at + 1 < bytes.size() && bytes[at + 1] == kStx) {
      isWhole = true;  // the next packet begins: this one has no end mark
    } else if (bytes[at] == kDle && at + 1 < bytes.size() && bytes[at + 1] == kEtx) {
      at += 2;
      isWhole = true;
    } else {
      packet.push_back(bytes[at]);
      ++at;
    }
    // The length says where it ends; a mark may follow.
    if (!isWhole && packet.size() >= 2 && packet.size() >= Word(packet, 0) + 2U) {
      isWhole = true;
      awaitsEnd_ = true;
    }
  }
  if (!isWhole && !isEnd && packet.size() <= kMaxPacket) {
    return 0;
  }
  if (ReadPacket(packet, messages)) {
    return at;
  }
  // Display 126 of 3.1 with its second tally looks the same, but has text behind it.
  const bool isText =
      bytes.size() >= kOldSize &&
      std::all_of(bytes.begin() + 2, bytes.begin() + kOldSize,
                  [](std::uint8_t byte) { return byte == 0 || (byte >= 0x20 && byte < 0x7F); });
  if (protocol_ == Protocol::kAuto && isText) {
    return ReadOld(bytes, isEnd, messages);
  }
  at = std::min(at, bytes.size());
  skipped_ += at;
  return at;
}

bool TallyParser::ReadPacket(Bytes packet, std::vector<TallyMessage>& messages) const {
  if (packet.size() < kPacketHeader) {
    return false;
  }
  const std::size_t length = Word(packet, 0);
  if (length < kPacketHeader - 2 || length + 2 > packet.size() || length + 2 > kMaxPacket) {
    return false;
  }
  packet = packet.subspan(0, length + 2);
  const bool isUtf16 = (packet[3] & 1) != 0;
  if ((packet[3] & 2) != 0) {
    return true;  // control data of the screen: none is defined
  }
  std::size_t at = kPacketHeader;
  while (at + kMessageHeader <= packet.size()) {
    TallyMessage message;
    message.screen = static_cast<int>(Word(packet, 4));
    message.display = static_cast<int>(Word(packet, at));
    message.isForAll = message.display == kAllDisplays;
    const unsigned control = Word(packet, at + 2);
    at += kMessageHeader;
    if ((control & 0x8000) != 0) {
      break;  // control data, whose length is not defined
    }
    message.hasLamps = true;
    message.lamps[0] = LampOf(control >> 4);
    message.lamps[1] = LampOf(control >> 2);
    message.lamps[2] = LampOf(control);
    if (at + 2 <= packet.size()) {
      const std::size_t size = std::min<std::size_t>(Word(packet, at), packet.size() - at - 2);
      message.text = TextOf(packet.subspan(at + 2, size), isUtf16);
      at += 2 + size;
    }
    messages.push_back(std::move(message));
  }
  return true;
}

}  // namespace host::control
