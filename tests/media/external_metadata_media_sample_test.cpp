#include "media/external_metadata_media_sample.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/baseclasses/allocator.h"
#include "platform/dshow/vfw_errors.h"
#include "tests/support/foreign_sample.h"
#include "util/exceptions.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr LONG kBytes = 64;

// A sample of the platform's own, and the allocator that it belongs to.
class ExternalMetaDataMediaSample : public testing::Test {
 protected:
  void SetUp() override {
    ALLOCATOR_PROPERTIES wanted{1, kBytes, 1, 0};
    ALLOCATOR_PROPERTIES actual{};
    ASSERT_EQ(allocator->SetProperties(&wanted, &actual), S_OK);
    ASSERT_EQ(allocator->Commit(), S_OK);
    ASSERT_EQ(allocator->GetBuffer(sample.Put(), nullptr, nullptr, 0), S_OK);
  }
  void TearDown() override {
    sample.Reset();
    allocator->Decommit();
  }

  ComPtr<IMemAllocator> allocator = CMemAllocator::Create();
  ComPtr<IMediaSample> sample;
};

OwnedMediaType TypeOf(IMediaSample* of) {
  AM_MEDIA_TYPE* type = nullptr;
  const HRESULT hr = of->GetMediaType(&type);
  EXPECT_EQ(hr, type == nullptr ? S_FALSE : S_OK);
  return OwnedMediaType(type);
}

std::vector<BYTE> PropertyOf(IMediaSample3* of, LONG id) {
  const BYTE* bytes = nullptr;
  ULONG length = 99;
  if (FAILED(of->GetProperty(id, &bytes, &length))) {
    EXPECT_EQ(bytes, nullptr);
    return {};
  }
  return {bytes, bytes + length};
}

TEST_F(ExternalMetaDataMediaSample, ShowsTheWrappedDataUnderATypeOfItsOwn) {
  const auto wrapper = CExternalMetaDataMediaSample::Create(sample.Get());
  EXPECT_EQ(TypeOf(wrapper.Get()), nullptr);
  CMediaType type(&MEDIATYPE_Video);
  const BYTE format[] = {1, 2, 3};
  type.SetFormat(format, sizeof(format));
  ASSERT_EQ(wrapper->SetMediaType(&type), S_OK);
  type.SetType(&MEDIATYPE_Audio);
  const OwnedMediaType seen = TypeOf(wrapper.Get());
  ASSERT_NE(seen, nullptr);
  EXPECT_EQ(seen->majortype, MEDIATYPE_Video);
  EXPECT_EQ(seen->cbFormat, 3U);
  EXPECT_EQ(TypeOf(sample.Get()), nullptr);

  BYTE* data = nullptr;
  BYTE* wrapped = nullptr;
  ASSERT_EQ(sample->GetPointer(&data), S_OK);
  ASSERT_EQ(wrapper->GetPointer(&wrapped), S_OK);
  EXPECT_EQ(wrapped, data);
  EXPECT_EQ(wrapper->GetSize(), kBytes);
  ASSERT_EQ(wrapper->SetActualDataLength(17), S_OK);
  EXPECT_EQ(sample->GetActualDataLength(), 17);
  EXPECT_EQ(wrapper->SetActualDataLength(kBytes + 1), VFW_E_BUFFER_OVERFLOW);
  EXPECT_EQ(wrapper->GetActualDataLength(), 17);

  ASSERT_EQ(wrapper->SetMediaType(nullptr), S_OK);
  EXPECT_EQ(TypeOf(wrapper.Get()), nullptr);
}

TEST_F(ExternalMetaDataMediaSample, NeverHandsOutTheTypeOfTheWrappedSample) {
  CMediaType type(&MEDIATYPE_Audio);
  ASSERT_EQ(sample->SetMediaType(&type), S_OK);
  const auto wrapper = CExternalMetaDataMediaSample::Create(sample.Get());
  EXPECT_EQ(TypeOf(wrapper.Get()), nullptr);
  // Only the structure of all properties still tells of it, until a type is attached.
  const auto sample2 = wrapper.As<IMediaSample2>();
  AM_SAMPLE2_PROPERTIES all{};
  ASSERT_EQ(sample2->GetProperties(sizeof(all), reinterpret_cast<BYTE*>(&all)), S_OK);
  ASSERT_NE(all.pMediaType, nullptr);
  EXPECT_EQ(all.pMediaType->majortype, MEDIATYPE_Audio);
  type.SetType(&MEDIATYPE_Video);
  ASSERT_EQ(wrapper->SetMediaType(&type), S_OK);
  ASSERT_EQ(sample2->GetProperties(sizeof(all), reinterpret_cast<BYTE*>(&all)), S_OK);
  EXPECT_EQ(all.pMediaType->majortype, MEDIATYPE_Video);
  EXPECT_EQ(TypeOf(sample.Get())->majortype, MEDIATYPE_Audio);
}

TEST_F(ExternalMetaDataMediaSample, TakesTimesAndFlagsOverOnceAndThenKeepsItsOwn) {
  REFERENCE_TIME start = 100;
  REFERENCE_TIME stop = 200;
  LONGLONG first = 7;
  LONGLONG last = 8;
  sample->SetTime(&start, &stop);
  sample->SetMediaTime(&first, &last);
  sample->SetSyncPoint(TRUE);
  sample->SetDiscontinuity(TRUE);
  const auto wrapper = CExternalMetaDataMediaSample::Create(sample.Get());
  REFERENCE_TIME a = 0;
  REFERENCE_TIME b = 0;
  EXPECT_EQ(wrapper->GetTime(&a, &b), S_OK);
  EXPECT_THAT((std::vector{a, b}), ElementsAre(100, 200));
  EXPECT_EQ(wrapper->GetMediaTime(&a, &b), S_OK);
  EXPECT_THAT((std::vector{a, b}), ElementsAre(7, 8));
  EXPECT_EQ(wrapper->IsSyncPoint(), S_OK);
  EXPECT_EQ(wrapper->IsPreroll(), S_FALSE);
  EXPECT_EQ(wrapper->IsDiscontinuity(), S_OK);

  start = 300;
  wrapper->SetTime(&start, nullptr);
  wrapper->SetMediaTime(nullptr, nullptr);
  wrapper->SetSyncPoint(FALSE);
  wrapper->SetPreroll(TRUE);
  wrapper->SetDiscontinuity(FALSE);
  EXPECT_EQ(wrapper->GetTime(&a, &b), VFW_S_NO_STOP_TIME);
  EXPECT_THAT((std::vector{a, b}), ElementsAre(300, 301));
  EXPECT_EQ(wrapper->GetMediaTime(&a, &b), VFW_E_MEDIA_TIME_NOT_SET);
  EXPECT_EQ(wrapper->IsSyncPoint(), S_FALSE);
  EXPECT_EQ(wrapper->IsPreroll(), S_OK);
  EXPECT_EQ(wrapper->IsDiscontinuity(), S_FALSE);
  EXPECT_EQ(sample->GetTime(&a, &b), S_OK);
  EXPECT_THAT((std::vector{a, b}), ElementsAre(100, 200));
  EXPECT_EQ(sample->GetMediaTime(&a, &b), S_OK);
  EXPECT_EQ(sample->IsSyncPoint(), S_OK);
  EXPECT_EQ(sample->IsPreroll(), S_FALSE);
}

TEST_F(ExternalMetaDataMediaSample, WrapsSamplesWithAStartAloneOrNoTimeAtAll) {
  REFERENCE_TIME a = 0;
  REFERENCE_TIME b = 0;
  EXPECT_EQ(CExternalMetaDataMediaSample::Create(sample.Get())->GetTime(&a, &b),
            VFW_E_SAMPLE_TIME_NOT_SET);
  REFERENCE_TIME start = 100;
  sample->SetTime(&start, nullptr);
  EXPECT_EQ(CExternalMetaDataMediaSample::Create(sample.Get())->GetTime(&a, &b),
            VFW_S_NO_STOP_TIME);
  EXPECT_EQ(a, 100);
}

TEST_F(ExternalMetaDataMediaSample, KeepsCopiesOfPropertiesAndHandsThemToItsOwnWrapper) {
  const auto wrapper = CExternalMetaDataMediaSample::Create(sample.Get());
  const auto store = wrapper.As<IMediaSample3>();
  ASSERT_TRUE(store);
  EXPECT_EQ(store->GetProperty(3, nullptr, nullptr), E_POINTER);
  EXPECT_THAT(PropertyOf(store.Get(), 3), IsEmpty());
  BYTE bytes[] = {1, 2, 3, 4};
  ASSERT_EQ(store->SetProperty(3, bytes, 4), S_OK);
  bytes[0] = 9;
  EXPECT_THAT(PropertyOf(store.Get(), 3), ElementsAre(1, 2, 3, 4));
  ASSERT_EQ(store->SetProperty(3, bytes, 1), S_OK);
  EXPECT_THAT(PropertyOf(store.Get(), 3), ElementsAre(9));
  EXPECT_EQ(store->SetProperty(4, nullptr, 1), E_POINTER);

  const auto outer = CExternalMetaDataMediaSample::Create(wrapper.Get()).As<IMediaSample3>();
  EXPECT_EQ(store->RemoveProperty(3), S_OK);
  EXPECT_EQ(store->RemoveProperty(3), S_OK);
  EXPECT_THAT(PropertyOf(store.Get(), 3), IsEmpty());
  EXPECT_THAT(PropertyOf(outer.Get(), 3), ElementsAre(9));
}

TEST_F(ExternalMetaDataMediaSample, ReadsAndWritesAllOfItsPropertiesAtOnce) {
  const auto wrapper = CExternalMetaDataMediaSample::Create(sample.Get());
  const auto sample2 = wrapper.As<IMediaSample2>();
  AM_SAMPLE2_PROPERTIES all{};
  const auto read = [&] {
    ASSERT_EQ(sample2->GetProperties(sizeof(all), reinterpret_cast<BYTE*>(&all)), S_OK);
  };
  read();
  EXPECT_EQ(all.cbData, sizeof(all));
  EXPECT_EQ(all.cbBuffer, kBytes);
  EXPECT_EQ(all.dwSampleFlags, 0U);
  CMediaType type(&MEDIATYPE_Video);
  all.lActual = 5;
  all.tStart = 10;
  all.tStop = 20;
  all.dwStreamId = 3;
  all.pMediaType = &type;
  all.dwSampleFlags = AM_SAMPLE_TIMEVALID | AM_SAMPLE_STOPVALID | AM_SAMPLE_PREROLL;
  ASSERT_EQ(sample2->SetProperties(sizeof(all), reinterpret_cast<const BYTE*>(&all)), S_OK);
  REFERENCE_TIME a = 0;
  REFERENCE_TIME b = 0;
  EXPECT_EQ(wrapper->GetTime(&a, &b), S_OK);
  EXPECT_THAT((std::vector{a, b}), ElementsAre(10, 20));
  EXPECT_EQ(wrapper->IsPreroll(), S_OK);
  EXPECT_EQ(sample->GetActualDataLength(), 5);
  EXPECT_EQ(TypeOf(wrapper.Get())->majortype, MEDIATYPE_Video);
  read();
  EXPECT_EQ(all.dwStreamId, 3U);
  EXPECT_NE(all.pMediaType, &type);
  EXPECT_EQ(all.dwSampleFlags & AM_SAMPLE_TYPECHANGED, AM_SAMPLE_TYPECHANGED);
  // Writing back what was read, or the first bytes of it, changes nothing.
  ASSERT_EQ(sample2->SetProperties(16, reinterpret_cast<const BYTE*>(&all)), S_OK);
  EXPECT_EQ(TypeOf(wrapper.Get())->majortype, MEDIATYPE_Video);
  all.pbBuffer += 1;
  EXPECT_EQ(sample2->SetProperties(sizeof(all), reinterpret_cast<const BYTE*>(&all)), E_INVALIDARG);
}

TEST_F(ExternalMetaDataMediaSample, HoldsItsSampleUntilItsOwnLastReference) {
  auto wrapper = CExternalMetaDataMediaSample::Create(sample.Get());
  EXPECT_EQ(wrapper.As<IMemAllocator>().Get(), nullptr);
  auto store = wrapper.As<IMediaSample3>();
  EXPECT_TRUE(IsSameObject(wrapper.Get(), store.Get()));
  sample.Reset();
  wrapper.Reset();
  ComPtr<IMediaSample> next;
  EXPECT_EQ(allocator->GetBuffer(next.Put(), nullptr, nullptr, AM_GBF_NOWAIT), VFW_E_TIMEOUT);
  store.Reset();
  EXPECT_EQ(allocator->GetBuffer(next.Put(), nullptr, nullptr, AM_GBF_NOWAIT), S_OK);
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
  // It need not tell all its properties at once.
  const ComPtr<fakes::ForeignSample> sample = fakes::ForeignSample::Create(4);
  sample->allProperties = E_NOTIMPL;
  EXPECT_TRUE(CExternalMetaDataMediaSample::Create(sample.Get()));
}

}  // namespace
