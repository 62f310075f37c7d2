#include <array>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <boost/asio/read_until.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "host/feed/audio_encoder.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/time_unit.h"
#include "host/output/listening.h"
#include "host/output/preview.h"
#include "tests/host/control/http_fixture.h"
#include "tests/support/foreign_sample.h"
#include "tests/support/frames.h"
#include "tests/support/wait_until.h"

namespace host::control::http {
namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 360;
constexpr Time kFrame = 40 * kMillisecond;
// The wall has run for a month.
constexpr Time kStart = 30 * 24 * 3600 * kSecond;

struct Message {
  Json event;  // of a text
  int kind = 0;
  bool isKey = false;
  std::uint64_t frame = 0;
  std::string bytes;
};

// Plays the track as a player does: each frame, and its time.
void Play(std::string file, const std::function<void(const AVFrame& frame, Time time)>& show) {
  struct Source {
    std::string bytes;
    std::size_t at = 0;
  } source{std::move(file)};
  const ffmpeg::CallbackIo io =
      ffmpeg::MakeReadingIo(&source, [](void* self, std::uint8_t* bytes, int size) {
        Source& from = *static_cast<Source*>(self);
        const std::size_t count =
            std::min(from.bytes.size() - from.at, static_cast<std::size_t>(size));
        std::memcpy(bytes, from.bytes.data() + from.at, count);
        from.at += count;
        return count > 0 ? static_cast<int>(count) : AVERROR_EOF;
      });
  AVFormatContext* context = avformat_alloc_context();
  context->pb = io.get();
  ffmpeg::Check(avformat_open_input(&context, nullptr, nullptr, nullptr), "cannot open");
  const ffmpeg::InputFormat input(context);
  const AVStream& stream = *input->streams[0];
  const ffmpeg::Codec codec(
      avcodec_alloc_context3(avcodec_find_decoder(stream.codecpar->codec_id)));
  avcodec_parameters_to_context(codec.get(), stream.codecpar);
  codec->pkt_timebase = stream.time_base;
  ffmpeg::Check(avcodec_open2(codec.get(), nullptr, nullptr), "cannot decode");
  const auto receive = [&](const AVPacket* packet) {
    ffmpeg::Check(avcodec_send_packet(codec.get(), packet), "cannot decode");
    const ffmpeg::Frame frame = ffmpeg::MakeFrame();
    while (avcodec_receive_frame(codec.get(), frame.get()) >= 0) {
      show(*frame, ffmpeg::ToTime(frame->pts, stream.time_base).value());
    }
  };
  const ffmpeg::Packet packet = ffmpeg::MakePacket();
  while (av_read_frame(input.get(), packet.get()) >= 0) {
    receive(packet.get());
    av_packet_unref(packet.get());
  }
  receive(nullptr);
}

class PreviewTest : public HttpTest {
 protected:
  PreviewTest() {
    canvas_.width = kWidth;
    canvas_.height = kHeight;
    options_.width = options_.height = 320;
  }
  ~PreviewTest() override { server_.reset(); }
  void Begin() {
    preview_ = std::make_unique<Preview>(Preview::Settings{canvas_, options_, {}});
    settings_.preview = preview_->feed();
    settings_.audio = listening_.feeds();
    Start();
  }
  static Message Receive(WebSocket& socket) {
    boost::beast::flat_buffer buffer;
    socket.read(buffer);
    std::string bytes = boost::beast::buffers_to_string(buffer.data());
    Message message;
    if (socket.got_text()) {
      message.event = Json::parse(bytes);
      return message;
    }
    message.kind = bytes.at(0);
    message.isKey = (bytes.at(1) & 1) != 0;
    for (std::size_t i = 0; i < 8; ++i) {
      message.frame |= std::uint64_t{static_cast<std::uint8_t>(bytes.at(8 + i))} << (8 * i);
    }
    message.bytes = bytes.substr(16);
    return message;
  }
  static void Send(WebSocket& socket, const Json& message) {
    socket.write(asio::buffer(message.dump()));
  }
  // A client that has its snapshot and has asked for something.
  std::unique_ptr<WebSocket> OpenFor(const Json& wish) {
    auto socket = OpenWebSocket();
    ReadMessage(*socket);
    Json message = wish;
    message["id"] = 5;
    Send(*socket, message);
    EXPECT_EQ(ReadMessage(*socket), Json({{"event", "reply"}, {"id", 5}, {"result", wish}}));
    return socket;
  }
  std::unique_ptr<WebSocket> Look() { return OpenFor({{"preview", true}}); }
  // The wall composes its next frame, whose brightness follows its number.
  void Compose() {
    const auto frame = fakes::ForeignSample::Create(kWidth * kHeight * 3 / 2);
    BYTE* pixels = nullptr;
    frame->GetPointer(&pixels);
    std::fill_n(pixels, kWidth * kHeight * 3 / 2, BYTE{128});
    std::fill_n(pixels, kWidth * kHeight, LumaOf(composed_));
    if (hasNoise_) {
      std::generate(pixels + 32 * kWidth, pixels + kWidth * kHeight,
                    [this] { return static_cast<BYTE>(16 + noise_() % 220); });
    }
    preview_->Take(ComPtr<IMediaSample>(frame.Get()), kStart + kFrame * composed_++);
  }
  static BYTE LumaOf(int frame) { return static_cast<BYTE>(60 + frame % 150); }

  config::Canvas canvas_;
  config::PreviewOptions options_;
  std::unique_ptr<Preview> preview_;
  Listening listening_{3};
  int composed_ = 0;
  bool hasNoise_ = false;
  std::minstd_rand noise_;
};

TEST_F(PreviewTest, SendsEveryFrameToViewersAndEncodesOnlyForThem) {
  Begin();
  Compose();  // the wall's frame 0, which nobody sees
  EXPECT_FALSE(preview_->status().isEncoding);
  const auto first = Look();
  Compose();
  Message message = Receive(*first);
  EXPECT_EQ(message.event.value("event", ""), "preview");
  EXPECT_EQ(message.event.value("width", 0), 320);
  EXPECT_EQ(message.event.value("height", 0), 180);
  EXPECT_EQ(message.event.value("rate", ""), "25");
  EXPECT_TRUE(message.event.value("codec", "").starts_with("avc1.4d")) << message.event;
  message = Receive(*first);
  EXPECT_EQ(message.kind, 1);
  std::string file = message.bytes;
  std::vector<std::uint64_t> keys;
  std::vector<std::unique_ptr<WebSocket>> others;
  constexpr std::uint64_t kFrames = 90;
  for (std::uint64_t frame = 1; frame <= kFrames; ++frame) {
    message = Receive(*first);
    ASSERT_EQ(message.kind, 2);
    ASSERT_EQ(message.frame, frame);
    file += message.bytes;
    if (message.isKey) {
      keys.push_back(frame);
    }
    if (frame > 30 && frame <= 36) {
      others.push_back(Look());
    }
    Compose();
  }
  // One each second, and one for the first client that joins; the others get the next regular one.
  EXPECT_THAT(keys, ::testing::ElementsAre(1, 26, 32, 51, 76));

  int shown = 0;
  Play(file, [&](const AVFrame& decoded, Time time) {
    ++shown;
    EXPECT_NEAR(time, kStart + kFrame * shown, 1) << "at the wall's own time";
    EXPECT_NEAR(decoded.data[0][0], LumaOf(shown), 3) << shown;
    EXPECT_EQ(decoded.width, 320);
  });
  EXPECT_EQ(shown, static_cast<int>(kFrames));
  for (const auto& other : others) {
    while (Receive(*other).kind != 1) {
    }
    message = Receive(*other);
    EXPECT_TRUE(message.isKey && (message.frame == 32 || message.frame == 51)) << message.frame;
  }
  EXPECT_EQ(preview_->status().viewers, 7U);

  // Some disconnect, one stays and ends its preview.
  others.clear();
  Send(*first, {{"preview", false}});
  WaitUntil("nobody looks", [&] { return preview_->status().viewers == 0; });
  WaitUntil("the encoder is freed", [&] { return !preview_->status().isEncoding; });
  const std::uint64_t encoded = preview_->status().frames;
  Compose();
  EXPECT_EQ(preview_->status().frames, encoded);
}

TEST_F(PreviewTest, SkipsToAKeyframeForASlowClientOnly) {
  options_.width = options_.height = kWidth;
  options_.bitRate = 100'000'000;
  hasNoise_ = true;
  settings_.limits.video.fragments = 10;
  settings_.limits.idle = std::chrono::minutes(10);  // the slow client does not answer pings
  Begin();
  const auto fast = Look();
  const auto slow = Look();
  slow->next_layer().set_option(asio::socket_base::receive_buffer_size(8192));
  Compose();
  Receive(*fast);
  Receive(*fast);
  std::uint64_t frames = 0;
  std::size_t bytes = 0;
  const auto next = [&] {
    const Message message = Receive(*fast);
    EXPECT_EQ(message.frame, frames++) << "of the one that is not slow";
    bytes += message.bytes.size();
    Compose();
  };
  // Until the system's buffers for the slow client are full, and then its queue.
  while (bytes < 1'500'000) {
    next();
    ASSERT_LT(frames, 1000U) << "the frames are too small for this test";
  }
  const std::uint64_t until = frames + 30;
  std::future<int> reading = std::async(std::launch::async, [&slow, until] {
    int gaps = 0;
    std::optional<std::uint64_t> last;
    while (last.value_or(0) < until) {
      const Message message = Receive(*slow);
      if (message.kind == 2 && last && message.frame != *last + 1) {
        EXPECT_TRUE(message.isKey) << "after the gap behind " << *last;
        ++gaps;
      }
      last = message.kind == 2 ? std::optional(message.frame) : last;
    }
    return gaps;
  });
  while (reading.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
    next();
    if (frames > until + 1000) {
      slow->next_layer().shutdown(tcp::socket::shutdown_both);  // it gets nothing any more
    }
  }
  EXPECT_GE(reading.get(), 1);
}

// A second of silence, then half of a second of full scale.
constexpr int kRate = 48'000;
constexpr Time kClick = kStart + kSecond;

// Packets in the format of the track, as outputs get them.
std::vector<ffmpeg::Packet> Click(const AudioFormat& format) {
  constexpr int kSamples = 960;
  std::vector<ffmpeg::Packet> packets;
  AudioEncoder encoder(*format.parameters);
  for (int i = 0; i < 75; ++i) {
    const ffmpeg::Frame frame = ffmpeg::MakeFrame();
    frame->format = AV_SAMPLE_FMT_FLT;
    frame->sample_rate = kRate;
    frame->nb_samples = kSamples;
    frame->ch_layout = AV_CHANNEL_LAYOUT_STEREO;
    av_frame_get_buffer(frame.get(), 0);
    auto* const samples = reinterpret_cast<float*>(frame->data[0]);
    for (int n = 0; n < 2 * kSamples; ++n) {
      samples[n] = i < 50 ? 0.0F : n / 2 % 48 < 24 ? 0.8F : -0.8F;
    }
    encoder.Push(*frame, kStart + i * Time{kSamples} * kSecond / kRate,
                 [&](ffmpeg::Packet packet) { packets.push_back(std::move(packet)); });
  }
  return packets;
}

std::shared_ptr<AudioTrack> TrackOf(AVCodecID codec) {
  auto format = std::make_shared<AudioFormat>();
  format->parameters = ffmpeg::CopyParameters(*AacFormat(kRate, 2, "")->parameters);
  if (codec != AV_CODEC_ID_AAC) {
    format->parameters->codec_id = codec;
    format->parameters->extradata_size = 0;
    format->parameters->bit_rate = 192'000;
    format->parameters->frame_size = 0;
  }
  auto track = std::make_shared<AudioTrack>();
  track->Fix(format);
  return track;
}

TEST_F(PreviewTest, PlaysEveryCodecAtTheTimesOfTheWall) {
  Begin();
  std::size_t slot = 0;
  for (const AVCodecID codec : {AV_CODEC_ID_AAC, AV_CODEC_ID_MP2}) {
    const std::string name = "Cam " + std::to_string(slot + 1);
    const auto one = OpenFor({{"listen", name}});
    const auto other = OpenFor({{"listen", name}});
    // Those of the codec before may still be in the hands of the publishing thread.
    WaitUntil("two listen", [&] { return listening_.listeners() == 2; });
    const std::shared_ptr<AudioTrack> track = TrackOf(codec);
    const std::vector<ffmpeg::Packet> packets = Click(*track->format());
    for (const ffmpeg::Packet& packet : packets) {
      listening_.Take(slot, *packet, track);
    }
    EXPECT_EQ(Receive(*one).event, Json({{"event", "listening"},
                                         {"channel", name},
                                         {"codec", "mp4a.40.2"},
                                         {"rate", kRate},
                                         {"channels", 2}}));
    Receive(*other);
    std::string file;
    for (std::size_t i = 0; i < 65; ++i) {
      const Message message = Receive(*one);
      EXPECT_EQ(message.kind, i == 0 ? 3 : 4);
      EXPECT_EQ(Receive(*other).bytes, message.bytes);
      if (i > 0 && codec == AV_CODEC_ID_AAC) {
        const AVPacket& sent = *packets[i - 1];
        EXPECT_TRUE(message.bytes.ends_with(std::string(reinterpret_cast<const char*>(sent.data),
                                                        static_cast<std::size_t>(sent.size))))
            << "as it is";
      }
      file += message.bytes;
    }
    std::optional<Time> click;
    Play(file, [&](const AVFrame& frame, Time time) {
      const auto* const samples = reinterpret_cast<const float*>(frame.data[0]);
      const auto* const loud = std::find_if(samples, samples + frame.nb_samples,
                                            [](float sample) { return std::abs(sample) > 0.4F; });
      if (!click && loud != samples + frame.nb_samples) {
        click = time + (loud - samples) * kSecond / kRate;
      }
    });
    EXPECT_NEAR(click.value_or(0), kClick, 3 * kMillisecond) << avcodec_get_name(codec);

    // A channel that is re-anchored steps back in time, with a description of its own.
    listening_.Take(slot, *packets[0], track);
    Message message;
    do {
      message = Receive(*one);
    } while (message.event.is_null());
    EXPECT_EQ(message.event.value("event", ""), "listening");
    EXPECT_EQ(Receive(*one).kind, 3);
    ++slot;
  }
}

TEST_F(PreviewTest, SaysWhyAChannelIsNotHeard) {
  settings_.limits.silence = std::chrono::milliseconds(200);
  Begin();
  const auto why = [](WebSocket& socket) {
    for (;;) {
      const Message message = Receive(socket);
      if (message.event.is_null()) {
        continue;
      }
      if (message.event["event"] == "listening") {
        EXPECT_TRUE(message.event.at("channel").is_null());
        return message.event.at("why").get<std::string>();
      }
      if (message.event.contains("problem")) {
        return message.event["problem"].dump();
      }
    }
  };
  const auto socket = OpenFor({{"listen", "Cam 2"}});
  EXPECT_EQ(why(*socket), "no audio comes from it");
  Send(*socket, {{"listen", "Cam 3"}});
  EXPECT_THAT(why(*socket), ::testing::HasSubstr(R"("nearest":"Cam)"));
  Send(*socket, {{"listen", 3}});
  EXPECT_THAT(why(*socket), ::testing::HasSubstr("name of a channel"));
  Send(*socket, {{"listen", "Cam 1"}, {"preview", true}});
  EXPECT_THAT(why(*socket), ::testing::HasSubstr("one of"));

  const std::shared_ptr<AudioTrack> track = TrackOf(AV_CODEC_ID_AAC);
  const ffmpeg::Packet packet = std::move(Click(*track->format()).front());
  const auto hear = [&](std::size_t slot, const std::string& name) {
    auto hearing = OpenFor({{"listen", name}});
    listening_.Take(slot, *packet, track);
    EXPECT_EQ(Receive(*hearing).event.value("channel", ""), name);
    return hearing;
  };
  const auto first = hear(0, "Cam 1");
  const auto second = hear(1, "Cam 2");
  Send(*socket, {{"commands", {{"command", "mute"}, {"channel", "Cam 1"}}}});
  EXPECT_EQ(why(*first), "it is muted");
  Send(*first, {{"listen", "Cam 1"}});
  EXPECT_THAT(why(*first), ::testing::HasSubstr("it is muted"));
  Send(*socket, {{"commands", {{"command", "remove"}, {"channel", "Cam 2"}}}});
  EXPECT_EQ(why(*second), "there is no such channel any more");
  WaitUntil("nobody listens", [&] { return listening_.listeners() == 0; });
}

TEST_F(PreviewTest, ServesPicturesOneAfterTheOther) {
  Begin();
  tcp::socket socket = Connect();
  asio::write(socket,
              asio::buffer(std::string("GET /preview.mjpg HTTP/1.1\r\nHost: localhost\r\n\r\n")));
  std::string text;
  asio::read_until(socket, asio::dynamic_buffer(text), "\r\n\r\n--picture\r\n");
  for (int i = 0; i < 2; ++i) {
    asio::read_until(socket, asio::dynamic_buffer(text), "\r\n\r\nsmall JPEG\r\n");
    text.erase(0, text.find("small JPEG") + 1);
  }
}

}  // namespace
}  // namespace host::control::http
