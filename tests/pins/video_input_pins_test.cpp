#include <gmock/gmock.h>

#include "platform/dshow/vfw_errors.h"
#include "tests/support/composer_fixture.h"

namespace {

using testing::ElementsAre;

class WindowPinTest : public ComposerFixture {
 protected:
  void SetUp() override {
    Make(1);
    ConnectBackground();
    ConnectWindow(0, 16, 16);
  }
  CComposeInputVideoWindowPin& Pin() {
    return *static_cast<CComposeInputVideoWindowPin*>(composer_->GetPin(2));
  }
  // Sends samples of one frame each from start on.
  void Send(int count, REFERENCE_TIME start = 0) {
    for (int i = 0; i < count; ++i) {
      ASSERT_EQ(SendPicture(0, start + i * kFrame, static_cast<BYTE>(i)), S_OK);
    }
  }
  // The buffers of the source that are in the queue.
  LONG Queued() {
    const ComPtr<IMemAllocator> allocator = sources_[0]->pin.HeldAllocator();
    return 100 - static_cast<CMemAllocator*>(allocator.Get())->GetFreeCount();
  }
  REFERENCE_TIME PickedStart(REFERENCE_TIME frameTime) {
    ComPtr<IMediaSample> sample;
    Pin().PickSample(frameTime, &sample);
    if (!sample) {
      return -1;
    }
    REFERENCE_TIME start = 0;
    REFERENCE_TIME stop = 0;
    sample->GetTime(&start, &stop);
    return start;
  }
};

TEST_F(WindowPinTest, TheFirstSampleFixesItsTimeToTheComposersClock) {
  SetPresent(50 * kFrame);
  ASSERT_EQ(SendPicture(0, 7 * kFrame, 0), S_OK);
  EXPECT_EQ(Pin().TimeOffset(), 43 * kFrame);
  EXPECT_EQ(Pin().Latency(), 10000000);
  EXPECT_THAT(logger_.Texts(), ElementsAre("Composer audio/video #0 resynchronizes (-)"));
}

TEST_F(WindowPinTest, KeepsItsOffsetUntilADiscontinuity) {
  Send(10);
  const REFERENCE_TIME offset = Pin().TimeOffset();
  SetPresent(-30 * kFrame);  // long before any picture is due: nothing is released
  ASSERT_EQ(SendPicture(0, 100 * kFrame, 0), S_OK);
  EXPECT_EQ(Pin().TimeOffset(), offset);
  const ComPtr<IMediaSample> sample = sources_[0]->NewSample(101 * kFrame, 102 * kFrame);
  sample->SetDiscontinuity(TRUE);
  ASSERT_EQ(sources_[0]->Send(sample.Get()), S_OK);
  EXPECT_EQ(Pin().TimeOffset(), -131 * kFrame);
}

TEST_F(WindowPinTest, CutsAQueueThatGrowsTooLongBackToOneLatency) {
  SetPresent(200 * kFrame);
  Send(78);
  EXPECT_EQ(Queued(), 78);
  Send(1, 78 * kFrame);
  // What starts one second (25 frames) before the newest survives, the newest comes behind.
  EXPECT_EQ(Queued(), 26);
  EXPECT_THAT(logger_.Texts().back(), "Composer audio/video #0 resynchronizes (+) (25)");
  EXPECT_EQ(Pin().TimeOffset(), (200 - 78) * kFrame);
}

TEST_F(WindowPinTest, GivesUntimedSamplesTheTimeThatFollows) {
  const auto lastTimes = [&] {
    ComPtr<IMediaSample> newest;
    Pin().PickSample(std::numeric_limits<REFERENCE_TIME>::max() / 2, &newest);
    REFERENCE_TIME start = 0;
    REFERENCE_TIME stop = 0;
    newest->GetTime(&start, &stop);
    return std::pair(start, stop);
  };
  // A stop time that is not credible is no base for the next one.
  const ComPtr<IMediaSample> odd = sources_[0]->NewSample(1000, 1000);
  sources_[0]->Send(odd.Get());
  sources_[0]->Send(sources_[0]->NewSample().Get());
  EXPECT_EQ(lastTimes(), std::pair(1000 + kFrame, 1000 + 2 * kFrame));
  sources_[0]->Send(sources_[0]->NewSample().Get());
  EXPECT_EQ(lastTimes().first, 1000 + 2 * kFrame);
  // Without a stop time, a picture is of no use.
  sources_[0]->Send(sources_[0]->NewSample(90 * kFrame).Get());
  EXPECT_EQ(Queued(), 3);
}

TEST_F(WindowPinTest, PicksTheNearestSampleAndTheEarlierOfTwo) {
  Send(4);  // the second sample fixed the offset: its start is the composer's 0
  const REFERENCE_TIME shown = Pin().TimeOffset() + Pin().Latency();
  EXPECT_EQ(PickedStart(shown + 2 * kFrame), 2 * kFrame);
  EXPECT_EQ(PickedStart(shown + 2 * kFrame + kFrame / 2), 2 * kFrame) << "a tie";
  EXPECT_EQ(PickedStart(shown + 2 * kFrame + kFrame / 2 + 1), 3 * kFrame);
  EXPECT_EQ(PickedStart(0), 0);
  Pin().ReleaseOlderSamples(2 * kFrame);
  EXPECT_EQ(PickedStart(0), 2 * kFrame);
  Pin().ReleaseOlderSamples(100 * kFrame);
  EXPECT_EQ(PickedStart(0), 3 * kFrame) << "never the last one";
  Pin().FlushSamples();
  EXPECT_EQ(PickedStart(shown), -1);
}

TEST_F(WindowPinTest, EmptiesItsQueueInTheStepThatFindsNothingToShow) {
  // Farther from the frame than the largest time: no picture for anybody, ever.
  Send(3);
  constexpr REFERENCE_TIME kFar = std::numeric_limits<REFERENCE_TIME>::max();
  ASSERT_EQ(sources_[0]->Send(sources_[0]->NewSample(kFar, 0).Get()), S_OK);
  Pin().ReleaseOlderSamples(kFar);
  EXPECT_EQ(PickedStart(0), -1);
  EXPECT_EQ(Queued(), 0);
}

TEST_F(WindowPinTest, AFormatChangeOutlivesTheSampleThatAnnouncedIt) {
  Send(2);
  const auto typeAt = [&](REFERENCE_TIME frameTime) {
    ComPtr<IMediaSample> sample;
    Pin().PickSample(frameTime, &sample);
    AM_MEDIA_TYPE* type = nullptr;
    if (sample->GetMediaType(&type) != S_OK) {
      return CMediaType();
    }
    const OwnedMediaType owned(type);
    return CMediaType(*owned);
  };
  const REFERENCE_TIME shown = Pin().TimeOffset() + Pin().Latency();
  EXPECT_TRUE(typeAt(shown + kFrame) == fakes::Yv12Type(16, 16, kFrame))
      << "the first sample of the connection announces its type";

  CMediaType larger = fakes::Yv12Type(32, 16, kFrame);
  const ComPtr<IMediaSample> announcing = sources_[0]->NewSample(2 * kFrame, 3 * kFrame);
  announcing->SetMediaType(&larger);
  ASSERT_EQ(sources_[0]->Send(announcing.Get()), S_OK);
  Send(2, 3 * kFrame);
  Pin().ReleaseOlderSamples(4 * kFrame);  // nobody has seen the announcing one
  EXPECT_TRUE(typeAt(shown + 4 * kFrame) == larger);
}

TEST_F(WindowPinTest, AcceptsYv12InEitherHeaderAndReadsTheSizeOfOne) {
  const CMediaType plain = fakes::Yv12TypeWithPlainHeader(64, 48);
  const CMediaType none = fakes::TypeOf(MEDIATYPE_Video, MEDIASUBTYPE_YV12);
  EXPECT_EQ(Pin().CheckMediaType(&plain), S_OK);
  EXPECT_EQ(Pin().CheckMediaType(&none), S_FALSE);
  LONG width = -1;
  LONG height = -1;
  EXPECT_EQ(Pin().CheckVideoFormat(plain, &width, &height), S_FALSE);
  EXPECT_EQ(width, -1);
  EXPECT_TRUE(logger_.Texts().empty());
  EXPECT_EQ(Pin().CheckVideoFormat(fakes::AudioType(MEDIASUBTYPE_PCM), &width, &height), S_FALSE);
  EXPECT_THAT(logger_.Texts(), ElementsAre("[Pin #0] Trying to set a wrong media type"));
  EXPECT_EQ(Pin().CheckVideoFormat(fakes::Yv12Type(64, 48), &width, &height), S_OK);
  EXPECT_EQ(width, 64);
  EXPECT_EQ(height, 48);
}

class AllocatorDemandTest : public ComposerFixture {
 protected:
  HRESULT ConnectWith(ComPtr<IMemAllocator> allocator, LONG buffers) {
    fakes::SourcePin& pin = sources_[0]->pin;
    pin.types = {fakes::Yv12Type(16, 16)};
    pin.allocator = std::move(allocator);
    pin.wanted = {buffers, 384, 32, 0};
    return pin.Connect(composer_->GetPin(2), nullptr);
  }
};

TEST_F(AllocatorDemandTest, AllocatorsHaveEightyBuffersOrMoreOrAreRefused) {
  const auto stingy = [](LONG most, HRESULT refusal = S_OK) {
    return ComPtr<IMemAllocator>(fakes::StingyAllocator::Create(most, refusal).Get());
  };
  Make(1);
  EXPECT_EQ(ConnectWith(stingy(79), 3), E_FAIL);
  EXPECT_FALSE(composer_->GetPin(2)->IsConnected());
  EXPECT_EQ(ConnectWith(stingy(0, VFW_E_ALREADY_COMMITTED), 3), VFW_E_ALREADY_COMMITTED);
  for (const auto& [offered, agreed] : {std::pair<LONG, LONG>{3, 80}, {120, 120}}) {
    ASSERT_EQ(ConnectWith(CMemAllocator::Create(), offered), S_OK);
    ALLOCATOR_PROPERTIES properties{};
    sources_[0]->pin.HeldAllocator()->GetProperties(&properties);
    EXPECT_EQ(properties.cBuffers, agreed);
    EXPECT_GE(properties.cbBuffer, 384);
    graph_->Disconnect(&sources_[0]->pin);
    graph_->Disconnect(composer_->GetPin(2));
  }
}

class BackgroundPinTest : public ComposerFixture {};

TEST_F(BackgroundPinTest, StampsWhatComesWithoutATimeAndTakesAStartAlone) {
  MakeRunning(0, 0, 0);
  ASSERT_EQ(SendBackground(10 * kFrame), S_OK);
  ASSERT_EQ(SendBackground(std::nullopt), S_OK);
  const ComPtr<IMediaSample> startOnly = background_->NewSample(20 * kFrame);
  ASSERT_EQ(background_->Send(startOnly.Get()), S_OK);
  ASSERT_EQ(SendBackground(std::nullopt), S_OK);
  ASSERT_TRUE(sink_->WaitForSamples(4));
  std::vector<REFERENCE_TIME> starts;
  for (const ComPtr<IMediaSample>& sample : sink_->Samples()) {
    REFERENCE_TIME start = 0;
    REFERENCE_TIME stop = 0;
    sample->GetTime(&start, &stop);
    starts.push_back(start / kFrame);
  }
  EXPECT_THAT(starts, ElementsAre(10, 11, 20, 21));
}

}  // namespace
