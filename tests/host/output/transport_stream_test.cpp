// What stream analysers ask of a transport stream, by the project's own.
#include <gtest/gtest.h>

#include "tests/host/output/output_session_fixture.h"
#include "tests/support/child_process.h"

namespace host {
namespace {

// Its one line of findings: {"packets": ..., "errors": {}, ...}.
std::string Analyse(const std::string& source) {
  ChildProcess analyser({TAVREL_TOOLS "/analyse_ts.py", "--json", source});
  return analyser.ReadLine().value_or("the analyser did not run");
}

class TransportStreamTest : public OutputSessionTest,
                            public testing::WithParamInterface<std::pair<bool, int>> {
 protected:
  static constexpr std::size_t kChannels = 36;

  TransportStreamTest() : OutputSessionTest("wall.ts", 2 * kSecond) {
    settings_.muxer.lowDelay = GetParam().first;
    settings_.frameRate = {25, GetParam().second};
    settings_.tracks.clear();
    for (std::size_t i = 0; i < kChannels; ++i) {
      settings_.tracks.push_back({"channel", "deu", false, std::make_shared<AudioTrack>()});
      settings_.tracks[i].audio->Fix(AacFormat(48'000, 2, ""));
    }
  }
};

// The first channel's audio comes as late as an output takes it, most of the others never come.
TEST_P(TransportStreamTest, HasTimeForItsDecodersAndItsTablesAndClocksInTime) {
  constexpr Time kFrame = 1024 * kSecond / 48'000;
  const int frames = GetParam().second;  // of 25 a second, from one to the next
  const Time late = frames > 1         ? 40 * kMillisecond
                    : GetParam().first ? 90 * kMillisecond
                                       : 490 * kMillisecond;
  OutputCounters counters(kChannels);
  OutputSession session(settings_, *video_, counters, Owner());
  std::int64_t audio = 0;
  for (int i = 0; i < 150; ++i) {
    TakeFrame(session, i * frames);
    for (; audio * kFrame < Time{i} * frames * 400'000; ++audio) {
      for (const int channel : {0, 1}) {
        ffmpeg::Packet packet = ffmpeg::MakePacket();
        av_new_packet(packet.get(), 576);
        packet->pts = packet->dts =
            audio * kFrame + (channel == 0 ? 40 * kMillisecond - late : kSecond);
        packet->duration = kFrame;
        session.Take({channel, std::move(packet), 0});
      }
    }
  }
  session.Finish();
  EXPECT_GT(counters.of(0).written, 100U);
  const std::string findings = Analyse(settings_.muxer.url);
  EXPECT_NE(findings.find("\"streams\": 37,"), std::string::npos) << findings;
  EXPECT_NE(findings.find("\"errors\": {}"), std::string::npos) << findings;
}

INSTANTIATE_TEST_SUITE_P(Delays, TransportStreamTest,
                         testing::Values(std::pair(false, 1), std::pair(true, 1),
                                         std::pair(false, 5)));

}  // namespace
}  // namespace host
