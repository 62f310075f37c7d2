#include "sync/synchronizer.h"

#include <limits>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "platform/dshow/vfw_errors.h"
#include "platform/graph/filter_graph.h"
#include "tests/support/fake_filters.h"

namespace {

constexpr std::uint64_t kVideoWrap = std::uint64_t{1} << 33;

// From a reference, at a rate of ticks per second and a modulus.
TEST(Synchronizer, GoesTheShorterWayRoundAndRoundsHalvesAwayFromZero) {
  // A prime rate reduces nothing: a quarter of the round times 10^7 is far beyond 2^64.
  constexpr std::uint64_t kPrime = 999'999'937;
  constexpr std::uint64_t kPrimeRound = kPrime * 4'000'000'000;
  constexpr std::uint64_t kLast = std::numeric_limits<std::uint64_t>::max();
  struct Row {
    std::uint64_t rate, modulus, from;
    REFERENCE_TIME at;
    std::uint64_t stream;
    REFERENCE_TIME time;
  };
  for (const Row& row : {
           Row{90000, kVideoWrap, 1000, 5000000, 1090, 5010000},
           Row{90000, kVideoWrap, 1000, 5000000, 1005, 5000556},  // 1 tick is 111.1 units
           Row{90000, kVideoWrap, 1000, 5000000, 995, 4999444},
           Row{20'000'000, 1001, 500, 100, 501, 101},  // a tick is half a unit
           Row{20'000'000, 1001, 500, 100, 499, 99},
           Row{10'000'000, 1000, 0, 5000, 500, 5500},  // just as far both ways: forward
           Row{10'000'000, 1000, 0, 5000, 501, 4501}, Row{10'000'000, 1000, 990, 5, 0, 15},
           Row{10'000'000, 1000, 990, 5, 980, 995},  // before stream time 0: the next round
           Row{kPrime, kPrimeRound, 0, 0, kPrimeRound / 4, 10'000'000'000'000'000},
           Row{10'000'000, 0, kLast - 9, 1000, 10, 1020},  // full 64 bits
       }) {
    CSynchronizer sync(row.rate, row.modulus);
    EXPECT_FALSE(sync.IsSynchronized());
    sync.SetReference(row.from, row.at);
    EXPECT_TRUE(sync.IsSynchronized());
    EXPECT_EQ(sync.ToReferenceTime(row.stream), row.time);
    sync.ResetReference();
    EXPECT_FALSE(sync.IsSynchronized());
    EXPECT_EQ(sync.ToReferenceTime(row.stream), row.time) << "kept over a reset";
  }
  EXPECT_EQ(CSynchronizer(90000, kVideoWrap).wrapTime(), 954437176889U);
  EXPECT_EQ(CSynchronizer(20'000'000, 1001).wrapTime(), 501U);
  EXPECT_EQ(CSynchronizer(kPrime, kPrimeRound).wrapTime(), 40'000'000'000'000'000U);
  EXPECT_THROW(CSynchronizer(0, 1000), std::invalid_argument);
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
  EXPECT_EQ(Deliver({1, 2, 3, 4, 5, 6, 7}, 0), E_FAIL);
  EXPECT_EQ(Deliver({1, 2, 3, 4, 5, 6, 7, 8, 9}, 0), E_FAIL);
  EXPECT_EQ(Deliver({1, 2, 3, 4, 5, 6, 7, 8}, 0, false), VFW_E_SAMPLE_TIME_NOT_SET);
  EXPECT_FALSE(in->IsSynchronized());
  EXPECT_EQ(TakeEvents(), 0U);
  EXPECT_EQ(Deliver({0xE8, 0x03, 0, 0, 0, 0, 0, 0}, 5000000), S_OK);  // 1000
  EXPECT_EQ(TakeEvents(), 1U);
  EXPECT_EQ(in->ToReferenceTime(1090), 5010000);
  EXPECT_EQ(Deliver({0, 0, 0, 0, 1, 0, 0, 0}, 7000000), S_OK);  // 2^32
  EXPECT_EQ(in->ToReferenceTime((std::uint64_t{1} << 32) + 90), 7010000);
  EXPECT_EQ(TakeEvents(), 0U);
  in->ResetReference();
  EXPECT_EQ(Deliver({0, 0, 0, 0, 1, 0, 0, 0}, 7000000), S_OK);
  EXPECT_EQ(TakeEvents(), 1U);
  const CMediaType foreign(&MEDIATYPE_Video);
  EXPECT_EQ(in->CheckMediaType(&foreign), S_FALSE);
}

}  // namespace
