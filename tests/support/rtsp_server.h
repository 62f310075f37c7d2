// RtspServer: a camera on this machine.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mem.h>
}

#include "host/ffmpeg/error.h"
#include "host/ffmpeg/handles.h"
#include "tests/support/local_socket.h"

namespace support {

namespace ffmpeg = host::ffmpeg;

inline constexpr int kMaxPacket = 1400;  // bytes
inline constexpr std::size_t kMaxUnsent = 1 << 20;
inline constexpr std::chrono::milliseconds kSentAtOnce(500);
inline constexpr int kTimeout = 5;  // milliseconds between two looks at the clock

// The value of a header; empty without one.
inline std::string Header(const std::string& request, const std::string& name) {
  const std::size_t at = request.find("\r\n" + name + ": ");
  if (at == std::string::npos) {
    return {};
  }
  const std::size_t begin = at + name.size() + 4;
  return request.substr(begin, request.find("\r\n", begin) - begin);
}

// One stream, packed into RTP by FFmpeg.
struct Packer {
  ffmpeg::OutputFormat muxer;
  ffmpeg::CallbackIo io;
  std::vector<std::string> packets;  // of the latest Write

  explicit Packer(const AVStream& stream) {
    AVFormatContext* context = nullptr;
    ffmpeg::Check(avformat_alloc_output_context2(&context, nullptr, "rtp", nullptr), "pack", "rtp");
    muxer.reset(context);
    AVStream* const packed = avformat_new_stream(context, nullptr);
    ffmpeg::Check(avcodec_parameters_copy(packed->codecpar, stream.codecpar), "pack", "rtp");
    packed->codecpar->codec_tag = 0;
    auto* const buffer = static_cast<unsigned char*>(av_malloc(kMaxPacket));
    io.reset(avio_alloc_context(buffer, kMaxPacket, 1, this, nullptr, &Take, nullptr));
    io->max_packet_size = kMaxPacket;
  }
  Packer(const Packer&) = delete;
  Packer& operator=(const Packer&) = delete;
  ~Packer() {
    if (muxer->pb != nullptr) {
      av_write_trailer(muxer.get());  // frees what the muxer has taken when it began
    }
  }
  void Begin() {
    muxer->pb = io.get();
    muxer->flags |= AVFMT_FLAG_CUSTOM_IO;
    ffmpeg::Check(avformat_write_header(muxer.get(), nullptr), "pack", "rtp");
  }
  static int Take(void* packer, std::uint8_t* bytes, int size) {
    static_cast<Packer*>(packer)->packets.emplace_back(reinterpret_cast<const char*>(bytes),
                                                       static_cast<std::size_t>(size));
    return size;
  }
};

// Sends a clip with one video and one audio stream to everybody who plays it, from its beginning
// and in real time but for the first half second, which comes at once, over the connection itself
// ("interleaved") or in datagrams, as the client wishes. Like a camera it can fall silent, stop
// answering or hang up.
//
// A thread of its own does everything with the sockets.
class RtspServer {
 public:
  enum class Mood {
    kPlays,
    kSilent,  // answers, but sends no media; what would have been sent meanwhile is lost
    kMute,    // lets clients connect, and neither answers nor sends
  };

  // Throws host::ffmpeg::Error (the clip).
  explicit RtspServer(const std::filesystem::path& clip) {
    Pack(clip);
    thread_ = std::thread([this] { Run(); });
  }
  ~RtspServer() {
    ends_ = true;
    thread_.join();
  }
  RtspServer(const RtspServer&) = delete;
  RtspServer& operator=(const RtspServer&) = delete;

  // credentials: "user:password@" or nothing; anything is let in.
  std::string Url(const std::string& credentials = {}) const {
    return "rtsp://" + credentials + listener_.address() + "/camera";
  }
  void Become(Mood mood) { mood_ = mood; }
  // Hangs up on every client after playing for this long; 0: never.
  void HangUpAfter(std::chrono::milliseconds length) { hangUpAfter_ = length.count(); }
  // Clients beyond this number are refused.
  void AllowSessions(std::size_t most) { mostSessions_ = most; }
  int refused() const { return refused_; }
  // The connected clients.
  int clients() const { return connected_; }

 private:
  using Clock = std::chrono::steady_clock;

  struct RtpPacket {
    std::chrono::microseconds due;
    int track = 0;
    bool control = false;
    std::string bytes;
  };
  struct Client {
    struct Road {
      bool open = false;
      int channel = 0;              // of the connection
      std::uint16_t datagrams = 0;  // the client's port; 0: over the connection
    };

    int descriptor = -1;
    std::string heard;
    std::string unsent;
    std::array<Road, 2> roads;
    bool playing = false;
    bool leaves = false;
    Clock::time_point began;
    std::size_t next = 0;  // of the packets

    explicit Client(int accepted) : descriptor(accepted) {}
    ~Client() { ::close(descriptor); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
  };

  void Pack(const std::filesystem::path& clip) {
    AVFormatContext* context = nullptr;
    ffmpeg::Check(avformat_open_input(&context, clip.c_str(), nullptr, nullptr), "open", clip);
    const ffmpeg::InputFormat input(context);
    ffmpeg::Check(avformat_find_stream_info(context, nullptr), "look into", clip);
    std::list<Packer> packers;
    std::vector<Packer*> byStream;
    std::vector<AVFormatContext*> muxers;
    for (unsigned i = 0; i < context->nb_streams; ++i) {
      byStream.push_back(&packers.emplace_back(*context->streams[i]));
      muxers.push_back(byStream.back()->muxer.get());
    }
    std::array<char, 8192> description{};
    ffmpeg::Check(av_sdp_create(muxers.data(), static_cast<int>(muxers.size()), description.data(),
                                static_cast<int>(description.size())),
                  "describe", clip);
    description_ = description.data();
    for (Packer& packer : packers) {
      packer.Begin();
    }
    const ffmpeg::Packet packet = ffmpeg::MakePacket();
    while (av_read_frame(context, packet.get()) >= 0) {
      const int track = packet->stream_index;
      Packer& packer = *byStream.at(static_cast<std::size_t>(track));
      const AVRational unit = context->streams[track]->time_base;
      const std::chrono::microseconds due(
          av_rescale_q(packet->dts, unit, AVRational{1, 1'000'000}));
      av_packet_rescale_ts(packet.get(), unit, packer.muxer->streams[0]->time_base);
      packet->stream_index = 0;
      ffmpeg::Check(av_write_frame(packer.muxer.get(), packet.get()), "pack", clip);
      for (std::string& bytes : packer.packets) {
        const int kind = static_cast<unsigned char>(bytes.at(1));
        packets_.push_back({due, track, kind >= 200 && kind <= 204, std::move(bytes)});
      }
      packer.packets.clear();
      av_packet_unref(packet.get());
    }
  }
  void Run() {
    while (!ends_) {
      std::vector<pollfd> waits = {{listener_.descriptor(), POLLIN, 0}};
      for (const Client& client : clients_) {
        waits.push_back({client.descriptor, POLLIN, 0});
      }
      // A mute server reads no requests, and those that wait would end the wait at once.
      ::poll(waits.data(), mood_ == Mood::kMute ? 1 : waits.size(), kTimeout);
      Accept();
      if (mood_ == Mood::kMute) {
        continue;
      }
      for (auto client = clients_.begin(); client != clients_.end();) {
        const bool stays = OnSourceEvent(*client);
        Send(*client);
        client =
            stays && Flush(*client) && !client->leaves ? std::next(client) : clients_.erase(client);
      }
      connected_ = static_cast<int>(clients_.size());
    }
    clients_.clear();
  }
  void Accept() {
    const int accepted = listener_.Accept(SOCK_NONBLOCK);
    if (accepted >= 0) {
      clients_.emplace_back(accepted);
    }
  }
  bool OnSourceEvent(Client& client) {
    std::array<char, 4096> bytes;
    const ssize_t count = ::recv(client.descriptor, bytes.data(), bytes.size(), 0);
    if (count == 0 || (count < 0 && errno != EAGAIN)) {
      return false;
    }
    client.heard.append(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    while (!client.heard.empty()) {
      std::string& heard = client.heard;
      if (heard[0] == '$') {  // a receiver's report: $, channel, two bytes of length
        const std::size_t length =
            heard.size() < 4 ? 0
                             : 4 + static_cast<unsigned char>(heard[2]) * std::size_t{256} +
                                   static_cast<unsigned char>(heard[3]);
        if (length == 0 || heard.size() < length) {
          break;
        }
        heard.erase(0, length);
        continue;
      }
      const std::size_t end = heard.find("\r\n\r\n");
      if (end == std::string::npos) {
        break;
      }
      const std::string request = heard.substr(0, end + 2);
      heard.erase(0, end + 4);
      Answer(client, request);
    }
    return true;
  }
  void Answer(Client& client, const std::string& request) {
    const std::string method = request.substr(0, request.find(' '));
    if (clients_.size() > mostSessions_ && method != "TEARDOWN" && !client.playing) {
      ++refused_;
      client.unsent += "RTSP/1.0 453 No\r\nCSeq: " + Header(request, "CSeq") + "\r\n\r\n";
      return;
    }
    std::string headers;
    std::string body;
    if (method == "OPTIONS") {
      headers = "Public: OPTIONS, DESCRIBE, SETUP, PLAY, TEARDOWN, GET_PARAMETER\r\n";
    } else if (method == "DESCRIBE") {
      body = description_;
      headers = "Content-Type: application/sdp\r\nContent-Base: " + Url() +
                "/\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
    } else if (method == "SETUP") {
      headers = "Transport: " + SetUp(client, request) + "\r\n";
    } else if (method == "PLAY") {
      client.playing = true;
      client.began = Clock::now();
    } else if (method == "TEARDOWN") {
      client.leaves = true;
    }
    client.unsent += "RTSP/1.0 200 OK\r\nCSeq: " + Header(request, "CSeq") + "\r\nSession: 1\r\n" +
                     headers + "\r\n" + body;
  }
  std::string SetUp(Client& client, const std::string& request) {
    const std::size_t track = request.find("streamid=1") < request.find("\r\n") ? 1 : 0;
    Client::Road& road = client.roads[track];
    const std::string wish = Header(request, "Transport");
    int first = 0;
    const auto number = [&](const char* name) {
      const std::size_t at = wish.find(name);
      return at != std::string::npos &&
             std::sscanf(wish.c_str() + at + std::string(name).size(), "%d", &first) == 1;
    };
    road.open = true;
    if (number("interleaved=")) {
      road.channel = first;
      return "RTP/AVP/TCP;unicast;interleaved=" + std::to_string(first) + "-" +
             std::to_string(first + 1);
    }
    number("client_port=");
    road.datagrams = static_cast<std::uint16_t>(first);
    return "RTP/AVP/UDP;unicast;client_port=" + std::to_string(first) + "-" +
           std::to_string(first + 1) + ";server_port=" + std::to_string(datagrams_.port()) + "-" +
           std::to_string(datagrams_.port());
  }
  void Send(Client& client) {
    if (!client.playing) {
      return;
    }
    const Clock::duration played = Clock::now() - client.began;
    const std::chrono::milliseconds limit(hangUpAfter_);
    client.leaves = client.leaves || (limit.count() > 0 && played >= limit);
    for (; client.next < packets_.size() && packets_[client.next].due <= played + kSentAtOnce;
         ++client.next) {
      const RtpPacket& packet = packets_[client.next];
      const Client::Road& road = client.roads.at(static_cast<std::size_t>(packet.track));
      if (mood_ != Mood::kPlays || !road.open || client.unsent.size() > kMaxUnsent) {
        continue;
      }
      if (road.datagrams == 0) {
        const std::size_t size = packet.bytes.size();
        client.unsent += {'$', static_cast<char>(road.channel + (packet.control ? 1 : 0)),
                          static_cast<char>(size >> 8), static_cast<char>(size & 0xFF)};
        client.unsent += packet.bytes;
        continue;
      }
      datagrams_.SendTo(static_cast<std::uint16_t>(road.datagrams + (packet.control ? 1 : 0)),
                        packet.bytes);
    }
  }
  static bool Flush(Client& client) {
    while (!client.unsent.empty()) {
      const ssize_t sent =
          ::send(client.descriptor, client.unsent.data(), client.unsent.size(), MSG_NOSIGNAL);
      if (sent < 0) {
        return errno == EAGAIN;
      }
      client.unsent.erase(0, static_cast<std::size_t>(sent));
    }
    return true;
  }

  std::vector<RtpPacket> packets_;
  std::string description_;  // SDP
  const LocalSocket listener_{SOCK_STREAM | SOCK_NONBLOCK};
  const LocalSocket datagrams_{SOCK_DGRAM | SOCK_NONBLOCK};
  std::atomic<Mood> mood_{Mood::kPlays};
  std::atomic<std::int64_t> hangUpAfter_{0};  // milliseconds
  std::atomic<int> connected_{0};
  std::atomic<std::size_t> mostSessions_{1000};
  std::atomic<int> refused_{0};
  std::atomic<bool> ends_{false};
  std::list<Client> clients_;  // the thread's
  std::thread thread_;
};

}  // namespace support
