// The filters around a composer that is fuzzed: upstream pins that connect with any type, and sinks
// that count.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>

#include "fuzz/check.h"
#include "log/i_log_perf.h"
#include "platform/baseclasses/base_pin.h"

namespace fuzz {

// Formats every message, which reads the arguments of the composer, and keeps none.
class QuietLogger final : public qorp::log::ILogPerf {
 public:
  [[gnu::format(printf, 3, 4)]] void log(std::int32_t level, const char* format, ...) override {
    FUZZ_CHECK(level >= 0 && level <= 3);
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
  }
  void WriteReport() override {}
  void IncrementResync() override {}
  void IncrementTsDiscontinuity() override {}
  void IncrementDecodedPictures() override {}
  void AddPoliticChoices(std::int32_t) override {}
  void RegisterPin(const char*) override {}
  void NotifyBufferFull(const char*) override {}
};

// An output pin that agrees to every type and asks for `wanted` of its allocator.
class UpstreamPin final : public CBaseOutputPin {
 public:
  UpstreamPin(CBaseFilter* filter, CCritSec* lock)
      : CBaseOutputPin("upstream", filter, lock, nullptr, u"Output") {}
  ~UpstreamPin() override { ReleasePeer(); }
  HRESULT CheckMediaType(const CMediaType*) override { return S_OK; }
  HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) override {
    *request = wanted;
    ALLOCATOR_PROPERTIES actual{};
    return allocator->SetProperties(request, &actual);
  }

  ALLOCATOR_PROPERTIES wanted{2, 64, 1, 0};
};

class SinkPin final : public CBaseInputPin {
 public:
  SinkPin(CBaseFilter* filter, CCritSec* lock)
      : CBaseInputPin("sink", filter, lock, nullptr, u"Input") {}
  HRESULT CheckMediaType(const CMediaType*) override { return S_OK; }
  HRESULT Receive(IMediaSample*) override {
    ++received;
    return answer;
  }

  std::atomic<int> received{0};
  std::atomic<HRESULT> answer{S_OK};
};

// A filter around one pin, always stopped.
template <typename Pin>
class OnePinFilter final : public CBaseFilter {
 public:
  static ComPtr<OnePinFilter> Create() {
    return ComPtr<OnePinFilter>(std::make_unique<OnePinFilter>().release());
  }
  OnePinFilter() : CBaseFilter("one pin", nullptr, &lock_, CLSID_NULL), pin(this, &lock_) {}
  int GetPinCount() override { return 1; }
  CBasePin* GetPin(int position) override { return position == 0 ? &pin : nullptr; }

 private:
  CCritSec lock_;

 public:
  Pin pin;
};

}  // namespace fuzz
