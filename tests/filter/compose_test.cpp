#include "filter/compose.h"

#include <array>
#include <future>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
  std::array<IPin*, 5> pins{};  // video, audio, video alarm, audio alarm, text
  const auto look = [&](LONG index) {
    return composer_->GetInputPins(index, &pins[0], &pins[1], &pins[2], &pins[3], &pins[4]);
  };
  EXPECT_EQ(NameAt(2), "-");
  EXPECT_EQ(NameAt(-1), "-");
  EXPECT_EQ(look(0), S_FALSE);
  EXPECT_EQ(pins[0], nullptr);
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
  ASSERT_EQ(look(0), S_OK);
  for (std::size_t i = 0; i < pins.size(); ++i) {
    EXPECT_EQ(pins[i], static_cast<IPin*>(composer_->GetPin(std::array{2, 3, 6, 7, 4}[i])));
  }
  // An enumeration gives the existing pins and skips the missing ones.
  ComPtr<IEnumPins> list;
  filter_->EnumPins(list.Put());
  std::vector<IPin*> found(20);
  ULONG fetched = 0;
  EXPECT_EQ(list->Next(20, found.data(), &fetched), S_FALSE);
  EXPECT_EQ(fetched, 8U);
  for (ULONG i = 0; i < fetched; ++i) {
    found[i]->Release();
  }
}

TEST_F(ComposeTest, AddingAnInputAgainMakesItsPinsAgainAndKeepsOneReferenceToItsWindow) {
  const ComPtr<fakes::Window> window = fakes::Window::Create();
  const LONG version = composer_->GetPinVersion();
  for (const auto& [added, references] : {std::pair(window.Get(), 2U),
                                          {window.Get(), 2U},
                                          {static_cast<fakes::Window*>(nullptr), 1U}}) {
    composer_->AddInput(0, static_cast<IComposeWindow*>(added));
    window->AddRef();
    EXPECT_EQ(window->Release(), references);
  }
  EXPECT_EQ(composer_->GetPinCount(), 8);
  EXPECT_EQ(composer_->GetPinVersion(), version + 3);
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

using LifecycleTest = ComposerFixture;

// The number of Configure calls, and so of composition threads.
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
  // The semaphore counts of the dropped frames wake the thread without a frame; it continues to
  // compose.
  ASSERT_EQ(graph_->Run(0), S_OK);
  EXPECT_TRUE(Compose(6 * kFrame));
  EXPECT_EQ(asked, 2);
}

TEST_F(LifecycleTest, StartsPausesRunsAndStopsAHundredTimesUnderLoad) {
  MakeRunning(9, 16, 16);
  sink_->pin.onReceive = [](IMediaSample*) { return S_OK; };
  std::atomic<bool> stop{false};
  std::vector<std::thread> senders;
  std::vector<fakes::Source*> all{background_.Get()};
  for (const ComPtr<fakes::Source>& source : sources_) {
    all.push_back(source.Get());
  }
  for (fakes::Source* const source : all) {
    senders.emplace_back([source, &stop] {
      for (REFERENCE_TIME n = 0; !stop; ++n) {
        ComPtr<IMediaSample> sample;
        if (source->pin.GetDeliveryBuffer(sample.Put(), nullptr, nullptr, AM_GBF_NOWAIT) == S_OK) {
          REFERENCE_TIME start = n * kFrame;
          REFERENCE_TIME end = start + kFrame;
          sample->SetTime(&start, &end);
          source->Send(sample.Get());
        }
        std::this_thread::yield();
      }
    });
  }
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(graph_->Pause(), S_OK);
    ASSERT_EQ(graph_->Run(0), S_OK);
    ASSERT_EQ(graph_->Stop(), S_OK);
    ASSERT_EQ(graph_->Run(0), S_OK);
  }
  stop = true;
  for (std::thread& sender : senders) {
    sender.join();
  }
}

// The fixture checks that all of them are released.
TEST_F(LifecycleTest, EndsWithBackgroundFramesStillQueued) {
  MakeRunning(0, 0, 0);
  for (int i = 0; i < 20; ++i) {
    SendBackground(i * kFrame);
  }
}

}  // namespace
