#include "media/dynamic_pins.h"

#include <chrono>
#include <future>
#include <mutex>
#include <new>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/dshow/vfw_errors.h"
#include "tests/support/fake_filters.h"
#include "tests/support/foreign_sample.h"
#include "util/exceptions.h"

namespace {

using fakes::Sink;
using fakes::Source;
using fakes::TypeOf;
using testing::ElementsAre;

constexpr CLSID kClass{7, 7, 7, {7, 7, 7, 7, 7, 7, 7, 7}};

// An input pin that records its steps.
class WatchedPin final : public CInputPinWithDynamicMediaType {
 public:
  WatchedPin(CBaseFilter* filter, CCritSec* lock)
      : CInputPinWithDynamicMediaType("watched", filter, lock, nullptr, u"In") {}

  HRESULT CheckMediaType(const CMediaType* type) override { return accepts(*type); }
  HRESULT SetMediaType(const CMediaType* type) override {
    Note("type");
    const HRESULT hr = CInputPinWithDynamicMediaType::SetMediaType(type);
    Meanwhile();
    return hr;
  }
  HRESULT ConnectionMediaType(AM_MEDIA_TYPE* type) override {
    const HRESULT hr = CInputPinWithDynamicMediaType::ConnectionMediaType(type);
    Meanwhile();
    return hr;
  }
  HRESULT CompleteConnect(IPin* pin) override {
    Note("connect");
    return CInputPinWithDynamicMediaType::CompleteConnect(pin);
  }
  HRESULT OnReconnect(IPin* pin) override {
    Note("reconnect");
    return CInputPinWithDynamicMediaType::OnReconnect(pin);
  }
  HRESULT OnReceive(IMediaSample* sample) override {
    Note("sample");
    received = ComPtr<IMediaSample>(sample);
    return onReceive();
  }

  HRESULT GetAllocatorRequirements(ALLOCATOR_PROPERTIES* properties) override {
    *properties = requirements;
    return S_OK;
  }

  ALLOCATOR_PROPERTIES requirements{};
  std::function<HRESULT(const CMediaType&)> accepts = [](const CMediaType&) { return S_OK; };
  std::function<HRESULT()> onReceive = [] { return S_OK; };
  std::function<void()> meanwhile;  // done once, when the type has been set or read
  std::vector<std::string> steps;
  ComPtr<IMediaSample> received;

 private:
  // A connection may be made while a sample is received.
  void Note(const char* step) {
    const std::lock_guard guard(stepsLock_);
    steps.emplace_back(step);
  }
  void Meanwhile() {
    if (const std::function<void()> act = std::exchange(meanwhile, nullptr)) {
      act();
    }
  }

  std::mutex stepsLock_;
};

template <typename Pin>
class FilterWith final : public CBaseFilter {
 public:
  FilterWith() : CBaseFilter("filter", nullptr, &lock_, kClass), pin(this, &lock_) {}
  int GetPinCount() override { return 1; }
  CBasePin* GetPin(int position) override { return position == 0 ? &pin : nullptr; }

 private:
  CCritSec lock_;

 public:
  Pin pin;
};

class DynamicInputPinTest : public testing::Test {
 protected:
  void SetUp() override {
    source_->pin.types = {small_, large_};
    ASSERT_EQ(source_->pin.Connect(&filter_->pin, nullptr), S_OK);
    filter_->pin.steps.clear();
  }
  void TearDown() override {
    filter_->pin.received.Reset();
    for (const ComPtr<Source>& source : {source_, other_}) {
      source->pin.SetReconnectWhenActive(true);
      source->pin.Disconnect();
    }
    filter_->Stop();
    filter_->pin.Disconnect();
  }
  WatchedPin& pin() { return filter_->pin; }

  const CMediaType small_ = fakes::Yv12Type(16, 16);
  const CMediaType large_ = fakes::Yv12Type(32, 32);
  ComPtr<Source> source_ = Source::Create();
  ComPtr<Source> other_ = Source::Create();
  ComPtr<FilterWith<WatchedPin>> filter_{new FilterWith<WatchedPin>};
};

TEST_F(DynamicInputPinTest, ATypeIsAnnouncedByTheFirstSampleAfterItOnly) {
  const ComPtr<IMediaSample> first = source_->NewSample(0, 1);
  ASSERT_EQ(source_->Send(first.Get()), S_OK);
  EXPECT_TRUE(TypeOf(pin().received.Get()) == small_);
  EXPECT_FALSE(TypeOf(first.Get()).IsValid()) << "the upstream sample is left as it was";
  const ComPtr<IMediaSample> second = source_->NewSample(1, 2);
  ASSERT_EQ(source_->Send(second.Get()), S_OK);
  EXPECT_EQ(pin().received, second) << "handed on as it is";
  pin().steps.clear();
  CMediaType type = large_;
  second->SetMediaType(&type);
  ASSERT_EQ(source_->Send(second.Get()), S_OK);
  EXPECT_THAT(pin().steps, ElementsAre("type", "sample"));
  EXPECT_EQ(pin().received, second);
  CMediaType now;
  pin().ConnectionMediaType(&now);
  EXPECT_TRUE(now == large_);
  // The same pin reconnects while the graph runs.
  ASSERT_EQ(filter_->Run(0), S_OK);
  pin().steps.clear();
  ASSERT_EQ(pin().ReceiveConnection(&source_->pin, &small_), S_OK);
  EXPECT_THAT(pin().steps, ElementsAre("type", "reconnect"));
  ASSERT_EQ(source_->Send(first.Get()), S_OK);
  EXPECT_TRUE(TypeOf(pin().received.Get()) == small_) << "the next sample announces the new type";
}

TEST_F(DynamicInputPinTest, AConnectionMadeWhileASampleIsReceivedIsNotLost) {
  for (const bool bringsType : {false, true}) {
    // Tries to connect before the flag of a pending type is read.
    std::future<HRESULT> connecting;
    pin().meanwhile = [&] {
      connecting = std::async(std::launch::async,
                              [&] { return pin().ReceiveConnection(&source_->pin, &large_); });
      connecting.wait_for(std::chrono::milliseconds(100));
    };
    const ComPtr<IMediaSample> sample = source_->NewSample(0, 1);
    CMediaType type = small_;
    sample->SetMediaType(bringsType ? &type : nullptr);
    ASSERT_EQ(source_->Send(sample.Get()), S_OK);
    ASSERT_EQ(connecting.get(), S_OK);
    ASSERT_EQ(source_->Send(source_->NewSample(1, 2).Get()), S_OK);
    EXPECT_TRUE(TypeOf(pin().received.Get()) == large_) << bringsType;
    ASSERT_EQ(pin().ReceiveConnection(&source_->pin, &small_), S_OK);
  }
}

TEST_F(DynamicInputPinTest, AnswersFailuresWithResultCodesAndKeepsTheTypeForTheNext) {
  const ComPtr<fakes::ForeignSample> timeless = fakes::ForeignSample::Create(4);
  timeless->time = E_UNEXPECTED;
  EXPECT_EQ(source_->Send(timeless.Get()), E_UNEXPECTED);
  ASSERT_EQ(source_->Send(source_->NewSample(1, 2).Get()), S_OK);
  EXPECT_TRUE(TypeOf(pin().received.Get()) == small_);
  pin().onReceive = []() -> HRESULT { throw COMException(VFW_E_SAMPLE_TIME_NOT_SET); };
  EXPECT_EQ(source_->Send(source_->NewSample(0, 1).Get()), VFW_E_SAMPLE_TIME_NOT_SET);
  pin().onReceive = []() -> HRESULT { throw std::bad_alloc(); };
  EXPECT_EQ(source_->Send(source_->NewSample(0, 1).Get()), E_FAIL);
}

TEST_F(DynamicInputPinTest, AnotherPinTakesTheConnectionOverUnlessItsTypeIsRefused) {
  EXPECT_EQ(pin().ReceiveConnection(nullptr, &large_), E_POINTER);
  EXPECT_EQ(pin().ReceiveConnection(&other_->pin, nullptr), E_POINTER);
  EXPECT_EQ(pin().ReceiveConnection(&pin(), &large_), VFW_E_INVALID_DIRECTION);
  for (const auto& [refusal, answer] : {std::pair(S_FALSE, VFW_E_TYPE_NOT_ACCEPTED),
                                        {E_FAIL, VFW_E_TYPE_NOT_ACCEPTED},
                                        {E_INVALIDARG, VFW_E_TYPE_NOT_ACCEPTED},
                                        {E_OUTOFMEMORY, E_OUTOFMEMORY}}) {
    pin().accepts = [&, given = refusal](const CMediaType&) { return given; };
    EXPECT_EQ(pin().ReceiveConnection(&other_->pin, &large_), answer);
  }
  pin().accepts = [](const CMediaType&) { return S_OK; };
  ASSERT_EQ(pin().ReceiveConnection(&other_->pin, &large_), S_OK);
  EXPECT_THAT(pin().steps, ElementsAre("type", "connect"));
  ComPtr<IPin> peer;
  ASSERT_EQ(pin().ConnectedTo(peer.Put()), S_OK);
  EXPECT_EQ(peer.Get(), static_cast<IPin*>(&other_->pin));
}

TEST_F(DynamicInputPinTest, ChecksWhatAnAllocatorOffers) {
  ALLOCATOR_PROPERTIES offered{4, 100, 1, 0};
  ALLOCATOR_PROPERTIES actual{};
  const ComPtr<IMemAllocator> allocator = CMemAllocator::Create();
  allocator->SetProperties(&offered, &actual);
  for (const auto& [buffers, bytes, answer] :
       {std::tuple<LONG, LONG, HRESULT>{4, 100, S_OK}, {5, 100, E_FAIL}, {4, 101, E_FAIL}}) {
    pin().requirements = {buffers, bytes, 1, 0};
    EXPECT_EQ(pin().NotifyAllocator(allocator.Get(), FALSE), answer);
  }
}

class ChangingPin final : public COutputPinWithDynamicMediaType {
 public:
  ChangingPin(CBaseFilter* filter, CCritSec* lock)
      : COutputPinWithDynamicMediaType("changing", filter, lock, nullptr, u"Out") {}
  HRESULT CheckMediaType(const CMediaType*) override { return S_OK; }
  HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) override {
    request->cBuffers = 2;
    request->cbBuffer = 64;
    ALLOCATOR_PROPERTIES actual{};
    return allocator->SetProperties(request, &actual);
  }
};

TEST(DynamicOutputPin, MarksTheFirstSampleOfAConnectionAndOfAChange) {
  const CMediaType small = fakes::Yv12Type(16, 16);
  const CMediaType large = fakes::Yv12Type(32, 32);
  const ComPtr<FilterWith<ChangingPin>> filter(new FilterWith<ChangingPin>);
  const ComPtr<Sink> sink = Sink::Create();
  ASSERT_EQ(filter->pin.Connect(&sink->pin, &small), S_OK);
  ASSERT_EQ(sink->Run(0), S_OK);
  ASSERT_EQ(filter->Run(0), S_OK);
  const auto sendAndGetType = [&] {
    ComPtr<IMediaSample> sample;
    EXPECT_EQ(filter->pin.GetDeliveryBuffer(sample.Put(), nullptr, nullptr, AM_GBF_NOWAIT), S_OK);
    EXPECT_EQ(filter->pin.Deliver(sample.Get()), S_OK);
    sample.Reset();
    const CMediaType type = TypeOf(sink->Samples().back().Get());
    sink->Forget();
    return type;
  };
  EXPECT_TRUE(sendAndGetType() == small);
  EXPECT_FALSE(sendAndGetType().IsValid());
  ASSERT_EQ(filter->pin.ChangeMediaType(large, false), S_OK);
  const ComPtr<fakes::ForeignSample> timeless = fakes::ForeignSample::Create(4);
  timeless->time = E_UNEXPECTED;
  EXPECT_EQ(filter->pin.Deliver(timeless.Get()), E_UNEXPECTED);
  EXPECT_TRUE(sendAndGetType() == large);
  EXPECT_FALSE(sendAndGetType().IsValid());
  ASSERT_EQ(filter->pin.ChangeMediaType(large, false), S_OK) << "nothing changes";
  sink->pin.accepts = [](const CMediaType&) { return S_FALSE; };
  EXPECT_EQ(filter->pin.ChangeMediaType(small, false), VFW_E_TYPE_NOT_ACCEPTED);
  EXPECT_FALSE(sendAndGetType().IsValid());
  filter->Stop();
  sink->Stop();
  filter->pin.Disconnect();
  sink->pin.Disconnect();
}

}  // namespace
