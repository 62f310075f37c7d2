#include <array>
#include <atomic>
#include <chrono>
#include <future>

#include <gmock/gmock.h>

#include "filter/frame_composer.h"
#include "platform/dshow/vfw_errors.h"
#include "tests/support/allocation_count.h"
#include "tests/support/composer_fixture.h"
#include "tests/support/foreign_sample.h"

namespace {

using testing::ElementsAre;

TEST(IsPrerollFrame, MarksTheFrameNearestToEachMultipleOfThePeriod) {
  constexpr REFERENCE_TIME kFrame = 400000;
  constexpr REFERENCE_TIME kPeriod = 100000000;
  std::vector<int> marked;
  for (int frame = 0; frame <= 750; ++frame) {
    if (IsPrerollFrame(frame * kFrame, kPeriod, {25, 1})) {
      marked.push_back(frame);
    }
  }
  EXPECT_THAT(marked, ElementsAre(0, 250, 500, 750));
  EXPECT_FALSE(IsPrerollFrame(0, 0, {25, 1})) << "a period of 0 marks nothing";
  EXPECT_FALSE(IsPrerollFrame(0, kPeriod, {0, 1}));
  EXPECT_TRUE(IsPrerollFrame(std::numeric_limits<REFERENCE_TIME>::min(), -1, {25, 1}));
  // 29.97 frames per second never meet the multiples exactly, and each is marked once.
  int count = 0;
  for (int frame = 0; frame < 900; ++frame) {
    count += IsPrerollFrame(frame * 10000000LL * 1001 / 30000, kPeriod, {30000, 1001}) ? 1 : 0;
  }
  EXPECT_EQ(count, 4);
}

class FrameLoopTest : public ComposerFixture {
 protected:
  // A record of one channel at full scale, with meters.
  void SendAudioAlarm(fakes::Source& source, REFERENCE_TIME start, bool raised) {
    const ComPtr<IMediaSample> sample = source.NewSample(start, start + 1);
    BYTE* const wire = Pixels(sample.Get());
    std::fill_n(wire, 85, BYTE{0});
    wire[0] = 1;
    wire[1] = raised ? 1 : 0;
    wire[3] = 1;
    wire[4] = 1;
    wire[7] = 3;
    wire[8] = 0xE8;
    sample->SetActualDataLength(85);
    ASSERT_EQ(source.Send(sample.Get()), S_OK);
  }
  // A window frame of one luma that announces a type.
  void SendTyped(CMediaType type, REFERENCE_TIME start, BYTE luma = 0) {
    const ComPtr<IMediaSample> sample = sources_[0]->NewSample(start, start + kFrame);
    sample->SetMediaType(&type);
    std::fill_n(Pixels(sample.Get()), sample->GetSize(), luma);
    sources_[0]->Send(sample.Get());
  }
  // A running graph whose window of 100x100 has had two frames, and whose alarm box lies at (2, 3):
  // panel 10 x 100, top band 9 rows, box 5 x 4.
  void MakeWithAlarms() {
    Make(1);
    ConnectBackground();
    ConnectWindow(0, 100, 100);
    ConnectSink();
    audio_ = ConnectSide(PositionOfAudioAlarm(0)).Get();
    video_ = ConnectSide(PositionOfVideoAlarm(0)).Get();
    ASSERT_EQ(graph_->Run(0), S_OK);
    SendPicture(0, 0, 200);
    SendPicture(0, kFrame, 200);
  }

  fakes::Source* audio_ = nullptr;
  fakes::Source* video_ = nullptr;
};

TEST_F(FrameLoopTest, DrawsEachWindowOneLatencyAfterItsSource) {
  MakeRunning(1, 16, 16);
  windows_[0]->Set({.x = 5, .y = -5});  // made even towards zero: 4, -4
  const REFERENCE_TIME second = 25 * kFrame;
  // The source runs with the background, from the same moment.
  Compose(0);
  std::vector<int> shown;
  for (int i = 0; i < 60; ++i) {
    ASSERT_EQ(SendPicture(0, i * kFrame, static_cast<BYTE>(100 + i)), S_OK);
    const ComPtr<IMediaSample> frame = Compose(i * kFrame);
    EXPECT_EQ(Luma(frame.Get(), 3, 0), 16);
    EXPECT_EQ(Luma(frame.Get(), 4, 12), 16);
    EXPECT_EQ(Luma(frame.Get(), 20, 0), 16);
    shown.push_back(Luma(frame.Get(), 4, 0) - 100);
  }
  // The first frame is shown before it is due, too; the second sample fixed the offset.
  EXPECT_EQ(shown[10], 0);
  EXPECT_EQ(shown[30], 30 - second / kFrame + 1);
  EXPECT_EQ(shown[59], 59 - second / kFrame + 1);
  for (int i = 60; i < 120; ++i) {  // the source stalls: its last frame stays
    shown.push_back(Luma(Compose(i * kFrame).Get(), 4, 0) - 100);
  }
  EXPECT_EQ(shown[119], 59);
}

TEST_F(FrameLoopTest, ADisabledWindowIsNotDrawnButContinuesToReleaseItsFrames) {
  MakeRunning(1, 16, 16);
  windows_[0]->Set({.enabled = false});
  for (int i = 0; i < 300; ++i) {
    SendPicture(0, i * kFrame, 200);
    ASSERT_EQ(Luma(Compose(i * kFrame).Get(), 0, 0), 16);
  }
  EXPECT_THAT(logger_.Texts(), testing::Each(testing::Not(testing::HasSubstr("(+)"))))
      << "they pile up in the pin";
  windows_[0]->Set({.enabled = true});
  EXPECT_EQ(Luma(Compose(300 * kFrame).Get(), 0, 0), 16)
      << "its size comes with a type, which nobody looked at while it was hidden";
}

TEST_F(FrameLoopTest, FollowsAChangeOfSizeInTheStream) {
  MakeRunning(1, 16, 16);
  SendPicture(0, 0, 200);
  EXPECT_EQ(Luma(Compose(0).Get(), 15, 15), 200);
  SendPicture(0, kFrame, 200);
  SendTyped(fakes::Yv12Type(8, 8, kFrame), 2 * kFrame, 180);
  // A type with the smaller header does not change the size.
  SendTyped(fakes::Yv12TypeWithPlainHeader(16, 16, kFrame), 3 * kFrame, 170);
  for (const auto& [frame, luma] : {std::pair(1, 180), {2, 170}}) {
    const ComPtr<IMediaSample> shown = Compose(frame * kFrame + 10000000);
    EXPECT_EQ(Luma(shown.Get(), 7, 7), luma);
    EXPECT_EQ(Luma(shown.Get(), 8, 8), 16);
  }
}

// The parameter says at which reading of the picked sample the next one arrives: its type and its
// time are read while it is picked, then its type (3), then its time (4).
class PickedFrameTest : public FrameLoopTest, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Readings, PickedFrameTest, testing::Values(3, 4));

TEST_P(PickedFrameTest, IsReadWhileNoFormatMovesToIt) {
  constexpr int kWatched = 41;
  constexpr int kFull = CComposeInputVideoWindowPin::kResyncHighWater;
  MakeRunning(1, 16, 16);
  SendPicture(0, 0, 200);
  Compose(0);
  const ComPtr<fakes::ForeignSample> watched = fakes::ForeignSample::Create(16 * 16 * 3 / 2);
  for (int n = 1; n < kFull; ++n) {
    if (n == kWatched) {
      REFERENCE_TIME start = n * kFrame;
      REFERENCE_TIME stop = start + kFrame;
      watched->SetTime(&start, &stop);
      ASSERT_EQ(sources_[0]->Send(watched.Get()), S_OK);
    } else {
      ASSERT_EQ(SendPicture(0, n * kFrame, 200), S_OK);
    }
  }
  // The next sample is one too many: the first ones are dropped, and their type moves to the
  // watched one. It is sent while the composition thread reads the watched one, which it has
  // picked.
  int readings = 0;
  bool moved = false;
  std::future<HRESULT> sending;
  watched->onRead = [&] {
    if (++readings == GetParam()) {
      sending = std::async(std::launch::async, [&] { return SendPicture(0, kFull * kFrame, 200); });
      moved = sending.wait_for(std::chrono::milliseconds(100)) == std::future_status::ready;
    }
  };
  Compose((kWatched - 1) * kFrame + 10000000);
  ASSERT_TRUE(sending.valid()) << "the frame has picked another picture";
  EXPECT_EQ(sending.get(), S_OK);
  EXPECT_FALSE(moved);
  watched->onRead = nullptr;
  AM_MEDIA_TYPE* type = nullptr;
  EXPECT_EQ(watched->GetMediaType(&type), S_OK) << "the type of the pictures that went is lost";
  DeleteMediaType(type);
}

TEST_F(FrameLoopTest, AFrameSmallerThanItsTypeSaysIsNotDrawn) {
  MakeRunning(1, 16, 16);
  constexpr LONG kMax = std::numeric_limits<LONG>::max();
  for (const auto& [width, height] :
       {std::pair<LONG, LONG>{64, 64}, {kMax, kMax}, {-16, 16}, {-kMax, -kMax}, {46341, 46341}}) {
    static_cast<CComposeInputVideoWindowPin*>(composer_->GetPin(2))->FlushSamples();
    SendTyped(fakes::Yv12Type(width, height, kFrame), 0);
    EXPECT_EQ(Luma(Compose(0).Get(), 0, 0), 16) << width << "x" << height;
  }
}

// What is drawn is not defined, but every frame must be delivered; the sanitizers check the rest.
TEST_F(FrameLoopTest, ContinuesWithTimesAndSizesAtTheEndsOfTheirRanges) {
  Make(1, -1);
  ConnectBackground();
  ConnectWindow(0, 16, 16);
  ConnectSink();
  const ComPtr<fakes::Source> text = ConnectSide(PositionOfText(0));
  const ComPtr<fakes::Source> audio = ConnectSide(PositionOfAudioAlarm(0));
  ASSERT_EQ(graph_->Run(0), S_OK);
  using Times = std::numeric_limits<REFERENCE_TIME>;
  using Sizes = std::numeric_limits<LONG>;
  constexpr std::array kTimes{Times::min(),      Times::min() + 1, REFERENCE_TIME{-1},
                              REFERENCE_TIME{0}, Times::max() - 1, Times::max()};
  constexpr std::array kSizes{Sizes::min(), Sizes::min() + 1, LONG{-1},
                              LONG{640},    Sizes::max() - 1, Sizes::max()};
  for (std::size_t i = 0; i < 36; ++i) {
    const std::size_t a = i % 6;
    const std::size_t b = i / 6;
    windows_[0]->Set({.x = kSizes[b], .y = kSizes[a]});
    CMediaType type = fakes::Yv12Type(kSizes[a], kSizes[b], kTimes[a]);
    const ComPtr<IMediaSample> picture = sources_[0]->NewSample(kTimes[a], kTimes[b]);
    picture->SetMediaType(&type);
    EXPECT_EQ(sources_[0]->Send(picture.Get()), S_OK);
    EXPECT_EQ(sources_[0]->Send(sources_[0]->NewSample().Get()), S_OK);
    EXPECT_EQ(text->Send(text->NewSample(kTimes[a], kTimes[b]).Get()), S_OK);
    SendAudioAlarm(*audio, kTimes[b] / 2, true);
    for (const std::optional<REFERENCE_TIME> start : {std::optional(kTimes[b]), {std::nullopt}}) {
      sink_->Forget();
      const ComPtr<IMediaSample> frame = background_->NewSample(start, start);
      frame->SetMediaType(&type);
      EXPECT_EQ(background_->Send(frame.Get()), S_OK);
      ASSERT_TRUE(sink_->WaitForSamples(1)) << "time " << a << ", " << b;
    }
  }
}

TEST_F(FrameLoopTest, ABackgroundFrameLeavesMarkedAsInterlacedAndOneInAPeriodAsPreroll) {
  Make(0, 10 * kFrame);
  ConnectBackground();
  ConnectSink();
  ASSERT_EQ(graph_->Run(0), S_OK);
  const auto compose = [&](REFERENCE_TIME start, CMediaType* type) {
    const ComPtr<IMediaSample> sample = background_->NewSample(start, start + kFrame);
    sample->SetMediaType(type);
    sink_->Forget();
    EXPECT_EQ(background_->Send(sample.Get()), S_OK);
    EXPECT_TRUE(sink_->WaitForSamples(1));
    return sample;
  };
  CMediaType type = fakes::Yv12Type(kWidth, kHeight, kFrame);
  reinterpret_cast<VIDEOINFOHEADER2*>(type.pbFormat)->dwInterlaceFlags = 0x40;
  const ComPtr<IMediaSample> first = compose(10 * kFrame, &type);
  EXPECT_EQ(first->IsPreroll(), S_OK);
  OwnedMediaType carried;
  ASSERT_EQ(ReadMediaType(first.Get(), &carried), S_OK);
  EXPECT_EQ(reinterpret_cast<VIDEOINFOHEADER2*>(carried->pbFormat)->dwInterlaceFlags, 1U);
  EXPECT_EQ(compose(11 * kFrame, nullptr)->IsPreroll(), S_FALSE);
}

TEST_F(FrameLoopTest, AFaultDropsItsFrameAndIsLoggedOnceUntilAFrameSucceeds) {
  MakeRunning(1, 16, 16);
  const std::string badSelector = "Error in composition: Cannot draw selector: bad config";
  // Selected before its size is known: every frame fails.
  windows_[0]->Set({.selected = true});
  SendBackground(0);
  SendBackground(kFrame);
  WaitForLine(badSelector);
  windows_[0]->Set({.colour = nullptr});
  ASSERT_TRUE(Compose(2 * kFrame)) << "a window without a colour is no fault";
  windows_[0]->Set({.selected = true});
  SendBackground(3 * kFrame);
  ASSERT_TRUE(logger_.WaitForLines(2));
  windows_[0]->Set({.result = MakeHresult(0x80250021)});
  SendBackground(4 * kFrame);
  ASSERT_TRUE(logger_.WaitForLines(3));
  windows_[0]->Set({});
  ASSERT_TRUE(Compose(5 * kFrame));
  EXPECT_THAT(logger_.Texts(),
              ElementsAre(badSelector, badSelector,
                          "Error in composition: Tavrel Error 80250021: No picture found"));
}

TEST_F(FrameLoopTest, AVideoAlarmShowsThroughTheMeterOnly) {
  MakeWithAlarms();
  const REFERENCE_TIME shown = 10000000;  // the time of the second frame's display
  const ComPtr<IMediaSample> raised = video_->NewSample(kFrame, kFrame + 1);
  Pixels(raised.Get())[0] = 1;
  ASSERT_EQ(video_->Send(raised.Get()), S_OK);
  EXPECT_EQ(Luma(Compose(shown).Get(), 4, 4), 200) << "no audio record, no meter, no alarm";
  SendAudioAlarm(*audio_, kFrame, false);
  EXPECT_EQ(Luma(Compose(shown).Get(), 4, 4), 76) << "the video alarm was neither read nor dropped";
  SendAudioAlarm(*audio_, 2 * kFrame, true);
  EXPECT_EQ(Luma(Compose(shown + kFrame).Get(), 4, 4), 76) << "an alarm of the audio";
  SendAudioAlarm(*audio_, 3 * kFrame, false);
  EXPECT_NE(Luma(Compose(shown + 2 * kFrame).Get(), 4, 4), 76);
}

TEST_F(FrameLoopTest, AFrameThatASelectionRefusesLeavesItsRecordsToTheNext) {
  MakeWithAlarms();
  SendAudioAlarm(*audio_, kFrame, true);
  windows_[0]->Set({.x = 60, .selected = true});  // ends with the last column
  const REFERENCE_TIME late = 10000000 + kFrame;  // after the record, which a frame would drop
  SendBackground(late);
  WaitForLine("Error in composition: Cannot draw selector: bad config");
  windows_[0]->Set({});
  EXPECT_EQ(Luma(Compose(late).Get(), 4, 4), 76);
}

TEST_F(FrameLoopTest, AFrameAllocatesNothingOnceItsInputsAreKnown) {
  Make(2);
  ConnectBackground();
  std::vector<ComPtr<fakes::Source>> texts;
  std::vector<ComPtr<fakes::Source>> levels;
  for (LONG i = 0; i < 2; ++i) {
    ConnectWindow(i, 70, 60);
    texts.push_back(ConnectSide(PositionOfText(i)));
    levels.push_back(ConnectSide(PositionOfAudioAlarm(i)));
    windows_[static_cast<std::size_t>(i)]->Set({.x = i * 80, .y = 10, .selected = true});
  }
  ConnectSink();
  // Counted on the composition thread, from the first question to the host to the delivery.
  std::optional<support::AllocationCount> allocations;
  std::atomic<std::uint64_t> counted = 0;
  windows_[0]->onAsk = [&] { allocations.emplace(); };
  sink_->pin.onReceive = [&](IMediaSample* sample) {
    counted = allocations->Since();
    sink_->Keep(sample);
    return S_OK;
  };
  ASSERT_EQ(graph_->Run(0), S_OK);
  for (std::size_t i = 0; i < 2; ++i) {
    const std::string text = "A label that is longer than what strings hold in place";
    const ComPtr<IMediaSample> sample = texts[i]->NewSample(0, 1);
    std::copy(text.begin(), text.end(), Pixels(sample.Get()));
    sample->SetActualDataLength(static_cast<LONG>(text.size()));
    ASSERT_EQ(texts[i]->Send(sample.Get()), S_OK);
  }
  for (int frame = 0; frame < 40; ++frame) {
    const REFERENCE_TIME time = frame * kFrame;
    for (LONG i = 0; i < 2; ++i) {
      SendPicture(i, time, static_cast<BYTE>(100 + frame));
      SendAudioAlarm(*levels[static_cast<std::size_t>(i)], time, frame % 2 == 0);
    }
    ASSERT_TRUE(Compose(time));
    if (frame == 0) {
      EXPECT_GT(counted, 0U) << "the first frame makes its tables";
    } else if (frame > 30) {  // frames are shown a second late
      EXPECT_EQ(counted, 0U) << "frame " << frame;
    }
  }
}

}  // namespace
