#include <gmock/gmock.h>

#include "platform/dshow/vfw_errors.h"
#include "tests/support/composer_fixture.h"
#include "tests/support/foreign_sample.h"

namespace {

class AlarmPinsTest : public ComposerFixture {
 protected:
  void SetUp() override {
    Make(1);
    text_ = ConnectSide(PositionOfText(0));
    videoAlarm_ = ConnectSide(PositionOfVideoAlarm(0));
    audioAlarm_ = ConnectSide(PositionOfAudioAlarm(0));
  }
  void TearDown() override {
    text_ = videoAlarm_ = audioAlarm_ = {};
    ComposerFixture::TearDown();
  }
  HRESULT Send(fakes::Source& source, std::string_view payload,
               std::optional<REFERENCE_TIME> start) {
    const ComPtr<IMediaSample> sample =
        source.NewSample(start, start.has_value() ? std::optional(*start + 1) : std::nullopt);
    std::copy(payload.begin(), payload.end(), Pixels(sample.Get()));
    sample->SetActualDataLength(static_cast<LONG>(payload.size()));
    return source.Send(sample.Get());
  }
  template <typename T>
  std::optional<T> Nearest(int position, REFERENCE_TIME time) {
    std::optional<T> record;
    static_cast<CComposeAlarmInputPin<T>*>(composer_->GetPin(position))->getNearest(time, &record);
    return record;
  }
  std::optional<std::string> NearestText(REFERENCE_TIME time) {
    const auto text = Nearest<UTF8TextSampleType>(4, time);
    return text.has_value() ? std::optional(std::string(text->begin(), text->end())) : std::nullopt;
  }

  ComPtr<fakes::Source> text_;
  ComPtr<fakes::Source> audioAlarm_;
  ComPtr<fakes::Source> videoAlarm_;
};

TEST_F(AlarmPinsTest, AcceptTheirOwnTypeOnly) {
  for (const auto& [position, major] : {std::pair{4, "{67CA2076-1596-47C6-A96A-85D792ACAA53}"},
                                        {6, "{AE3CE0F0-0DCD-4223-88BA-8E2863E65A18}"},
                                        {7, "{053A2D3B-77A2-4DF3-B46F-402171A81F59}"}}) {
    CBasePin& pin = *composer_->GetPin(position);
    CMediaType own;
    own.lSampleSize = 77;
    EXPECT_EQ(pin.GetMediaType(0, &own), S_OK);
    EXPECT_EQ(GuidToString(own.majortype), major);
    EXPECT_EQ(own.lSampleSize, 77U) << "only the two types are written";
    own.SetSubtype(&GUID_NULL);
    EXPECT_EQ(pin.CheckMediaType(&own), VFW_E_TYPE_NOT_ACCEPTED);
    const CMediaType foreign = fakes::TypeOf(MEDIATYPE_Audio, MEDIASUBTYPE_None);
    EXPECT_EQ(pin.CheckMediaType(&foreign), VFW_E_TYPE_NOT_ACCEPTED);
  }
}

TEST_F(AlarmPinsTest, HandOutTheNearestRecordAndDropOlderOnes) {
  Send(*text_, "one", 100);
  Send(*text_, "two", 200);
  EXPECT_EQ(NearestText(150), "one") << "a tie goes to the earlier";
  EXPECT_EQ(NearestText(150), "two") << "and what was older is gone";
  EXPECT_EQ(NearestText(201), "two");
  EXPECT_EQ(NearestText(202), std::nullopt);
  Send(*text_, "late", 400);
  Send(*text_, "early", 300);
  EXPECT_EQ(NearestText(390), "early") << "time went back";
}

TEST_F(AlarmPinsTest, RefuseRecordsWithoutATimeOrTooShortOrThatLieAboutThemselves) {
  EXPECT_EQ(Send(*text_, "x", std::nullopt), VFW_E_SAMPLE_TIME_NOT_SET);
  EXPECT_EQ(Send(*audioAlarm_, std::string(84, '\1'), 5), E_FAIL);
  EXPECT_EQ(Send(*videoAlarm_, "\1", 5), E_FAIL);
  for (fakes::Source* const source : {text_.Get(), audioAlarm_.Get(), videoAlarm_.Get()}) {
    const ComPtr<fakes::ForeignSample> sample = fakes::ForeignSample::Create(90);
    REFERENCE_TIME time = 5;
    sample->SetTime(&time, &time);
    for (const LONG length : {-1, 91, std::numeric_limits<LONG>::max()}) {
      sample->length = length;
      EXPECT_EQ(source->Send(sample.Get()), E_FAIL) << length;
    }
    sample->length = 90;
    sample->hasBuffer = false;
    EXPECT_EQ(source->Send(sample.Get()), E_POINTER);
    sample->hasBuffer = true;
    sample->mediaType = S_OK;
    EXPECT_EQ(source->Send(sample.Get()), VFW_E_INVALIDMEDIATYPE);
  }
  EXPECT_EQ(NearestText(5), std::nullopt);
  EXPECT_FALSE(Nearest<AudioAlarm>(7, 5).has_value());
  EXPECT_FALSE(Nearest<VideoAlarm>(6, 5).has_value());
  EXPECT_EQ(Send(*text_, "", 5), S_OK) << "a text may be empty";
  EXPECT_EQ(NearestText(5), "");
}

TEST_F(AlarmPinsTest, ReadTheWireForms) {
  std::string wire(90, '\0');
  wire[0] = 1;
  wire[2] = 1;
  wire[3] = 1;
  wire[4] = 2;
  wire.replace(5, 4, std::string("\x00\x00\x03\xE8", 4));
  wire.replace(5 + 36, 4, std::string("\xFF\xFF\xFF\xFE", 4));
  wire.replace(45, 4, std::string("\x01\x02\x03\x04", 4));
  ASSERT_EQ(Send(*audioAlarm_, wire, 5), S_OK);
  const auto audio = Nearest<AudioAlarm>(7, 5);
  ASSERT_TRUE(audio.has_value());
  EXPECT_TRUE(audio->IsRaised());
  EXPECT_EQ(audio->alarmCondition1, 0);
  EXPECT_EQ(audio->channelCount, 2);
  EXPECT_EQ(audio->levels[0], 1000);
  EXPECT_EQ(audio->levels[9], -2);
  EXPECT_EQ(audio->peaks[0], 0x01020304);

  ASSERT_EQ(Send(*videoAlarm_, std::string("\x01\x00\x05", 3), 5), S_OK);
  const auto video = Nearest<VideoAlarm>(6, 5);
  EXPECT_EQ(video->alarm, 1);
  EXPECT_EQ(video->extra, 0);
}

TEST_F(AlarmPinsTest, MoveTheirTimesAsTheWindowDoes) {
  ConnectBackground();
  ConnectWindow(0, 16, 16);
  SetPresent(5000000);
  ASSERT_EQ(SendPicture(0, 0, 0), S_OK);
  Send(*text_, "label", 1000000);
  EXPECT_EQ(NearestText(16000000), "label");
  EXPECT_EQ(NearestText(16000001), "label") << "kept until a frame has passed it";
  EXPECT_EQ(NearestText(16000002), std::nullopt);
}

}  // namespace
