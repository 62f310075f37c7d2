#include <gmock/gmock.h>

#include "platform/dshow/vfw_errors.h"
#include "tests/support/composer_fixture.h"

namespace {

class ComposeTest : public testing::Test {
 protected:
  ComposeTest() {
    HRESULT hr = S_OK;
    composer_ = static_cast<CCompose*>(CCompose::CreateInstance(nullptr, &hr));
    filter_ = ComPtr<IBaseFilter>(composer_);
  }
  void TearDown() override {
    filter_.Reset();
    EXPECT_EQ(CUnknown::ObjectsActive(), 0);
  }
  std::string NameAt(int position) {
    CBasePin* const pin = composer_->GetPin(position);
    return pin == nullptr ? "-" : std::string(pin->Name().begin(), pin->Name().end());
  }

  CCompose* composer_ = nullptr;
  ComPtr<IBaseFilter> filter_;
  RecordingLogger logger_;
};

TEST_F(ComposeTest, ShowsItsPinsInTheirFixedOrder) {
  EXPECT_EQ(composer_->GetPinCount(), 2);
  EXPECT_EQ(NameAt(0), "InputBG");
  EXPECT_EQ(NameAt(1), "Composition");
  EXPECT_EQ(NameAt(2), "-");
  EXPECT_EQ(NameAt(-1), "-");
  composer_->AddInput(0, nullptr);
  composer_->AddInput(1, nullptr);
  EXPECT_EQ(composer_->GetPinCount(), 14);
  const char* const expected[] = {"InputVideo0",
                                  "InputAudio0",
                                  "UTF8 Text",
                                  "OutputAudio0",
                                  "Video Alarm",
                                  "Audio Alarm",
                                  "InputVideo1",
                                  "InputAudio1",
                                  "UTF8 Text",
                                  "OutputAudio1",
                                  "Video Alarm",
                                  "Audio Alarm",
                                  "-"};
  for (int i = 0; i < 13; ++i) {
    EXPECT_EQ(NameAt(2 + i), expected[i]);
  }
}

TEST_F(ComposeTest, ReachesNoPinsBehindAGapInTheIndices) {
  composer_->AddInput(0, nullptr);
  composer_->AddInput(5, nullptr);
  EXPECT_EQ(composer_->GetPinCount(), 14);
  EXPECT_EQ(NameAt(7), "Audio Alarm");
  for (int i = 8; i < 14; ++i) {
    EXPECT_EQ(NameAt(i), "-");
  }
  EXPECT_EQ(NameAt(2 + 6 * 5), "InputVideo5");
  // A host that enumerates gets the pins that are there and is not led astray by the others.
  ComPtr<IEnumPins> pins;
  filter_->EnumPins(pins.Put());
  std::vector<IPin*> found(20);
  ULONG fetched = 0;
  EXPECT_EQ(pins->Next(20, found.data(), &fetched), S_FALSE);
  EXPECT_EQ(fetched, 8U);
  for (ULONG i = 0; i < fetched; ++i) {
    found[i]->Release();
  }
}

TEST_F(ComposeTest, AddingAnInputAgainMakesItsPinsAnewAndKeepsOneReferenceToItsWindow) {
  const ComPtr<fakes::Window> window = fakes::Window::Create();
  const LONG version = composer_->GetPinVersion();
  composer_->AddInput(0, static_cast<IComposeWindow*>(window.Get()));
  window->AddRef();
  EXPECT_EQ(window->Release(), 2U);
  composer_->AddInput(0, static_cast<IComposeWindow*>(window.Get()));
  window->AddRef();
  EXPECT_EQ(window->Release(), 2U);
  EXPECT_EQ(composer_->GetPinCount(), 8);
  EXPECT_EQ(composer_->GetPinVersion(), version + 2);
  composer_->AddInput(0, nullptr);
  window->AddRef();
  EXPECT_EQ(window->Release(), 1U);
}

TEST_F(ComposeTest, LooksUpTheInputPinsOfAnIndex) {
  IPin* const untouched = reinterpret_cast<IPin*>(0x8);
  IPin* video = untouched;
  IPin* audio = untouched;
  IPin* videoAlarm = untouched;
  IPin* audioAlarm = untouched;
  IPin* text = untouched;
  const auto look = [&](LONG index) {
    return composer_->GetInputPins(index, &video, &audio, &videoAlarm, &audioAlarm, &text);
  };
  EXPECT_EQ(look(7), S_FALSE);
  EXPECT_EQ(video, untouched);
  composer_->AddInput(0, nullptr);
  ASSERT_EQ(look(0), S_OK);
  EXPECT_EQ(video, static_cast<IPin*>(composer_->GetPin(2)));
  EXPECT_EQ(audio, static_cast<IPin*>(composer_->GetPin(3)));
  EXPECT_EQ(text, static_cast<IPin*>(composer_->GetPin(4)));
  EXPECT_EQ(videoAlarm, static_cast<IPin*>(composer_->GetPin(6)));
  EXPECT_EQ(audioAlarm, static_cast<IPin*>(composer_->GetPin(7)));
}

TEST_F(ComposeTest, RefusesAConfigurationThatItCannotKeep) {
  EXPECT_EQ(composer_->Configure(-1, &logger_, 64, 64, 16, 9, 0, {25, 1}), E_INVALIDARG);
  EXPECT_EQ(composer_->Configure(1, &logger_, 64, 64, 0, 0, 0, {25, 1}), E_INVALIDARG);
  EXPECT_EQ(composer_->Configure(1, nullptr, 64, 64, 16, 9, 0, {25, 1}), S_OK)
      << "without a logger the composer keeps its own";
}

TEST_F(ComposeTest, PausesAndEndsWithoutEverHavingBeenConfigured) {
  EXPECT_EQ(filter_->Pause(), E_FAIL) << "there is no background";
  FILTER_STATE state{};
  filter_->GetState(0, &state);
  EXPECT_EQ(state, State_Paused);
  EXPECT_EQ(filter_->Pause(), S_OK);
}

// The aspect ratio shows in the type that the output offers.
class AspectTest : public ComposerFixture {
 protected:
  std::pair<int, int> AspectOf(LONG numerator, LONG denominator) {
    EXPECT_EQ(
        composer_->Configure(0, &logger_, kWidth, kHeight, numerator, denominator, 0, {25, 1}),
        S_OK);
    CMediaType type;
    EXPECT_EQ(composer_->GetPin(1)->GetMediaType(0, &type), S_OK);
    const auto* const header = reinterpret_cast<VIDEOINFOHEADER2*>(type.pbFormat);
    return {static_cast<int>(header->dwPictAspectRatioX),
            static_cast<int>(header->dwPictAspectRatioY)};
  }
};

TEST_F(AspectTest, IsKeptInItsLowestTerms) {
  Make(0);
  ConnectBackground();
  EXPECT_EQ(AspectOf(32, 18), std::pair(16, 9));
  EXPECT_EQ(AspectOf(1920, 1080), std::pair(16, 9));
  EXPECT_EQ(AspectOf(4, 0), std::pair(1, 0));
  EXPECT_EQ(AspectOf(0, 5), std::pair(0, 1));
  EXPECT_EQ(AspectOf(-16, 9), std::pair(16, -9));
}

}  // namespace
