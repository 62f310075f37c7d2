// Any payload on a side stream: a record or a refusal, never a read beyond the payload.

#include <algorithm>
#include <cstdint>

#include "fuzz/check.h"
#include "pins/alarm_pins.h"
#include "platform/baseclasses/media_sample.h"

namespace {

// A sample whose buffer ends with its payload, so that the address sanitizer sees every read too
// far.
ComPtr<IMediaSample> SampleOf(const std::uint8_t* data, std::size_t size) {
  const ComPtr<IMemAllocator> allocator = CMemAllocator::Create();
  ALLOCATOR_PROPERTIES request{1, static_cast<LONG>(size == 0 ? 1 : size), 1, 0};
  ALLOCATOR_PROPERTIES actual{};
  FUZZ_CHECK(allocator->SetProperties(&request, &actual) == S_OK);
  FUZZ_CHECK(allocator->Commit() == S_OK);
  ComPtr<IMediaSample> sample;
  FUZZ_CHECK(allocator->GetBuffer(sample.Put(), nullptr, nullptr, 0) == S_OK);
  BYTE* buffer = nullptr;
  sample->GetPointer(&buffer);
  std::copy_n(data, size, buffer);
  sample->SetActualDataLength(static_cast<LONG>(size));
  return sample;
}

template <typename Record>
bool Parses(IMediaSample* sample, Record* record) {
  try {
    ParseRecord(sample, record);
    return true;
  } catch (const char*) {
    return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 100000) {
    return 0;
  }
  const ComPtr<IMediaSample> sample = SampleOf(data, size);
  UTF8TextSampleType text;
  FUZZ_CHECK(Parses(sample.Get(), &text));
  FUZZ_CHECK(text.size() == size && std::equal(text.begin(), text.end(), data));
  AudioAlarm audio;
  FUZZ_CHECK(Parses(sample.Get(), &audio) == (size >= 85));
  if (size >= 85) {
    FUZZ_CHECK(audio.alarmEnabled == data[0]);
    FUZZ_CHECK((static_cast<std::uint32_t>(audio.peaks[9]) & 0xFF) == data[84]);
  }
  VideoAlarm video;
  FUZZ_CHECK(Parses(sample.Get(), &video) == (size >= 2));
  return 0;
}
