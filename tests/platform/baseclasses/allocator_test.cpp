#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "platform/baseclasses/media_sample.h"
#include "platform/dshow/vfw_errors.h"

namespace {

class AllocatorTest : public testing::Test {
 protected:
  HRESULT Set(LONG count, LONG size, LONG align = 1, LONG prefix = 0) {
    ALLOCATOR_PROPERTIES request{count, size, align, prefix};
    return allocator_->SetProperties(&request, &actual_);
  }
  void Commit(LONG count, LONG size) {
    ASSERT_EQ(Set(count, size), S_OK);
    ASSERT_EQ(allocator_->Commit(), S_OK);
  }
  ComPtr<IMediaSample> Get() {
    ComPtr<IMediaSample> sample;
    allocator_->GetBuffer(sample.Put(), nullptr, nullptr, AM_GBF_NOWAIT);
    return sample;
  }

  ComPtr<IMemAllocator> allocator_ = CMemAllocator::Create();
  ALLOCATOR_PROPERTIES actual_{};
};

TEST_F(AllocatorTest, KeepsTheAlignmentOfEveryBufferBehindItsPrefix) {
  ASSERT_EQ(Set(3, 1000, 32, 20), S_OK);
  EXPECT_EQ(actual_.cBuffers, 3);
  EXPECT_GE(actual_.cbBuffer, 1000);
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
  EXPECT_EQ(Set(1, 16, 3), VFW_E_BADALIGN);
  EXPECT_EQ(Set(1, 16, 0), VFW_E_BADALIGN);
  EXPECT_EQ(Set(-1, 16), E_INVALIDARG);
  EXPECT_EQ(allocator_->Commit(), VFW_E_SIZENOTSET);
  Commit(2, 16);
  EXPECT_EQ(Set(4, 16), VFW_E_ALREADY_COMMITTED);
  const ComPtr<IMediaSample> outside = Get();
  EXPECT_EQ(allocator_->Decommit(), S_OK);
  EXPECT_EQ(Set(4, 16), VFW_E_BUFFERS_OUTSTANDING);
}

TEST_F(AllocatorTest, BlocksUntilASampleComesHomeOrADecommit) {
  // The wait is ended at different times after it has begun.
  for (int round = 0; round < 40; ++round) {
    Commit(1, 16);
    ComPtr<IMediaSample> first = Get();
    std::promise<void> started;
    auto waiting = std::async(std::launch::async, [&] {
      started.set_value();
      ComPtr<IMediaSample> second;
      return allocator_->GetBuffer(second.Put(), nullptr, nullptr, 0);
    });
    started.get_future().wait();
    for (int i = 0; i < round; ++i) {
      std::this_thread::yield();
    }
    const bool decommits = round % 2 == 0;
    if (decommits) {
      allocator_->Decommit();
    } else {
      first.Reset();
    }
    const std::future_status status = waiting.wait_for(std::chrono::seconds(10));
    first.Reset();
    allocator_->Decommit();
    ASSERT_EQ(status, std::future_status::ready) << "the wait has not ended";
    EXPECT_EQ(waiting.get(), decommits ? VFW_E_NOT_COMMITTED : S_OK);
  }
}

TEST_F(AllocatorTest, ASampleOutlivesDecommitAndTheLastReferenceToItsAllocator) {
  Commit(2, 16);
  ComPtr<IMediaSample> early = Get();
  allocator_->Decommit();
  ASSERT_EQ(allocator_->Commit(), S_OK) << "before its samples are home";
  ComPtr<IMediaSample> other = Get();
  EXPECT_TRUE(other);
  EXPECT_FALSE(Get());
  early.Reset();
  EXPECT_TRUE(Get());
  allocator_->Decommit();
  allocator_.Reset();
  BYTE* data = nullptr;
  ASSERT_EQ(other->GetPointer(&data), S_OK);
  std::fill_n(data, 16, BYTE{7});
  other.Reset();
  EXPECT_EQ(CUnknown::ObjectsActive(), 0);
}

TEST_F(AllocatorTest, ASampleReturnsWhatWasSetAndComesBackWithoutItsPast) {
  Commit(1, 16);
  ComPtr<IMediaSample> sample = Get();
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

  AM_SAMPLE2_PROPERTIES all{};
  ASSERT_EQ(sample.As<IMediaSample2>()->GetProperties(sizeof(all), reinterpret_cast<BYTE*>(&all)),
            S_OK);
  EXPECT_EQ(all.cbBuffer, 16);
  all.tStart = 7;
  all.dwSampleFlags = AM_SAMPLE_TIMEVALID | AM_SAMPLE_SPLICEPOINT;
  ASSERT_EQ(sample.As<IMediaSample2>()->SetProperties(sizeof(all), reinterpret_cast<BYTE*>(&all)),
            S_OK);
  EXPECT_EQ(sample->IsSyncPoint(), S_OK);
  EXPECT_EQ(sample->GetTime(&start, &stop), VFW_S_NO_STOP_TIME);
  EXPECT_EQ(start, 7);
  CMediaType type(&MEDIATYPE_Video);
  sample->SetMediaTime(&start, &stop);
  sample->SetDiscontinuity(TRUE);
  sample->SetPreroll(TRUE);
  sample->SetMediaType(&type);
  sample.Reset();
  sample = Get();
  sample.As<IMediaSample2>()->GetProperties(sizeof(all), reinterpret_cast<BYTE*>(&all));
  EXPECT_EQ(all.dwSampleFlags, 0U) << "neither times, flags nor a type";
  EXPECT_EQ(all.pMediaType, nullptr);
  EXPECT_EQ(sample->GetMediaTime(&start, &stop), VFW_E_MEDIA_TIME_NOT_SET);
}

}  // namespace
