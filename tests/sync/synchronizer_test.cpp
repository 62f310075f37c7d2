#include "sync/synchronizer.h"

#include <limits>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "platform/dshow/vfw_errors.h"
#include "platform/graph/filter_graph.h"
#include "tests/support/fake_filters.h"

namespace {

constexpr std::uint64_t kVideoClock = 90000;
constexpr std::uint64_t kVideoWrap = std::uint64_t{1} << 33;

TEST(Synchronizer, CountsFromItsReferenceBothWaysAndKeepsItOverAReset) {
  CSynchronizer sync(kVideoClock, kVideoWrap);
  EXPECT_FALSE(sync.IsSynchronized());
  EXPECT_EQ(sync.wrapTime(), 954437176889U);
  sync.SetReference(1000, 5000000);
  EXPECT_TRUE(sync.IsSynchronized());
  EXPECT_EQ(sync.ToReferenceTime(1090), 5010000);
  // 1 tick is 111.1 units; 5 are 555.6.
  EXPECT_EQ(sync.ToReferenceTime(1005), 5000556);
  EXPECT_EQ(sync.ToReferenceTime(995), 4999444);
  sync.ResetReference();
  EXPECT_FALSE(sync.IsSynchronized());
  EXPECT_EQ(sync.ToReferenceTime(1090), 5010000);
}

TEST(Synchronizer, RoundsHalvesAwayFromZeroAndGoesTheShorterWayRound) {
  CSynchronizer half(20'000'000, 1001);  // a tick is half a unit
  EXPECT_EQ(half.wrapTime(), 501U);
  half.SetReference(500, 100);
  EXPECT_EQ(half.ToReferenceTime(501), 101);
  EXPECT_EQ(half.ToReferenceTime(499), 99);
  EXPECT_THROW(CSynchronizer(0, 1000), std::invalid_argument);

  CSynchronizer clock(10'000'000, 1000);
  clock.SetReference(0, 5000);
  EXPECT_EQ(clock.ToReferenceTime(500), 5500) << "just as far both ways: forward";
  EXPECT_EQ(clock.ToReferenceTime(501), 4501);
  clock.SetReference(990, 5);
  EXPECT_EQ(clock.ToReferenceTime(0), 15);
  EXPECT_EQ(clock.ToReferenceTime(980), 995) << "before stream time 0: the next round";
}

TEST(Synchronizer, CarriesProductsThatNeedMoreThanSixtyFourBits) {
  // A prime rate reduces nothing: a quarter of the round times 10^7 is far beyond 2^64.
  constexpr std::uint64_t kRate = 999'999'937;
  constexpr std::uint64_t kRound = kRate * 4'000'000'000;
  CSynchronizer sync(kRate, kRound);
  EXPECT_EQ(sync.wrapTime(), 40'000'000'000'000'000U);
  sync.SetReference(0, 0);
  EXPECT_EQ(sync.ToReferenceTime(kRound / 4), 10'000'000'000'000'000);
  // A counter of full 64 bits, whose modulus does not fit.
  CSynchronizer full(10'000'000, 0);
  full.SetReference(std::numeric_limits<std::uint64_t>::max() - 9, 1000);
  EXPECT_EQ(full.ToReferenceTime(10), 1020);
}

class SyncFilter : public CBaseFilter {
 public:
  SyncFilter() : CBaseFilter("sync", nullptr, &lock, CLSID_NULL) {}
  int GetPinCount() override { return 1; }
  CBasePin* GetPin(int position) override { return position == 0 ? &pin : nullptr; }

  CCritSec lock;
  HRESULT hr = S_OK;
  CSyncInputPin pin{"sync", this, &lock, &hr, u"Sync", kVideoWrap, 90000};
};

class SyncInputPin : public testing::Test {
 protected:
  void SetUp() override {
    source->pin.acceptAny = true;
    ASSERT_EQ(graph->AddFilter(source.Get(), u"source"), S_OK);
    ASSERT_EQ(graph->AddFilter(sink.Get(), u"sink"), S_OK);
    ASSERT_EQ(graph->ConnectDirect(&source->pin, in, nullptr), S_OK);
    ASSERT_EQ(graph->Run(0), S_OK);
  }
  void TearDown() override { graph->Stop(); }

  HRESULT Deliver(const std::vector<BYTE>& bytes, REFERENCE_TIME start, bool timed = true) {
    const auto sample = timed ? source->NewSample(start) : source->NewSample();
    BYTE* data = nullptr;
    EXPECT_EQ(sample->GetPointer(&data), S_OK);
    std::copy(bytes.begin(), bytes.end(), data);
    sample->SetActualDataLength(static_cast<LONG>(bytes.size()));
    return source->Send(sample.Get());
  }

  std::size_t TakeEvents() {
    std::size_t count = 0;
    while (const auto event = graph->GetEvent(std::chrono::milliseconds(0))) {
      EXPECT_EQ(event->code, 0x8066);
      EXPECT_EQ(event->parameter1, 0);
      EXPECT_EQ(event->parameter2, 0);
      ++count;
    }
    return count;
  }

  ComPtr<FilterGraph> graph = FilterGraph::Create();
  ComPtr<fakes::Source> source = fakes::Source::Create();
  ComPtr<SyncFilter> sink{new SyncFilter};
  CSyncInputPin* const in = &sink->pin;
};

TEST_F(SyncInputPin, TakesItsReferenceFromSamplesAndPostsTheFirst) {
  EXPECT_FALSE(in->IsSynchronized());
  EXPECT_EQ(Deliver({0xE8, 0x03, 0, 0, 0, 0, 0, 0}, 5000000), S_OK);  // 1000
  EXPECT_TRUE(in->IsSynchronized());
  EXPECT_EQ(TakeEvents(), 1U);
  EXPECT_EQ(in->ToReferenceTime(1090), 5010000);
  EXPECT_EQ(Deliver({0, 0, 0, 0, 1, 0, 0, 0}, 7000000), S_OK);  // 2^32
  EXPECT_EQ(in->ToReferenceTime((std::uint64_t{1} << 32) + 90), 7010000);
  EXPECT_EQ(TakeEvents(), 0U);
  in->ResetReference();
  EXPECT_EQ(Deliver({0, 0, 0, 0, 1, 0, 0, 0}, 7000000), S_OK);
  EXPECT_EQ(TakeEvents(), 1U);
}

TEST_F(SyncInputPin, RefusesWhatIsNoReference) {
  EXPECT_EQ(Deliver({1, 2, 3, 4, 5, 6, 7}, 0), E_FAIL);
  EXPECT_EQ(Deliver({1, 2, 3, 4, 5, 6, 7, 8, 9}, 0), E_FAIL);
  EXPECT_EQ(Deliver({1, 2, 3, 4, 5, 6, 7, 8}, 0, false), VFW_E_SAMPLE_TIME_NOT_SET);
  EXPECT_FALSE(in->IsSynchronized());
  EXPECT_EQ(TakeEvents(), 0U);
  const CMediaType foreign(&MEDIATYPE_Video);
  EXPECT_EQ(in->CheckMediaType(&foreign), S_FALSE);
}

}  // namespace
