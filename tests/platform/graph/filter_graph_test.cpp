#include "platform/graph/filter_graph.h"

#include <gtest/gtest.h>

#include "platform/dshow/vfw_errors.h"
#include "tests/support/fake_filters.h"

namespace {

using namespace std::chrono_literals;
using fakes::Sink;
using fakes::Source;

class FilterGraphTest : public testing::Test {
 protected:
  FilterGraphTest() {
    source_->pin.types = {fakes::Yv12Type(64, 32)};
    graph_->AddFilter(source_.Get(), u"source");
    graph_->AddFilter(sink_.Get(), u"sink");
  }

  void TearDown() override {
    sink_.Reset();
    source_.Reset();
    graph_.Reset();
    EXPECT_EQ(CUnknown::ObjectsActive(), 0);
  }

  ComPtr<FilterGraph> graph_ = FilterGraph::Create();
  ComPtr<Source> source_ = Source::Create();
  ComPtr<Sink> sink_ = Sink::Create();
};

TEST_F(FilterGraphTest, AFilterThatWillNotPauseStopsTheWholeGraph) {
  class Stubborn final : public CBaseFilter {
   public:
    Stubborn() : CBaseFilter("stubborn", nullptr, &lock_, CLSID_NULL) {}
    int GetPinCount() override { return 0; }
    CBasePin* GetPin(int) override { return nullptr; }
    HRESULT Pause() override { return IsStopped() ? CBaseFilter::Pause() : E_FAIL; }

   private:
    CCritSec lock_;
  };
  graph_->AddFilter(ComPtr<Stubborn>(new Stubborn).Get(), u"stubborn");
  ASSERT_EQ(graph_->Run(0), S_OK);
  EXPECT_EQ(graph_->Pause(), E_FAIL);
  ComPtr<IBaseFilter> stubborn;
  graph_->FindFilterByName(u"stubborn", stubborn.Put());
  for (IMediaFilter* const filter : std::initializer_list<IMediaFilter*>{
           graph_.Get(), source_.Get(), sink_.Get(), stubborn.Get()}) {
    FILTER_STATE state{};
    filter->GetState(0, &state);
    EXPECT_EQ(state, State_Stopped);
  }
}

TEST_F(FilterGraphTest, EndsARunningGraphWithItsLastReference) {
  ASSERT_EQ(graph_->ConnectDirect(&source_->pin, &sink_->pin, nullptr), S_OK);
  ASSERT_EQ(graph_->Run(0), S_OK);
  EXPECT_EQ(graph_->RemoveFilter(sink_.Get()), VFW_E_NOT_STOPPED);
  EXPECT_EQ(graph_->AddFilter(Sink::Create().Get(), u"late"), VFW_E_NOT_STOPPED);
}  // the fixture counts what is left

}  // namespace
