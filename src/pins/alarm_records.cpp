#include "pins/alarm_records.h"

#include <span>

#include "util/exceptions.h"

namespace {

// Payload of a sample, at least `minimum` bytes long and no longer than its buffer.
std::span<const BYTE> Payload(IMediaSample* sample, LONG minimum) {
  BYTE* bytes = nullptr;
  ThrowIfFailed(sample->GetPointer(&bytes));
  const LONG length = sample->GetActualDataLength();
  if (length < minimum || length > sample->GetSize()) {
    throw kInvalidSampleSize;
  }
  ThrowIfFailed(bytes != nullptr || length == 0 ? S_OK : E_POINTER);
  return {bytes, static_cast<std::size_t>(length)};
}

std::int32_t BigEndian32(const BYTE* bytes) {
  return static_cast<std::int32_t>(std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
                                   std::uint32_t{bytes[2]} << 8 | std::uint32_t{bytes[3]});
}

}  // namespace

void ParseRecord(IMediaSample* sample, UTF8TextSampleType* text) {
  const std::span<const BYTE> bytes = Payload(sample, 0);
  text->assign(bytes.begin(), bytes.end());
}

void ParseRecord(IMediaSample* sample, AudioAlarm* record) {
  const std::span<const BYTE> bytes = Payload(sample, AudioAlarm::kWireBytes);
  record->alarmEnabled = bytes[0];
  record->alarmCondition1 = bytes[1];
  record->alarmCondition2 = bytes[2];
  record->metersEnabled = bytes[3];
  record->channelCount = static_cast<std::int8_t>(bytes[4]);
  const BYTE* value = &bytes[5];
  for (auto* const values : {&record->levels, &record->peaks}) {
    for (std::int32_t& entry : *values) {
      entry = BigEndian32(value);
      value += 4;
    }
  }
}

void ParseRecord(IMediaSample* sample, VideoAlarm* record) {
  const std::span<const BYTE> bytes = Payload(sample, VideoAlarm::kWireBytes);
  record->alarm = bytes[0];
  record->extra = bytes[1];
}
