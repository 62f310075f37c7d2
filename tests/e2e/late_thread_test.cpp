// A channel whose streaming thread was kept from running, in the real composer.
#include <algorithm>

#include <gtest/gtest.h>

#include "host/channel/channel_source.h"
#include "tests/host/observers.h"
#include "tests/support/composer_fixture.h"

namespace host {
namespace {

constexpr Ratio kRate{25, 1};
constexpr int kDelay = 25;  // frames
constexpr WindowSize kSmall{16, 16};
constexpr WindowSize kLarge{96, 64};

// Frame n of the source starts with composed frame n, and is shown by composed frame n + kDelay.
class LateThreadTest : public ComposerFixture {
 protected:
  void SetUp() override {
    Make(1);
    ConnectBackground();
    ConnectSink();
    ChannelSettings settings;
    settings.canvas.frameRate = kRate;
    settings.windows = schedule_;
    const auto now = [this] { return At(composed_ + 1); };
    settings.now = now;
    settings.latestFrame = [this] {
      const Time latest = At(composed_);
      if (composesAtLook_ > 0 && --composesAtLook_ == 0) {
        ComposeNext();
      }
      return latest;
    };
    settings.timeText = [](Time) { return std::string(); };
    settings.presentFrame = [this] { return At(composed_); };
    settings.frameSent = [this] {
      if (composesWhileSending_ > 0) {
        --composesWhileSending_;
        ComposeNext();
      }
    };
    settings.driven = true;
    channel_ = ChannelSource::Create(std::move(settings), &log_);
    channel_->queue().FollowClock(now);
    graph_->AddFilter(channel_.Get(), u"live");
    ASSERT_EQ(graph_->ConnectDirect(&channel_->videoPin(), composer_->GetPin(2), nullptr), S_OK);
    ASSERT_EQ(graph_->Run(0), S_OK);
  }
  void TearDown() override {
    shown_.Reset();
    channel_.Reset();
    ComposerFixture::TearDown();
  }

  static Time At(int frame) { return FrameStart(frame, kRate); }
  static BYTE LumaOf(int frame) { return static_cast<BYTE>(40 + frame % 200); }

  // The streaming thread runs until it has caught up.
  void Stream() {
    for (; next_ <= composed_ + 1; ++next_) {
      if (sourcePauses_) {
        continue;
      }
      const WindowSize size = schedule_->SizeAt(0, At(next_));
      const LONG bytes = FrameBytes(size.width, size.height);
      const ComPtr<IMediaSample> frame =
          channel_->videoPin().NewFrame(At(next_), At(next_ + 1), false, bytes);
      ASSERT_TRUE(frame);
      std::fill_n(Pixels(frame.Get()), bytes, LumaOf(next_));
      channel_->queue().Push({At(next_), At(next_), At(1), ReadyFrame{frame, {}, size}});
    }
    channel_->DeliverUpTo(At(composed_ + 1));
  }
  void ComposeNext() {
    const Time start = At(++composed_);
    shown_ = Compose(start);
    schedule_->FrameSent(start);
    const WindowState& window = schedule_->Ask(0);
    hasSize_ = composed_ <= kDelay || (Luma(shown_.Get(), window.place.width - 1, 4) >= 40 &&
                                       Luma(shown_.Get(), window.place.width, 4) == 16);
  }
  void Run(int frames) {
    for (int i = 0; i < frames; ++i) {
      Stream();
      ComposeNext();
      ASSERT_TRUE(hasSize_) << "composed frame " << composed_;
    }
  }
  void Stall(int frames) {
    for (int i = 0; i < frames; ++i) {
      ComposeNext();
    }
  }
  // Whether the composed frames show those of the wall's delay before.
  void ExpectInTime() {
    Run(40);
    for (int i = 0; i < 3; ++i) {
      Run(1);
      ASSERT_EQ(Luma(shown_.Get(), 4, 4), LumaOf(composed_ - kDelay)) << composed_;
    }
  }

  const std::shared_ptr<WindowSchedule> schedule_ = std::make_shared<WindowSchedule>(
      std::vector<WindowState>{{true, {0, 0, kSmall.width, kSmall.height}}}, kRate, At(kDelay));
  ChannelLog log_;
  ComPtr<ChannelSource> channel_;
  int composed_ = 0;
  int next_ = 0;  // frame of the source
  bool sourcePauses_ = false;
  ComPtr<IMediaSample> shown_;
  bool hasSize_ = true;
  // The background comes before the channel's thread has used what it saw, or goes on sending.
  int composesAtLook_ = 0;
  int composesWhileSending_ = 0;
};

TEST_F(LateThreadTest, TheChannelKeepsTheWallsTime) {
  composesWhileSending_ = 2;
  ExpectInTime();
  for (int many = 1; many <= 12; ++many) {
    Stall(40);
    composesWhileSending_ = many;
    ExpectInTime();
    // One frame more, and the composer takes the next one for an anchor.
    Stall(kDelay - 1);
    composesAtLook_ = many;
    ExpectInTime();
  }
}

TEST_F(LateThreadTest, EachComposedFrameHasTheSizeOfItsWindow) {
  WindowSize size = kSmall;
  for (int stall = 0; stall < 46; ++stall) {
    Run(60);
    size = size == kSmall ? kLarge : kSmall;
    const auto change = schedule_->Change({{true, {0, 0, size.width, size.height}}}, At(composed_));
    ASSERT_TRUE(change);
    // Nothing is to be done while the thread does not run; afterwards nothing is wrong.
    Stall(stall);
    sourcePauses_ = stall % 2 == 0;
    Run(20);
    sourcePauses_ = false;
    Run(40);
  }
}

}  // namespace
}  // namespace host
