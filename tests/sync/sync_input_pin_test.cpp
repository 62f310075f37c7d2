#include <vector>

#include <gtest/gtest.h>

#include "platform/dshow/vfw_errors.h"
#include "platform/graph/filter_graph.h"
#include "sync/synchronizer.h"
#include "tests/support/fake_filters.h"

namespace {

constexpr std::uint64_t kVideoWrap = std::uint64_t{1} << 33;

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
