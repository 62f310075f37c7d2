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
    return fakes::TimesOf(sample.Get()).first;
  }
};

TEST_F(WindowPinTest, KeepsTheOffsetOfItsFirstSampleUntilADiscontinuity) {
  SetPresent(50 * kFrame);
  ASSERT_EQ(SendPicture(0, 7 * kFrame, 0), S_OK);
  EXPECT_EQ(Pin().TimeOffset(), 43 * kFrame);
  EXPECT_EQ(Pin().Latency(), 10000000);
  EXPECT_THAT(logger_.Texts(), ElementsAre("Composer audio/video #0 resynchronizes (-)"));
  ASSERT_EQ(SendPicture(0, 8 * kFrame, 0), S_OK);
  const REFERENCE_TIME offset = Pin().TimeOffset();
  SetPresent(-30 * kFrame);  // long before any frame is due: nothing is released
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
  // Samples that start up to one second (25 frames) before the newest stay, and the newest is
  // added.
  EXPECT_EQ(Queued(), 26);
  EXPECT_THAT(logger_.Texts().back(), "Composer audio/video #0 resynchronizes (+) (25)");
  EXPECT_EQ(Pin().TimeOffset(), (200 - 78) * kFrame);
}

TEST_F(WindowPinTest, GivesUntimedSamplesTheTimeThatFollows) {
  const auto lastTimes = [&] {
    ComPtr<IMediaSample> newest;
    Pin().PickSample(std::numeric_limits<REFERENCE_TIME>::max() / 2, &newest);
    return fakes::TimesOf(newest.Get());
  };
  // An implausible stop time is not used for the next start.
  const ComPtr<IMediaSample> odd = sources_[0]->NewSample(1000, 1000);
  sources_[0]->Send(odd.Get());
  sources_[0]->Send(sources_[0]->NewSample().Get());
  EXPECT_EQ(lastTimes(), std::pair(1000 + kFrame, 1000 + 2 * kFrame));
  sources_[0]->Send(sources_[0]->NewSample().Get());
  EXPECT_EQ(lastTimes().first, 1000 + 2 * kFrame);
  // A sample without a stop time is ignored.
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
  // A sample farther from the frame time than the largest time is never chosen: the queue is
  // emptied.
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
    return fakes::TypeOf(sample.Get());
  };
  const REFERENCE_TIME shown = Pin().TimeOffset() + Pin().Latency();
  EXPECT_TRUE(typeAt(shown + kFrame) == fakes::Yv12Type(16, 16, kFrame))
      << "the first sample of the connection announces its type";

  CMediaType larger = fakes::Yv12Type(32, 16, kFrame);
  const ComPtr<IMediaSample> announcing = sources_[0]->NewSample(2 * kFrame, 3 * kFrame);
  announcing->SetMediaType(&larger);
  ASSERT_EQ(sources_[0]->Send(announcing.Get()), S_OK);
  Send(2, 3 * kFrame);
  Pin().ReleaseOlderSamples(4 * kFrame);  // the announcing one was never picked
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
  EXPECT_TRUE(logger_.Texts().empty());
  EXPECT_EQ(Pin().CheckVideoFormat(fakes::AudioType(MEDIASUBTYPE_PCM), &width, &height), S_FALSE);
  EXPECT_THAT(logger_.Texts(), ElementsAre("[Pin #0] Trying to set a wrong media type"));
  EXPECT_EQ(std::pair(width, height), std::pair(LONG{-1}, LONG{-1}));
  EXPECT_EQ(Pin().CheckVideoFormat(fakes::Yv12Type(64, 48), &width, &height), S_OK);
  EXPECT_EQ(std::pair(width, height), std::pair(LONG{64}, LONG{48}));
}

TEST_F(ComposerFixture, AllocatorsOfWindowsHaveEightyBuffersOrMoreOrAreRefused) {
  Make(1);
  fakes::SourcePin& pin = sources_[0]->pin;
  pin.types = {fakes::Yv12Type(16, 16)};
  using Allocator = ComPtr<IMemAllocator>;
  for (const auto& [allocator, offered, result, agreed] :
       {std::tuple(Allocator(fakes::StingyAllocator::Create(79).Get()), 3, E_FAIL, 0),
        {Allocator(fakes::StingyAllocator::Create(0, VFW_E_ALREADY_COMMITTED).Get()), 3,
         VFW_E_ALREADY_COMMITTED, 0},
        {CMemAllocator::Create(), 3, S_OK, 80},
        {CMemAllocator::Create(), 120, S_OK, 120}}) {
    pin.allocator = allocator;
    pin.wanted = {offered, 384, 32, 0};
    EXPECT_EQ(pin.Connect(composer_->GetPin(2), nullptr), result);
    EXPECT_EQ(composer_->GetPin(2)->IsConnected(), result == S_OK);
    if (result == S_OK) {
      ALLOCATOR_PROPERTIES properties{};
      pin.HeldAllocator()->GetProperties(&properties);
      EXPECT_EQ(properties.cBuffers, agreed);
      EXPECT_GE(properties.cbBuffer, 384);
      graph_->Disconnect(&pin);
      graph_->Disconnect(composer_->GetPin(2));
    }
  }
}

TEST_F(ComposerFixture, ABackgroundTimestampsSamplesWithoutATimeAndTakesAStartAlone) {
  MakeRunning(0, 0, 0);
  ASSERT_EQ(SendBackground(10 * kFrame), S_OK);
  ASSERT_EQ(SendBackground(std::nullopt), S_OK);
  const ComPtr<IMediaSample> startOnly = background_->NewSample(20 * kFrame);
  ASSERT_EQ(background_->Send(startOnly.Get()), S_OK);
  ASSERT_EQ(SendBackground(std::nullopt), S_OK);
  ASSERT_TRUE(sink_->WaitForSamples(4));
  std::vector<REFERENCE_TIME> starts;
  for (const ComPtr<IMediaSample>& sample : sink_->Samples()) {
    starts.push_back(fakes::TimesOf(sample.Get()).first / kFrame);
  }
  EXPECT_THAT(starts, ElementsAre(10, 11, 20, 21));
}

class OutputPinTest : public ComposerFixture {
 protected:
  void SetUp() override { Make(0); }
  CBaseOutputPin& Pin() { return *static_cast<CBaseOutputPin*>(composer_->GetPin(1)); }
  // The format that is offered with a background of that type; zeros when none is offered.
  VIDEOINFOHEADER2 Offered(const CMediaType& background, HRESULT result = S_OK) {
    graph_->Disconnect(&background_->pin);
    graph_->Disconnect(composer_->GetPin(0));
    ConnectBackground(background);
    EXPECT_EQ(Pin().GetMediaType(0, &type_), result);
    VIDEOINFOHEADER2 format{};
    if (result == S_OK) {
      EXPECT_EQ(type_.formattype, FORMAT_VideoInfo2);
      EXPECT_EQ(type_.cbFormat, sizeof(format));
      std::memcpy(&format, type_.pbFormat, sizeof(format));
    }
    return format;
  }

  CMediaType type_;
};

TEST_F(OutputPinTest, TurnsAPlainHeaderIntoTheLargerOneAndKeepsALargerOneButForTheAspect) {
  EXPECT_TRUE(FAILED(Pin().Connect(&sink_->pin, nullptr))) << "there is no background";
  VIDEOINFOHEADER2 format = Offered(fakes::Yv12TypeWithPlainHeader(720, 576, 333667));
  EXPECT_EQ(format.AvgTimePerFrame, 333667);
  EXPECT_EQ(format.dwPictAspectRatioX, 4U);
  EXPECT_EQ(format.dwPictAspectRatioY, 3U);
  EXPECT_EQ(format.bmiHeader.biWidth, 720);
  EXPECT_EQ(format.bmiHeader.biPlanes, 3);
  EXPECT_EQ(format.bmiHeader.biCompression, 0x32315659U);
  EXPECT_EQ(format.bmiHeader.biSizeImage, 622080U);
  EXPECT_EQ(type_.GetSampleSize(), 622080U);

  CMediaType background = fakes::Yv12Type(kWidth, kHeight);
  auto* const header = reinterpret_cast<VIDEOINFOHEADER2*>(background.pbFormat);
  header->dwInterlaceFlags = 0x85;
  header->dwPictAspectRatioX = 1;
  format = Offered(background);
  EXPECT_EQ(format.dwInterlaceFlags, 0x85U);
  header->dwPictAspectRatioX = 4;
  header->dwPictAspectRatioY = 3;
  EXPECT_TRUE(type_ == background);
  // The aspect is kept in its lowest terms.
  for (const auto& [numerator, denominator, x, y] :
       {std::tuple<LONG, LONG, int, int>{32, 18, 16, 9},
        {4, 0, 1, 0},
        {0, 5, 0, 1},
        {-16, 9, 16, -9}}) {
    EXPECT_EQ(
        composer_->Configure(0, &logger_, kWidth, kHeight, numerator, denominator, 0, {25, 1}),
        S_OK);
    format = Offered(background);
    EXPECT_EQ(std::pair(static_cast<int>(format.dwPictAspectRatioX),
                        static_cast<int>(format.dwPictAspectRatioY)),
              std::pair(x, y));
  }
}

TEST_F(OutputPinTest, AnnouncesSizesInWrappedArithmeticAndAlwaysFixed) {
  for (const auto& [width, height, bytes] : {std::tuple<LONG, LONG, LONG>{0, 576, 0},
                                             {-5, 3, -22},
                                             {40000, 40000, 252516352},
                                             {65536, 32768, -1073741824}}) {
    const VIDEOINFOHEADER2 format = Offered(fakes::Yv12TypeWithPlainHeader(width, height));
    EXPECT_EQ(format.bmiHeader.biSizeImage, static_cast<DWORD>(bytes));
    EXPECT_NE(type_.bFixedSizeSamples, FALSE);
    EXPECT_EQ(type_.lSampleSize, static_cast<ULONG>(bytes));
    composer_->Configure(0, &logger_, width, height, 4, 3, 0, {25, 1});
    ALLOCATOR_PROPERTIES request{};
    Pin().DecideBufferSize(CMemAllocator::Create().Get(), &request);
    EXPECT_EQ(request.cbBuffer, bytes);
  }
}

TEST_F(OutputPinTest, OffersNothingForABackgroundWithoutAWholeFormatBlock) {
  for (const GUID& format : {FORMAT_VideoInfo, FORMAT_VideoInfo2}) {
    for (const ULONG length : {0U, 87U}) {
      CMediaType background = fakes::TypeOf(MEDIATYPE_Video, MEDIASUBTYPE_YV12);
      background.SetFormatType(&format);
      std::fill_n(background.AllocFormatBuffer(length), length, BYTE{1});
      Offered(background, VFW_E_INVALIDMEDIATYPE);
      EXPECT_TRUE(FAILED(Pin().Connect(&sink_->pin, nullptr)));
    }
  }
}

TEST_F(OutputPinTest, AsksForThirtyBuffersOrAsManyAsThePeerWants) {
  for (const auto& [wanted, agreed] : {std::pair<LONG, LONG>{4, 30}, {40, 40}}) {
    const ComPtr<IMemAllocator> allocator = CMemAllocator::Create();
    ALLOCATOR_PROPERTIES request{wanted, 1, 16, 8};
    ALLOCATOR_PROPERTIES actual{};
    ASSERT_EQ(Pin().DecideBufferSize(allocator.Get(), &request), S_OK);
    allocator->GetProperties(&actual);
    EXPECT_EQ(std::pair(actual.cBuffers, actual.cbAlign), std::pair(agreed, LONG{1}));
  }
  ALLOCATOR_PROPERTIES request{};
  EXPECT_EQ(Pin().DecideBufferSize(fakes::StingyAllocator::Create(29).Get(), &request), E_FAIL);
}

}  // namespace
