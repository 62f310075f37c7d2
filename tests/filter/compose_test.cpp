#include <array>

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

TEST_F(ComposeTest, ShowsItsPinsInTheirFixedOrderAndNoneBehindAGap) {
  EXPECT_EQ(NameAt(2), "-");
  EXPECT_EQ(NameAt(-1), "-");
  composer_->AddInput(0, nullptr);
  composer_->AddInput(5, nullptr);
  EXPECT_EQ(composer_->GetPinCount(), 14);
  const char* const expected[] = {"InputBG",     "Composition", "InputVideo0",
                                  "InputAudio0", "UTF8 Text",   "OutputAudio0",
                                  "Video Alarm", "Audio Alarm", "-"};
  for (int i = 0; i < 9; ++i) {
    EXPECT_EQ(NameAt(i), expected[i]);
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

TEST_F(ComposeTest, AddingAnInputAgainMakesItsPinsAgainAndKeepsOneReferenceToItsWindow) {
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
  std::array<IPin*, 5> pins{};  // video, audio, video alarm, audio alarm, text
  const auto look = [&](LONG index) {
    return composer_->GetInputPins(index, &pins[0], &pins[1], &pins[2], &pins[3], &pins[4]);
  };
  EXPECT_EQ(look(7), S_FALSE);
  EXPECT_EQ(pins[0], nullptr);
  composer_->AddInput(0, nullptr);
  ASSERT_EQ(look(0), S_OK);
  const std::array<int, 5> positions{2, 3, 6, 7, 4};
  for (std::size_t i = 0; i < pins.size(); ++i) {
    EXPECT_EQ(pins[i], static_cast<IPin*>(composer_->GetPin(positions[i])));
  }
}

TEST_F(ComposeTest, RefusesAConfigurationThatItCannotKeep) {
  EXPECT_EQ(composer_->Configure(-1, &logger_, 64, 64, 16, 9, 0, {25, 1}), E_INVALIDARG);
  EXPECT_EQ(composer_->Configure(1, &logger_, 64, 64, 0, 0, 0, {25, 1}), E_INVALIDARG);
  EXPECT_EQ(composer_->Configure(1, nullptr, 64, 64, 16, 9, 0, {25, 1}), S_OK)
      << "without a logger the composer keeps its own";
}

TEST_F(ComposeTest, PausesAndEndsWithoutEverHavingBeenConfigured) {
  EXPECT_EQ(filter_->Pause(), E_FAIL) << "there is no background";
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
  EXPECT_EQ(AspectOf(4, 0), std::pair(1, 0));
  EXPECT_EQ(AspectOf(0, 5), std::pair(0, 1));
  EXPECT_EQ(AspectOf(-16, 9), std::pair(16, -9));
}

}  // namespace
