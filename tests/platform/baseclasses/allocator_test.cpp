#include "platform/baseclasses/allocator.h"

#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "platform/dshow/vfw_errors.h"

namespace {

class AllocatorTest : public testing::Test {
 protected:
  ALLOCATOR_PROPERTIES Set(LONG count, LONG size, LONG align = 1, LONG prefix = 0) {
    ALLOCATOR_PROPERTIES request{count, size, align, prefix};
    ALLOCATOR_PROPERTIES actual{};
    EXPECT_EQ(allocator_->SetProperties(&request, &actual), S_OK);
    return actual;
  }
  ComPtr<IMediaSample> Get(DWORD flags = AM_GBF_NOWAIT) {
    ComPtr<IMediaSample> sample;
    result_ = allocator_->GetBuffer(sample.Put(), nullptr, nullptr, flags);
    return sample;
  }

  ComPtr<IMemAllocator> allocator_ = CMemAllocator::Create();
  HRESULT result_ = S_OK;
};

TEST_F(AllocatorTest, KeepsTheAlignmentOfEveryBufferBehindItsPrefix) {
  const ALLOCATOR_PROPERTIES actual = Set(3, 1000, 32, 20);
  EXPECT_EQ(actual.cBuffers, 3);
  EXPECT_GE(actual.cbBuffer, 1000);
  ASSERT_EQ(allocator_->Commit(), S_OK);
  for (const ComPtr<IMediaSample>& sample : {Get(), Get(), Get()}) {
    BYTE* data = nullptr;
    ASSERT_EQ(sample->GetPointer(&data), S_OK);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(data) % 32, 0U);
    data[-20] = 1;  // the prefix and the whole buffer are the sample's own
    data[sample->GetSize() - 1] = 1;
  }
}

TEST_F(AllocatorTest, RefusesPropertiesThatItCannotKeep) {
  ALLOCATOR_PROPERTIES actual{};
  ALLOCATOR_PROPERTIES odd{1, 16, 3, 0};
  EXPECT_EQ(allocator_->SetProperties(&odd, &actual), VFW_E_BADALIGN);
  ALLOCATOR_PROPERTIES none{1, 16, 0, 0};
  EXPECT_EQ(allocator_->SetProperties(&none, &actual), VFW_E_BADALIGN);
  ALLOCATOR_PROPERTIES negative{-1, 16, 1, 0};
  EXPECT_EQ(allocator_->SetProperties(&negative, &actual), E_INVALIDARG);
  EXPECT_EQ(allocator_->Commit(), VFW_E_SIZENOTSET);

  Set(2, 16);
  ASSERT_EQ(allocator_->Commit(), S_OK);
  ALLOCATOR_PROPERTIES more{4, 16, 1, 0};
  EXPECT_EQ(allocator_->SetProperties(&more, &actual), VFW_E_ALREADY_COMMITTED);
  const ComPtr<IMediaSample> outside = Get();
  EXPECT_EQ(allocator_->Decommit(), S_OK);
  EXPECT_EQ(allocator_->SetProperties(&more, &actual), VFW_E_BUFFERS_OUTSTANDING);
}

TEST_F(AllocatorTest, BlocksUntilASampleComesHome) {
  Set(1, 16);
  ASSERT_EQ(allocator_->Commit(), S_OK);
  ComPtr<IMediaSample> first = Get();
  std::promise<void> started;
  auto waiting = std::async(std::launch::async, [&] {
    started.set_value();
    ComPtr<IMediaSample> second;
    const HRESULT hr = allocator_->GetBuffer(second.Put(), nullptr, nullptr, 0);
    return std::pair(hr, second);
  });
  started.get_future().wait();
  first.Reset();
  ASSERT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready)
      << "the waiting GetBuffer never got the sample";
  EXPECT_EQ(waiting.get().first, S_OK);
}

TEST_F(AllocatorTest, DecommitEndsAWait) {
  Set(1, 16);
  // Sooner or later after the wait has begun.
  for (int round = 0; round < 50; ++round) {
    ASSERT_EQ(allocator_->Commit(), S_OK);
    ComPtr<IMediaSample> first = Get();
    std::promise<void> started;
    auto waiting = std::async(std::launch::async, [&] {
      started.set_value();
      ComPtr<IMediaSample> second;
      return allocator_->GetBuffer(second.Put(), nullptr, nullptr, 0);
    });
    started.get_future().wait();
    for (int i = 0; i < 10 * round; ++i) {
      std::this_thread::yield();
    }
    allocator_->Decommit();
    const std::future_status status = waiting.wait_for(std::chrono::seconds(10));
    first.Reset();
    ASSERT_EQ(status, std::future_status::ready) << "the wait has not ended";
    EXPECT_EQ(waiting.get(), VFW_E_NOT_COMMITTED);
  }
}

TEST_F(AllocatorTest, ASampleOutlivesDecommitAndTheLastReferenceToItsAllocator) {
  Set(2, 4096);
  ASSERT_EQ(allocator_->Commit(), S_OK);
  ComPtr<IMediaSample> sample = Get();
  allocator_->Decommit();
  allocator_.Reset();
  BYTE* data = nullptr;
  ASSERT_EQ(sample->GetPointer(&data), S_OK);
  std::fill_n(data, 4096, BYTE{7});
  sample.Reset();
  EXPECT_EQ(CUnknown::ObjectsActive(), 0);
}

TEST_F(AllocatorTest, ContinuesWithItsSamplesWhenCommittedAgainBeforeTheyAreHome) {
  Set(2, 16);
  ASSERT_EQ(allocator_->Commit(), S_OK);
  ComPtr<IMediaSample> early = Get();
  allocator_->Decommit();
  ASSERT_EQ(allocator_->Commit(), S_OK);
  const ComPtr<IMediaSample> other = Get();
  EXPECT_TRUE(other);
  EXPECT_FALSE(Get());
  early.Reset();
  EXPECT_TRUE(Get());
}

TEST_F(AllocatorTest, ASampleComesBackWithoutItsPast) {
  Set(1, 16);
  ASSERT_EQ(allocator_->Commit(), S_OK);
  ComPtr<IMediaSample> sample = Get();
  REFERENCE_TIME start = 5;
  REFERENCE_TIME stop = 9;
  sample->SetTime(&start, &stop);
  sample->SetMediaTime(&start, &stop);
  sample->SetSyncPoint(TRUE);
  sample->SetDiscontinuity(TRUE);
  sample->SetPreroll(TRUE);
  const CMediaType type(&MEDIATYPE_Video);
  CMediaType copy = type;
  sample->SetMediaType(&copy);
  sample.Reset();
  sample = Get();
  AM_SAMPLE2_PROPERTIES all{};
  sample.As<IMediaSample2>()->GetProperties(sizeof(all), reinterpret_cast<BYTE*>(&all));
  EXPECT_EQ(all.dwSampleFlags, 0U) << "neither times, flags nor a type";
  EXPECT_EQ(all.pMediaType, nullptr);
  EXPECT_EQ(sample->GetMediaTime(&start, &stop), VFW_E_MEDIA_TIME_NOT_SET);
}

TEST_F(AllocatorTest, ASampleReturnsItsTimesAsTheyWereSet) {
  Set(1, 16);
  ASSERT_EQ(allocator_->Commit(), S_OK);
  const ComPtr<IMediaSample> sample = Get();
  REFERENCE_TIME start = 100;
  REFERENCE_TIME stop = 0;
  sample->SetTime(&start, nullptr);
  EXPECT_EQ(sample->GetTime(&start, &stop), VFW_S_NO_STOP_TIME);
  EXPECT_EQ(stop, 101);
  stop = 140;
  sample->SetTime(&start, &stop);
  EXPECT_EQ(sample->GetTime(&start, &stop), S_OK);
  EXPECT_EQ(stop, 140);
  sample->SetTime(nullptr, nullptr);
  EXPECT_EQ(sample->GetTime(&start, &stop), VFW_E_SAMPLE_TIME_NOT_SET);
  EXPECT_EQ(sample->SetActualDataLength(17), VFW_E_BUFFER_OVERFLOW);

  const ComPtr<IMediaSample2> second = sample.As<IMediaSample2>();
  AM_SAMPLE2_PROPERTIES all{};
  ASSERT_EQ(second->GetProperties(sizeof(all), reinterpret_cast<BYTE*>(&all)), S_OK);
  EXPECT_EQ(all.cbBuffer, 16);
  all.tStart = 7;
  all.dwSampleFlags = AM_SAMPLE_TIMEVALID | AM_SAMPLE_SPLICEPOINT;
  ASSERT_EQ(second->SetProperties(sizeof(all), reinterpret_cast<BYTE*>(&all)), S_OK);
  EXPECT_EQ(sample->IsSyncPoint(), S_OK);
  EXPECT_EQ(sample->GetTime(&start, &stop), VFW_S_NO_STOP_TIME);
  EXPECT_EQ(start, 7);
}

}  // namespace
