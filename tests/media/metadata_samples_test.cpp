// A sample's data under times, flags, a type and properties of the wrapper's own, and the typed
// access to those properties.
#include "media/metadata_samples.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/baseclasses/media_sample.h"
#include "platform/dshow/vfw_errors.h"
#include "tests/support/fake_filters.h"
#include "tests/support/foreign_sample.h"
#include "util/exceptions.h"

namespace {

using fakes::TimesOf;
using fakes::TypeOf;
using testing::Pair;

constexpr LONG kBytes = 64;

// A sample of the platform's own, and the allocator that it belongs to.
class WrappedSampleTest : public testing::Test {
 protected:
  void SetUp() override {
    ALLOCATOR_PROPERTIES wanted{1, kBytes, 1, 0};
    ALLOCATOR_PROPERTIES actual{};
    ASSERT_EQ(allocator->SetProperties(&wanted, &actual), S_OK);
    ASSERT_EQ(allocator->Commit(), S_OK);
    ASSERT_EQ(allocator->GetBuffer(sample.Put(), nullptr, nullptr, 0), S_OK);
  }
  static AM_SAMPLE2_PROPERTIES PropertiesOf(IMediaSample* of) {
    AM_SAMPLE2_PROPERTIES all{};
    EXPECT_EQ(
        QueryFor<IMediaSample2>(of)->GetProperties(sizeof(all), reinterpret_cast<BYTE*>(&all)),
        S_OK);
    return all;
  }

  ComPtr<IMemAllocator> allocator = CMemAllocator::Create();
  ComPtr<IMediaSample> sample;
};

TEST_F(WrappedSampleTest, SharesItsDataAndHasAllElseOfItsOwn) {
  REFERENCE_TIME start = 100;
  REFERENCE_TIME stop = 200;
  CMediaType type(&MEDIATYPE_Audio);
  sample->SetTime(&start, &stop);
  sample->SetMediaTime(&start, &stop);
  sample->SetSyncPoint(TRUE);
  sample->SetDiscontinuity(TRUE);
  sample->SetMediaType(&type);
  auto wrapper = CExternalMetaDataMediaSample::Create(sample.Get());
  // Sync point, preroll, discontinuity, media time.
  const auto answersOf = [](IMediaSample* of) {
    LONGLONG from = 0;
    LONGLONG to = 0;
    return std::vector{of->IsSyncPoint(), of->IsPreroll(), of->IsDiscontinuity(),
                       of->GetMediaTime(&from, &to)};
  };
  EXPECT_THAT(TimesOf(wrapper.Get()), Pair(100, 200));
  EXPECT_EQ(answersOf(wrapper.Get()), (std::vector{S_OK, S_FALSE, S_OK, S_OK}));
  // The wrapped sample's type shows in the structure of all properties only, until one is attached.
  EXPECT_EQ(TypeOf(wrapper.Get()).majortype, GUID_NULL);
  EXPECT_EQ(PropertiesOf(wrapper.Get()).pMediaType->majortype, MEDIATYPE_Audio);

  type.SetType(&MEDIATYPE_Video);
  ASSERT_EQ(wrapper->SetMediaType(&type), S_OK);
  start = 300;
  wrapper->SetTime(&start, nullptr);
  wrapper->SetMediaTime(nullptr, nullptr);
  wrapper->SetSyncPoint(FALSE);
  wrapper->SetPreroll(TRUE);
  wrapper->SetDiscontinuity(FALSE);
  EXPECT_EQ(TypeOf(wrapper.Get()).majortype, MEDIATYPE_Video);
  EXPECT_EQ(PropertiesOf(wrapper.Get()).pMediaType->majortype, MEDIATYPE_Video);
  EXPECT_THAT(TimesOf(wrapper.Get()), Pair(300, 301));
  EXPECT_EQ(answersOf(wrapper.Get()),
            (std::vector{S_FALSE, S_OK, S_FALSE, VFW_E_MEDIA_TIME_NOT_SET}));
  EXPECT_EQ(TypeOf(sample.Get()).majortype, MEDIATYPE_Audio);
  EXPECT_THAT(TimesOf(sample.Get()), Pair(100, 200));
  EXPECT_EQ(answersOf(sample.Get()), (std::vector{S_OK, S_FALSE, S_OK, S_OK}));

  BYTE* data = nullptr;
  BYTE* wrapped = nullptr;
  sample->GetPointer(&data);
  wrapper->GetPointer(&wrapped);
  EXPECT_EQ(wrapped, data);
  EXPECT_EQ(wrapper->GetSize(), kBytes);
  ASSERT_EQ(wrapper->SetActualDataLength(17), S_OK);
  EXPECT_EQ(sample->GetActualDataLength(), 17);
  for (const HRESULT found : {VFW_E_TIMEOUT, S_OK}) {
    sample.Reset();
    EXPECT_EQ(allocator->GetBuffer(sample.Put(), nullptr, nullptr, AM_GBF_NOWAIT), found);
    wrapper.Reset();
  }
}

TEST_F(WrappedSampleTest, ReadsAndWritesAllOfItsPropertiesAtOnce) {
  CMediaType type(&MEDIATYPE_Video);
  REFERENCE_TIME start = 3;
  sample->SetMediaType(&type);
  sample->SetTime(&start, nullptr);
  const auto wrapper = CExternalMetaDataMediaSample::Create(sample.Get());
  EXPECT_THAT(TimesOf(wrapper.Get()), Pair(3, 4));
  const auto write = [&](const AM_SAMPLE2_PROPERTIES& all, DWORD size = sizeof(all)) {
    return wrapper.As<IMediaSample2>()->SetProperties(size, reinterpret_cast<const BYTE*>(&all));
  };
  AM_SAMPLE2_PROPERTIES all = PropertiesOf(wrapper.Get());
  EXPECT_EQ(all.cbBuffer, kBytes);
  EXPECT_EQ(all.dwSampleFlags, AM_SAMPLE_TYPECHANGED | AM_SAMPLE_TIMEVALID) << "no stop";
  all.lActual = 5;
  all.tStart = 10;
  all.tStop = 20;
  all.dwStreamId = 3;
  all.dwSampleFlags = AM_SAMPLE_TIMEVALID | AM_SAMPLE_STOPVALID | AM_SAMPLE_PREROLL;
  ASSERT_EQ(write(all), S_OK);
  EXPECT_EQ(TypeOf(wrapper.Get()).majortype, GUID_NULL)
      << "the type of the wrapped sample stays its own";
  EXPECT_THAT(TimesOf(wrapper.Get()), Pair(10, 20));
  EXPECT_EQ(wrapper->IsPreroll(), S_OK);
  EXPECT_EQ(sample->GetActualDataLength(), 5);
  type.SetType(&MEDIATYPE_Audio);
  all.pMediaType = &type;
  ASSERT_EQ(write(all), S_OK);
  EXPECT_EQ(TypeOf(wrapper.Get()).majortype, MEDIATYPE_Audio);
  all = PropertiesOf(wrapper.Get());
  EXPECT_EQ(all.dwStreamId, 3U);
  EXPECT_NE(all.pMediaType, &type);
  ASSERT_EQ(write(all, 16), S_OK) << "the first bytes of it alone";
  EXPECT_EQ(TypeOf(wrapper.Get()).majortype, MEDIATYPE_Audio);
  all.pbBuffer += 1;
  EXPECT_EQ(write(all), E_INVALIDARG);
}

TEST(ForeignWrappedSample, IsReportedWithTheCodeOfItsAccessor) {
  using Answer = std::optional<HRESULT> fakes::ForeignSample::*;
  for (const auto& [answer, code] :
       {std::pair<Answer, HRESULT>{&fakes::ForeignSample::time, E_UNEXPECTED},
        {&fakes::ForeignSample::mediaTime, E_UNEXPECTED},
        {&fakes::ForeignSample::preroll, E_UNEXPECTED},
        {&fakes::ForeignSample::mediaType, E_UNEXPECTED},
        {&fakes::ForeignSample::mediaType, S_OK}}) {  // with no type
    const ComPtr<fakes::ForeignSample> sample = fakes::ForeignSample::Create(4);
    (*sample).*answer = code;
    try {
      CExternalMetaDataMediaSample::Create(sample.Get());
      ADD_FAILURE() << "no exception";
    } catch (const COMException& error) {
      EXPECT_EQ(error.code(), code == S_OK ? VFW_E_INVALIDMEDIATYPE : code);
    }
  }
}

}  // namespace
