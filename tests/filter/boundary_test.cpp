// What crosses the COM boundary when memory is exhausted or the system refuses something: result
// codes only.
#include <array>
#include <functional>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "platform/baseclasses/class_factory.h"
#include "platform/os/thread.h"
#include "tests/support/allocation_count.h"
#include "tests/support/composer_fixture.h"
#include "util/reference_clock.h"

namespace {

constexpr HRESULT kTooManyOpenFiles = MakeHresult(0x80070004);
constexpr CFactoryTemplate kComposer{u"Tavrel Composer", &CLSID_TavrelComposer,
                                     &CCompose::CreateInstance, nullptr, nullptr};

// While it exists, the system refuses kernel objects and threads, which need a descriptor, and
// waits for more objects than the limit.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t descriptors) {
    ::getrlimit(RLIMIT_NOFILE, &former_);
    const rlimit limit{descriptors, former_.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
  ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &former_); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  rlimit former_{};
};

class BoundaryTest : public ComposerFixture {
 protected:
  // Calls with each allocation failing in turn, then with none: nothing is thrown, and the last
  // call succeeds.
  static void Survives(
      const char* what, const std::function<HRESULT()>& call,
      const std::function<void()>& undo = [] {}) {
    bool hasFailed = true;
    for (std::uint64_t spared = 0; hasFailed; ++spared) {
      ASSERT_LT(spared, 5000U) << what << " allocates without end";
      HRESULT hr = E_UNEXPECTED;
      try {
        const support::FailingAllocation failing(spared);
        hr = call();
        hasFailed = failing.HasFailed();
      } catch (...) {
        FAIL() << what << " throws when allocation " << spared << " fails";
      }
      EXPECT_TRUE(hasFailed || SUCCEEDED(hr)) << what << " is not usable any more";
      undo();
    }
  }
};

TEST_F(BoundaryTest, ExhaustedMemoryIsAResultCode) {
  Make(1);
  const ComPtr<fakes::Sink> other = fakes::Sink::Create();
  Survives(
      "AddFilter", [&] { return graph_->AddFilter(other.Get(), u"sink"); },
      [&] { graph_->RemoveFilter(other.Get()); });
  ComPtr<IEnumFilters> filters;
  Survives("EnumFilters", [&] { return graph_->EnumFilters(filters.Put()); });
  Survives("Clone", [&] {
    ComPtr<IEnumFilters> copy;
    return filters->Clone(copy.Put());
  });
  filters.Reset();
  Survives("Notify", [&] { return graph_->Notify(EC_USER, 0, 0); });

  background_->pin.types = {fakes::Yv12Type(kWidth, kHeight, kFrame)};
  background_->pin.wanted = {80, static_cast<LONG>(PictureBytes(kWidth, kHeight)), 32, 0};
  const auto connects = [&](const char* what, IPin* output, IPin* input) {
    const auto disconnect = [&] {
      graph_->Disconnect(output);
      graph_->Disconnect(input);
    };
    Survives(
        what, [&] { return graph_->ConnectDirect(output, input, nullptr); }, disconnect);
    ASSERT_EQ(graph_->ConnectDirect(output, input, nullptr), S_OK);
  };
  connects("the background", &background_->pin, composer_->GetPin(0));
  connects("the output", composer_->GetPin(1), &sink_->pin);
  ConnectWindow(0, 16, 16);
  for (const int position : {PositionOfText(0), PositionOfAudioAlarm(0), PositionOfVideoAlarm(0)}) {
    ConnectSide(position);
  }
  const ComPtr<fakes::Source> audio = ConnectSide(3, fakes::AudioType(MEDIASUBTYPE_DOLBY_AC3));
  const ComPtr<fakes::Sink> audioSink = fakes::Sink::Create();
  graph_->AddFilter(audioSink.Get(), u"audio sink");
  connects("the audio", composer_->GetPin(5), &audioSink->pin);
  Survives("Configure", [&] {
    return composer_->Configure(1, &logger_, kWidth, kHeight, 4, 3, 0, {25, 1});
  });
  Survives("AddInput", [&] { return composer_->AddInput(1, nullptr); });
  Survives(
      "Run", [&] { return graph_->Run(0); }, [&] { graph_->Stop(); });
  ASSERT_EQ(graph_->Run(0), S_OK);
  Survives(
      "Pause", [&] { return graph_->Pause(); }, [&] { graph_->Run(0); });

  std::vector<fakes::Source*> senders{background_.Get(), sources_[0].Get()};
  for (const ComPtr<fakes::Source>& side : sides_) {
    senders.push_back(side.Get());
  }
  for (fakes::Source* const sender : senders) {
    const ComPtr<IMediaSample> sample = sender->NewSample(0, 1);
    Survives("Receive", [&] { return sender->Send(sample.Get()); });
  }
  Survives("EnumMediaTypes", [&] {
    ComPtr<IEnumMediaTypes> types;
    AM_MEDIA_TYPE* type = nullptr;
    const HRESULT hr = composer_->GetPin(1)->EnumMediaTypes(types.Put());
    const HRESULT next = SUCCEEDED(hr) ? types->Next(1, &type, nullptr) : hr;
    DeleteMediaType(type);
    return next;
  });
  Survives("Stop", [&] { return graph_->Stop(); });
  audioSink->Forget();
}

TEST_F(BoundaryTest, AnAllocatorThatRanOutOfMemoryIsUsable) {
  const ComPtr<IMemAllocator> allocator = CMemAllocator::Create();
  ALLOCATOR_PROPERTIES request{3, 100, 1, 0};
  ALLOCATOR_PROPERTIES actual{};
  ASSERT_EQ(allocator->SetProperties(&request, &actual), S_OK);
  const auto freeCount = [&] {
    return static_cast<CMemAllocator*>(allocator.Get())->GetFreeCount();
  };
  Survives("Commit", [&] {
    const HRESULT hr = allocator->Commit();
    EXPECT_EQ(freeCount(), SUCCEEDED(hr) ? 3 : 0);
    return hr;
  });
  std::array<ComPtr<IMediaSample>, 3> samples;
  for (ComPtr<IMediaSample>& sample : samples) {
    ASSERT_EQ(allocator->GetBuffer(sample.Put(), nullptr, nullptr, AM_GBF_NOWAIT), S_OK);
    std::fill_n(Pixels(sample.Get()), sample->GetSize(), BYTE{1});
  }
}

// The sanitizer opens descriptors itself to check the types of objects, and ends the program when
// it gets none.
#ifndef __SANITIZE_ADDRESS__

TEST_F(BoundaryTest, ARefusedThreadOrKernelObjectIsAResultCode) {
  Make(0);
  const ComPtr<IReferenceClock> clock = qorp::ReferenceClock::Create(false);
  ComPtr<IClassFactory> factory;
  ASSERT_EQ(CreateClassFactory(kComposer, IID_IClassFactory, factory.PutVoid()), S_OK);
  os::Event event(os::Event::Reset::kAuto);
  DWORD_PTR cookie = 0;
  const auto configure = [&] {
    return composer_->Configure(0, &logger_, kWidth, kHeight, 4, 3, 0, {25, 1});
  };
  {
    const DescriptorLimit none(0);
    EXPECT_EQ(configure(), kTooManyOpenFiles);
    EXPECT_EQ(clock->AdviseTime(1, 0, &event, &cookie), kTooManyOpenFiles);
    EXPECT_EQ(cookie, 0U);
    ComPtr<IBaseFilter> made;
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_IBaseFilter, made.PutVoid()), kTooManyOpenFiles);
  }
  EXPECT_EQ(configure(), S_OK);
  ASSERT_EQ(clock->AdviseTime(1, 0, &event, &cookie), S_OK);
  EXPECT_TRUE(event.Wait(10000));
  EXPECT_FALSE(event.Wait(0)) << "the refused advise has left something behind";
  ConnectBackground();
  ConnectSink();
  ASSERT_EQ(graph_->Run(0), S_OK);
  EXPECT_TRUE(Compose(0));
}

// Three handles are more than the system can wait for; the fixture checks that everything has
// ended.
TEST_F(BoundaryTest, AFilterEndsItsThreadsThoughNotAllCanBeWaitedForTogether) {
  Make(0);
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(composer_->Configure(0, &logger_, kWidth, kHeight, 4, 3, 0, {25, 1}), S_OK);
  }
  graph_->RemoveFilter(filter_.Get());
  const DescriptorLimit two(2);
  filter_.Reset();
}

#endif  // __SANITIZE_ADDRESS__

TEST_F(BoundaryTest, AGraphRefusesACircle) {
  Make(0);
  EXPECT_EQ(graph_->ConnectDirect(composer_->GetPin(1), composer_->GetPin(0), nullptr),
            MakeHresult(0x80040231));
}

}  // namespace
