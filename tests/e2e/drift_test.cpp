#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/packet.h>
}

#include "host/channel/live_timeline.h"
#include "host/graph/audio_type.h"
#include "host/output/audio_sink.h"
#include "host/output/interleaver.h"
#include "tests/support/composer_fixture.h"

namespace {

using host::kMillisecond;
using host::kSecond;
using host::Time;

constexpr Time kPicture = 40 * kMillisecond;
constexpr Time kPacket = 24 * kMillisecond;
constexpr Time kAllowed = 40 * kMillisecond;

struct Case {
  const char* name;
  double partsPerMillion;  // by which the source's clock is fast
  bool placed;             // by the host's timeline, as live sources are
};

// A source whose clock is wrong, in simulated time: everything comes when its clock says so, and a
// composed frame is looked at every 40 ms of true time. Its n-th picture tells n by its luma, its
// n-th packet of sound by its bytes.
class DriftTest : public ComposerFixture, public testing::WithParamInterface<Case> {
 protected:
  struct Sounding {
    Time start = 0;  // in the output
    Time own = 0;    // when it began in the source
  };

  void SetUp() override {
    Make(1);
    ConnectBackground();
    ConnectWindow(0, 16, 16);
    ConnectSink();
    sound_ = ConnectSide(3, host::AudioType({}), 16);
    audioSink_ =
        host::AudioSink::Create(1, [this](std::size_t, host::ffmpeg::Packet packet, Time shift) {
          interleaver_.Push(0, std::move(packet), shift);
        });
    graph_->AddFilter(audioSink_.Get(), u"sound");
    ASSERT_EQ(graph_->ConnectDirect(composer_->GetPin(5), audioSink_->pin(0), nullptr), S_OK);
    ASSERT_EQ(graph_->Run(0), S_OK);
  }
  void TearDown() override {
    graph_->Stop();
    sound_.Reset();
    graph_->RemoveFilter(audioSink_.Get());
    audioSink_.Reset();
    ComposerFixture::TearDown();
  }

  // The true time at which the source's clock shows a time.
  Time TrueTime(Time own) const {
    return static_cast<Time>(
        std::llround(static_cast<double>(own) / (1 + GetParam().partsPerMillion * 1e-6)));
  }
  // The time that the source's stamp becomes on its way to the composer, and when it is sent there.
  Time Place(Time own, bool decides, Time* sendAt) {
    const Time comes = TrueTime(own);
    if (!GetParam().placed) {
      *sendAt = comes;
      return own;
    }
    // The reader waits while it is a second ahead.
    const Time read = std::max(comes, lastPlaced_ - kSecond);
    const Time placed =
        decides ? timeline_.Place(own, false, read) : timeline_.Follow(own, read).value();
    lastPlaced_ = placed;
    *sendAt = std::max(placed, read);
    return placed;
  }
  void SendUpTo(Time now) {
    Time sendAt = 0;
    for (;;) {
      const bool isPicture = nextPicture_ * kPicture <= nextPacket_ * kPacket;
      const Time own = isPicture ? nextPicture_ * kPicture : nextPacket_ * kPacket;
      if (!waiting_) {
        waitingStamp_ = Place(own, isPicture, &sendAt);
        waitingUntil_ = sendAt;
        waiting_ = true;
      }
      if (waitingUntil_ > now) {
        return;
      }
      waiting_ = false;
      if (isPicture) {
        ASSERT_EQ(SendPicture(0, waitingStamp_, static_cast<BYTE>(20 + nextPicture_ % 200)), S_OK);
        ++nextPicture_;
      } else {
        SendPacket(waitingStamp_);
      }
    }
  }
  void SendPacket(Time stamp) {
    const ComPtr<IMediaSample> sample = sound_->NewSample(stamp, stamp + kPacket);
    LONGLONG mediaStart = stamp;
    LONGLONG mediaStop = stamp + kPacket;
    sample->SetMediaTime(&mediaStart, &mediaStop);
    std::memcpy(Pixels(sample.Get()), &nextPacket_, sizeof(nextPacket_));
    sample->SetActualDataLength(sizeof(nextPacket_));
    ASSERT_EQ(sound_->Send(sample.Get()), S_OK);
    ++nextPacket_;
  }
  // What sounds at a moment of the output; null when nothing does.
  const Sounding* SoundAt(Time time) {
    interleaver_.Release(time + 1, [&](std::size_t, const host::ffmpeg::Packet& packet) {
      std::int64_t number = 0;
      std::memcpy(&number, packet->data, sizeof(number));
      EXPECT_GE(packet->pts, written_.start) << "the times of a track only grow";
      written_ = {packet->pts, number * kPacket};
    });
    return time < written_.start + kPacket ? &written_ : nullptr;
  }

  ComPtr<fakes::Source> sound_;
  ComPtr<host::AudioSink> audioSink_;
  host::Interleaver interleaver_{1};
  host::LiveTimeline timeline_{{}};
  std::int64_t nextPicture_ = 0;
  std::int64_t nextPacket_ = 0;
  bool waiting_ = false;
  Time waitingStamp_ = 0;
  Time waitingUntil_ = 0;
  Time lastPlaced_ = 0;
  Sounding written_;
};

TEST_P(DriftTest, PictureAndSoundStayTogetherForHours) {
  const char* const asked = std::getenv("TAVREL_DRIFT_HOURS");
  const double hours = asked == nullptr ? 1.25 : std::atof(asked);
  const auto frames = static_cast<std::int64_t>(hours * 3600 * 25);
  Time most = 0;
  std::int64_t silent = 0;
  std::int64_t shown = 0;  // number of the latest picture seen
  for (std::int64_t frame = 0; frame < frames; ++frame) {
    const Time now = frame * kPicture;
    SendUpTo(now);
    const ComPtr<IMediaSample> composed = Compose(now);
    ASSERT_TRUE(composed);
    if (now < 2 * kSecond) {
      SoundAt(now);
      continue;  // the first picture stands until it is due
    }
    // The luma tells the number but for multiples of 200: the one nearest to the former.
    const int luma = Luma(composed.Get(), 2, 2);
    std::int64_t number = shown - (shown % 200) + luma - 20;
    while (number - shown > 100) {
      number -= 200;
    }
    while (shown - number > 100) {
      number += 200;
    }
    shown = number;
    const Sounding* const sounding = SoundAt(now);
    if (sounding == nullptr) {
      ++silent;
      continue;
    }
    const Time offset = number * kPicture - (sounding->own + now - sounding->start);
    most = std::max(most, std::abs(offset));
    ASSERT_LE(std::abs(offset), kAllowed) << "at " << now / kSecond << " s of " << GetParam().name;
  }
  const auto lines = logger_.Texts();
  const auto resyncs = std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
    return line.find("resynchronizes") != std::string::npos;
  });
  std::printf(
      "%s: at most %.1f ms apart in %.2f hours, %d re-synchronisations, moved %d times, "
      "%.2f s silent\n",
      GetParam().name, static_cast<double>(most) / kMillisecond, hours, static_cast<int>(resyncs),
      timeline_.moves(), static_cast<double>(silent) / 25);
  // A clock that is wrong by 500 ppm is 1.8 s off in an hour; that much has to be left out or
  // waited for, and no more.
  EXPECT_LE(static_cast<double>(silent) / 25, 1.8 * hours + 1.1);
}

INSTANTIATE_TEST_SUITE_P(Clocks, DriftTest,
                         testing::Values(Case{"slow", -500, false}, Case{"fast", 500, false},
                                         Case{"slow live", -500, true},
                                         Case{"fast live", 500, true}),
                         [](const testing::TestParamInfo<Case>& parameter) {
                           std::string name = parameter.param.name;
                           std::replace(name.begin(), name.end(), ' ', '_');
                           return name;
                         });

}  // namespace
