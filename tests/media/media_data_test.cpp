#include "media/media_data.h"

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "media/external_metadata_media_sample.h"
#include "platform/baseclasses/allocator.h"
#include "platform/dshow/vfw_errors.h"

namespace {

class MediaDataOfASample : public testing::Test {
 protected:
  void SetUp() override {
    ALLOCATOR_PROPERTIES wanted{1, 64, 1, 0};
    ALLOCATOR_PROPERTIES actual{};
    ASSERT_EQ(allocator->SetProperties(&wanted, &actual), S_OK);
    ASSERT_EQ(allocator->Commit(), S_OK);
    ASSERT_EQ(allocator->GetBuffer(plain.Put(), nullptr, nullptr, 0), S_OK);
    wrapper = CExternalMetaDataMediaSample::Create(plain.Get());
  }

  ComPtr<IMemAllocator> allocator = CMemAllocator::Create();
  ComPtr<IMediaSample> plain;
  ComPtr<IMediaSample> wrapper;  // with a property store
};

TEST_F(MediaDataOfASample, SaysWhichPropertyNeedsTheProductsInterface) {
  const auto data = MediaData::Create(plain.Get());
  for (const auto& [access, subject] : std::vector<std::pair<std::function<void()>, std::string>>{
           {[&] { data->GetCuePoint(); }, "Cue Point"},
           {[&] { data->SetCuePoint({}); }, "Cue Point"},
           {[&] { data->SetSampleDate({}); }, "Sample Date"},
           {[&] { data->GetDataId(); }, "DataId"},
           {[&] { data->GetDolbyMetadata(); }, "DolbyMetadata"},
           {[&] { data->GetParentalRating(); }, "\"Parental Rating\""},
           {[&] { data->SetRecordingEvent({}); }, "recording event"}}) {
    try {
      access();
      ADD_FAILURE() << "no exception for " << subject;
    } catch (const std::exception& error) {
      EXPECT_EQ(error.what(), subject + " management needs IMediaSample3 interface");
    }
  }
}

TEST_F(MediaDataOfASample, StoresEachPropertyUnderItsOwnNumberAndLength) {
  const auto data = MediaData::Create(wrapper.Get());
  EXPECT_FALSE(data->GetCuePoint());
  EXPECT_FALSE(data->GetRecordingEvent());
  const auto filled = [](auto value, BYTE with) {
    value.fill(with);
    value.back() = static_cast<BYTE>(with + 100);
    return value;
  };
  data->SetCuePoint(filled(CuePoint{}, 1));
  data->SetSampleDate(filled(SampleDate{}, 2));
  data->SetDataId(filled(DataId{}, 3));
  data->SetDolbyMetadata(filled(DolbyMetadata{}, 4));
  data->SetParentalRating(filled(ParentalRating{}, 5));
  data->SetRecordingEvent(filled(RecordingEvent{}, 6));
  EXPECT_EQ(data->GetCuePoint(), filled(CuePoint{}, 1));
  EXPECT_EQ(data->GetSampleDate(), filled(SampleDate{}, 2));
  EXPECT_EQ(data->GetDataId(), filled(DataId{}, 3));
  EXPECT_EQ(data->GetDolbyMetadata(), filled(DolbyMetadata{}, 4));
  EXPECT_EQ(data->GetParentalRating(), filled(ParentalRating{}, 5));
  EXPECT_EQ(data->GetRecordingEvent(), filled(RecordingEvent{}, 6));
  const auto store = wrapper.As<IMediaSample3>();
  const ULONG lengths[] = {24, 8, 8, 84, 5144, 2};
  for (LONG id = 0; id < 6; ++id) {
    const BYTE* bytes = nullptr;
    ULONG length = 0;
    ASSERT_EQ(store->GetProperty(id, &bytes, &length), S_OK);
    EXPECT_EQ(length, lengths[id]);
    EXPECT_EQ(bytes[0], id + 1);
  }
  // Somebody else's idea of a property is not read as ours.
  const BYTE odd[] = {1, 2, 3};
  store->SetProperty(1, odd, 3);
  EXPECT_THROW(data->GetSampleDate(), MediaDataError);
}

TEST_F(MediaDataOfASample, ForwardsToItsSampleAndHoldsItsReference) {
  auto data = MediaData2::Create(plain.Get());
  EXPECT_EQ(data->Sample(), plain.Get());
  REFERENCE_TIME start = 5;
  EXPECT_EQ(data->SetTime(&start, nullptr), S_OK);
  EXPECT_EQ(data->SetActualDataLength(9), S_OK);
  EXPECT_EQ(data->SetSyncPoint(TRUE), S_OK);
  EXPECT_EQ(plain->GetActualDataLength(), 9);
  EXPECT_EQ(plain->IsSyncPoint(), S_OK);
  EXPECT_EQ(data->IsPreroll(), S_FALSE);
  AM_SAMPLE2_PROPERTIES all{};
  ASSERT_EQ(data->GetProperties(sizeof(all), reinterpret_cast<BYTE*>(&all)), S_OK);
  EXPECT_EQ(all.tStart, 5);
  all.tStart = 6;
  ASSERT_EQ(data->SetProperties(sizeof(all), reinterpret_cast<const BYTE*>(&all)), S_OK);
  REFERENCE_TIME stop = 0;
  EXPECT_EQ(data->GetTime(&start, &stop), VFW_S_NO_STOP_TIME);
  EXPECT_EQ(start, 6);

  EXPECT_EQ(data->AddRef(), 2U);
  EXPECT_EQ(data->Release(), 1U);
  wrapper.Reset();
  plain.Reset();
  ComPtr<IMediaSample> next;
  EXPECT_EQ(allocator->GetBuffer(next.Put(), nullptr, nullptr, AM_GBF_NOWAIT), VFW_E_TIMEOUT);
  data.Reset();
  EXPECT_EQ(allocator->GetBuffer(next.Put(), nullptr, nullptr, AM_GBF_NOWAIT), S_OK);
}

}  // namespace
