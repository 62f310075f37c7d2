#include "host/feed/feed_pin.h"

#include <array>
#include <thread>

#include <gtest/gtest.h>

#include "host/channel/channel_source.h"
#include "host/feed/audio_encoder.h"
#include "platform/baseclasses/base_filter.h"
#include "platform/graph/filter_graph.h"
#include "tests/host/observers.h"
#include "tests/support/fake_filters.h"
#include "tests/support/recording_logger.h"

namespace host {
namespace {

// A filter with a pin of two buffers.
class Feed final : public CBaseFilter {
 public:
  static ComPtr<Feed> Create() { return ComPtr<Feed>(std::make_unique<Feed>().release()); }
  Feed() : CBaseFilter("feed", nullptr, &lock_, CLSID{}) {}
  int GetPinCount() override { return 1; }
  CBasePin* GetPin(int position) override { return position == 0 ? &pin : nullptr; }

 private:
  CCritSec lock_;

 public:
  FeedPin pin{this, &lock_, u"Feed", fakes::AudioType(MEDIASUBTYPE_YV12), {2, 16}};
};

ComPtr<FilterGraph> Graph(IBaseFilter& source, IPin& pin, fakes::Sink& sink) {
  ComPtr<FilterGraph> graph = FilterGraph::Create();
  EXPECT_EQ(graph->AddFilter(&source, u"source"), S_OK);
  EXPECT_EQ(graph->AddFilter(&sink, u"sink"), S_OK);
  EXPECT_EQ(graph->ConnectDirect(&pin, &sink.pin, nullptr), S_OK);
  return graph;
}

TEST(FeedPin, ReportsEveryTimeThatNoBufferIsFree) {
  RecordingLogger logger;
  const ComPtr<Feed> feed = Feed::Create();
  const ComPtr<fakes::Sink> sink = fakes::Sink::Create();
  const ComPtr<FilterGraph> graph = Graph(*feed, feed->pin, *sink);
  feed->pin.ReportTo(&logger, "News, live");
  const auto full = [&] { return logger.BufferFull().at("News_ live"); };
  EXPECT_EQ(full(), 0) << "the name stands in records whose fields commas separate";
  ASSERT_EQ(graph->Run(0), S_OK);

  const std::array<std::uint8_t, 4> bytes{};
  EXPECT_TRUE(feed->pin.Send(bytes, 0, 1));
  EXPECT_TRUE(feed->pin.Send(bytes, 1, 2));
  EXPECT_EQ(full(), 0);
  EXPECT_FALSE(feed->pin.Send(bytes, 2, 3));
  EXPECT_FALSE(feed->pin.Send(bytes, 3, 4));
  EXPECT_EQ(full(), 2);
  // A wait is reported once.
  std::thread waiter([&] { EXPECT_TRUE(feed->pin.NewSample(4, 5, true)); });
  EXPECT_TRUE(logger.WaitForBufferFull("News_ live", 3)) << "the wait was not told";
  sink->Forget();
  waiter.join();
  EXPECT_EQ(full(), 3);
  EXPECT_TRUE(feed->pin.Send(bytes, 5, 6));
  graph->Stop();
  EXPECT_FALSE(feed->pin.Send(bytes, 6, 7));
  EXPECT_EQ(full(), 3) << "a pin that has stopped is not full";
  sink->Forget();
}

ChannelSettings DrivenChannel() {
  ChannelSettings settings;
  settings.channel.window = {0, 0, 16, 16};
  settings.label = "News";
  settings.driven = true;
  return settings;
}

TEST(ChannelSource, SendsItsLabelUntilItIsTaken) {
  ChannelLog observer;
  const ComPtr<ChannelSource> channel = ChannelSource::Create(DrivenChannel(), &observer);
  const ComPtr<fakes::Sink> sink = fakes::Sink::Create();
  int taken = 0;
  int refusals = 2;
  sink->pin.onReceive = [&](IMediaSample* sample) {
    EXPECT_EQ(sample->GetActualDataLength(), 4);
    taken += refusals == 0 ? 1 : 0;
    return refusals > 0 ? (--refusals, E_FAIL) : S_OK;
  };
  const ComPtr<FilterGraph> graph = Graph(*channel, channel->textPin(), *sink);
  ASSERT_EQ(graph->Run(0), S_OK);
  Time now = 0;
  channel->queue().FollowClock([&] { return now; });
  for (; now < 5 * kSecond; now += kSecond) {
    channel->DeliverUpTo(now);
  }
  EXPECT_EQ(refusals, 0);
  EXPECT_EQ(taken, 1);
  graph->Stop();
}

// Another channel is shown by the same source, whose audio has another form.
TEST(ChannelSource, AMuteIsFilledWithSilenceInTheFormOfTheAudio) {
  ChannelLog observer;
  const ComPtr<ChannelSource> channel = ChannelSource::Create(DrivenChannel(), &observer);
  const ComPtr<fakes::Sink> sink = fakes::Sink::Create();
  std::vector<int> sizes;
  sink->pin.onReceive = [&](IMediaSample* sample) {
    sizes.push_back(sample->GetActualDataLength());
    return S_OK;
  };
  const ComPtr<FilterGraph> graph = Graph(*channel, channel->audioPin(), *sink);
  ASSERT_EQ(graph->Run(0), S_OK);
  ChannelControls controls;
  controls.mute = config::Mute::kSilence;
  std::vector<int> silences;
  for (const int channels : {2, 1}) {
    channel->Assign(DrivenChannel(), controls);
    channel->queue().FollowClock([] { return kSecond; });
    AudioPacket packet;
    packet.packet = ffmpeg::MakePacket();
    packet.format = AacFormat(48'000, channels, "");
    silences.push_back(EncodeSilence(*packet.format)->size);
    channel->queue().Push({0, 0, 1, std::move(packet)});
    channel->DeliverUpTo(kSecond);
  }
  EXPECT_EQ(sizes, silences);
  EXPECT_NE(silences[0], silences[1]);
  graph->Stop();
}

}  // namespace
}  // namespace host
