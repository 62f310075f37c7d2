#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/composer_fixture.h"

namespace {

class LifecycleTest : public ComposerFixture {};

TEST_F(LifecycleTest, PauseWaitsForTheFrameInProgressAndDropsTheRest) {
  MakeRunning(1, 16, 16);
  std::promise<void> inside;
  std::promise<void> release;
  std::atomic<int> asked{0};
  windows_[0]->onAsk = [&] {
    if (++asked == 1) {
      inside.set_value();
      release.get_future().wait();
    }
  };
  SendBackground(0);
  inside.get_future().wait();
  for (int i = 1; i <= 5; ++i) {
    SendBackground(i * kFrame);
  }
  auto pausing = std::async(std::launch::async, [&] { return filter_->Pause(); });
  EXPECT_EQ(pausing.wait_for(std::chrono::seconds(0)), std::future_status::timeout)
      << "a frame is in progress";
  release.set_value();
  EXPECT_EQ(pausing.get(), S_OK);
  // However far the thread had come: nothing is in progress now, and nothing waits.
  const int composed = asked;
  EXPECT_GE(composed, 1);
  EXPECT_EQ(sink_->Count(), static_cast<std::size_t>(composed));
  sink_->Forget();
  EXPECT_EQ(static_cast<CMemAllocator*>(background_->pin.HeldAllocator().Get())->GetFreeCount(),
            80);
  // The counts of the dropped frames wake the thread for nothing, and it goes on composing.
  ASSERT_EQ(graph_->Run(0), S_OK);
  EXPECT_TRUE(Compose(6 * kFrame));
  EXPECT_EQ(asked, composed + 1);
}

TEST_F(LifecycleTest, StartsPausesRunsAndStopsAHundredTimesUnderLoad) {
  MakeRunning(9, 16, 16);
  sink_->pin.onReceive = [](IMediaSample*) { return S_OK; };
  std::atomic<bool> stop{false};
  std::vector<std::thread> senders;
  for (LONG i = 0; i < 9; ++i) {
    senders.emplace_back([this, i, &stop] {
      for (REFERENCE_TIME n = 0; !stop; ++n) {
        ComPtr<IMediaSample> sample;
        fakes::Source& source = *sources_[static_cast<std::size_t>(i)];
        if (source.pin.GetDeliveryBuffer(sample.Put(), nullptr, nullptr, AM_GBF_NOWAIT) == S_OK) {
          REFERENCE_TIME start = n * kFrame;
          REFERENCE_TIME end = start + kFrame;
          sample->SetTime(&start, &end);
          source.Send(sample.Get());
        }
        std::this_thread::yield();
      }
    });
  }
  std::thread clock([this, &stop] {
    for (REFERENCE_TIME n = 0; !stop; ++n) {
      ComPtr<IMediaSample> sample;
      if (background_->pin.GetDeliveryBuffer(sample.Put(), nullptr, nullptr, AM_GBF_NOWAIT) ==
          S_OK) {
        REFERENCE_TIME start = n * kFrame;
        REFERENCE_TIME end = start + kFrame;
        sample->SetTime(&start, &end);
        background_->Send(sample.Get());
      }
      std::this_thread::yield();
    }
  });
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(graph_->Pause(), S_OK);
    ASSERT_EQ(graph_->Run(0), S_OK);
    ASSERT_EQ(graph_->Stop(), S_OK);
    ASSERT_EQ(graph_->Run(0), S_OK);
  }
  stop = true;
  clock.join();
  for (std::thread& sender : senders) {
    sender.join();
  }
}

TEST_F(LifecycleTest, ASecondConfigurationKeepsTheFirstThreadAndTheFilterJoinsBoth) {
  MakeRunning(1, 16, 16);
  ASSERT_EQ(graph_->Stop(), S_OK);
  ASSERT_EQ(composer_->Configure(1, &logger_, kWidth, kHeight, 16, 9, 0, {25, 1}), S_OK);
  ASSERT_EQ(graph_->Run(0), S_OK);
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(Compose(i * kFrame));
  }
  ASSERT_EQ(graph_->Pause(), S_OK);
}

// The fixture looks whether all of them are given back.
TEST_F(LifecycleTest, EndsWithBackgroundFramesStillQueued) {
  MakeRunning(0, 0, 0);
  for (int i = 0; i < 20; ++i) {
    SendBackground(i * kFrame);
  }
}

}  // namespace
