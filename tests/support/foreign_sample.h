// A sample of another implementation, whose answers the test chooses.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "platform/baseclasses/media_sample.h"
#include "platform/com/com.h"

namespace fakes {

// Belongs to no allocator. Set its fields while it is not in use.
class ForeignSample final : public CMediaSample {
 public:
  static ComPtr<ForeignSample> Create(std::size_t bytes) {
    auto memory = std::make_unique<std::vector<BYTE>>(bytes);
    BYTE* const data = memory->data();
    return ComPtr<ForeignSample>(
        std::unique_ptr<ForeignSample>(new ForeignSample(std::move(memory), data)).release());
  }

  ULONG AddRef() override { return ++references_; }
  ULONG Release() override {
    const ULONG left = --references_;
    if (left == 0) {
      delete this;
    }
    return left;
  }
  HRESULT GetPointer(BYTE** buffer) override {
    *buffer = hasBuffer ? memory_->data() : nullptr;
    return S_OK;
  }
  LONG GetActualDataLength() override {
    return length.value_or(CMediaSample::GetActualDataLength());
  }
  HRESULT SetActualDataLength(LONG bytes) override {
    length = bytes;
    return S_OK;
  }
  HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) override {
    return Answer(time, [&] { return CMediaSample::GetTime(start, stop); });
  }
  HRESULT GetMediaTime(LONGLONG* start, LONGLONG* stop) override {
    return Answer(mediaTime, [&] { return CMediaSample::GetMediaTime(start, stop); });
  }
  HRESULT IsPreroll() override {
    return Answer(preroll, [&] { return CMediaSample::IsPreroll(); });
  }
  HRESULT GetMediaType(AM_MEDIA_TYPE** type) override {
    *type = nullptr;
    return Answer(mediaType, [&] { return CMediaSample::GetMediaType(type); });
  }
  HRESULT GetProperties(DWORD size, BYTE* properties) override {
    return Answer(allProperties, [&] { return CMediaSample::GetProperties(size, properties); });
  }

  bool hasBuffer = true;       // GetPointer hands it out
  std::optional<LONG> length;  // claimed, whatever the size of the buffer
  // Results that are returned without doing anything.
  std::optional<HRESULT> time, mediaTime, preroll, mediaType, allProperties;
  std::function<void()> onRead;  // called before times and types are read

 private:
  ForeignSample(std::unique_ptr<std::vector<BYTE>> memory, BYTE* data)
      : CMediaSample("foreign", nullptr, nullptr, data, static_cast<LONG>(memory->size())),
        memory_(std::move(memory)) {}

  template <typename Truth>
  HRESULT Answer(const std::optional<HRESULT>& answer, const Truth& truth) const {
    if (onRead) {
      onRead();
    }
    return answer.has_value() ? *answer : truth();
  }

  const std::unique_ptr<std::vector<BYTE>> memory_;
  std::atomic<ULONG> references_{0};
};

}  // namespace fakes
