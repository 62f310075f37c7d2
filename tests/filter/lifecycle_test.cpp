#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/composer_fixture.h"

namespace {

class LifecycleTest : public ComposerFixture {};

// How often the composer was configured: so many composition threads there are.
class PauseTest : public LifecycleTest, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Threads, PauseTest, testing::Values(1, 3));

TEST_P(PauseTest, WaitsForTheFrameInProgressAndDropsTheRest) {
  MakeRunning(1, 16, 16);
  for (int configured = 1; configured < GetParam(); ++configured) {
    ASSERT_EQ(composer_->Configure(1, &logger_, kWidth, kHeight, 4, 3, 0, {25, 1}), S_OK);
  }
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
  FILTER_STATE state = State_Running;
  while (state == State_Running) {
    std::this_thread::yield();
    filter_->GetState(0, &state);
  }
  EXPECT_EQ(pausing.wait_for(std::chrono::seconds(0)), std::future_status::timeout)
      << "a frame is in progress";
  release.set_value();
  EXPECT_EQ(pausing.get(), S_OK);
  EXPECT_EQ(asked, 1) << "what was queued is not composed";
  EXPECT_EQ(sink_->Count(), 1U);
  sink_->Forget();
  EXPECT_EQ(static_cast<CMemAllocator*>(background_->pin.HeldAllocator().Get())->GetFreeCount(),
            80);
  // The counts of the dropped frames wake the thread for nothing, and it continues to compose.
  ASSERT_EQ(graph_->Run(0), S_OK);
  EXPECT_TRUE(Compose(6 * kFrame));
  EXPECT_EQ(asked, 2);
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
