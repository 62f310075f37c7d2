// Texts that name files and addresses, from a sender who must not choose what is opened here.
#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C" {
#include <libavformat/avio.h>
}

#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/io_deadline.h"
#include "tests/host/clips.h"
#include "tests/support/http_server.h"
#include "tests/support/local_socket.h"
#include "tests/support/temporary_folder.h"

namespace host {
namespace {

// Every text is sent over one protocol, and the first ones over the others, because one place
// decides what is read of them.
constexpr std::size_t kFew = 4;

// A file and a port of this machine that must not be opened.
class Honeypot {
 public:
  explicit Honeypot(const std::filesystem::path& file) : file_(file) {
    Write(SmallClip(), file_);
    EXPECT_GE(::inotify_add_watch(watch_, file_.c_str(), IN_OPEN), 0);
    touched();
  }
  ~Honeypot() { ::close(watch_); }
  Honeypot(const Honeypot&) = delete;
  Honeypot& operator=(const Honeypot&) = delete;

  std::string file() const { return file_.string(); }
  std::string address() const { return listener_.address(); }
  // Since the latest call.
  bool touched() const {
    bool any = false;
    std::array<char, 4096> events{};
    while (::read(watch_, events.data(), events.size()) > 0) {
      any = true;
    }
    for (int peer = -1; (peer = listener_.Accept()) >= 0; any = true) {
      ::close(peer);
    }
    return any;
  }

 private:
  const std::filesystem::path file_;
  const int watch_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  const LocalSocket listener_{SOCK_STREAM | SOCK_NONBLOCK};
};

// Writes a text to a pipe or an FFmpeg address, again and again until it is stopped.
class Sender {
 public:
  Sender(std::string url, std::string text, std::map<std::string, std::string> options = {})
      : thread_([this, url = std::move(url), text = std::move(text), options = std::move(options)] {
          Run(url, text, options);
        }) {}
  ~Sender() {
    deadline_.Cancel();
    thread_.join();
  }
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;

  // How often the whole text was written.
  int written() const { return written_; }

 private:
  void Run(const std::string& url, const std::string& text,
           const std::map<std::string, std::string>& wanted) {
    const AVIOInterruptCB interrupt{&ffmpeg::IoDeadline::Callback, &deadline_};
    while (!deadline_.ShouldStop()) {
      if (url.starts_with('/')) {
        // Does not wait for a reader.
        const int pipe = ::open(url.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (pipe >= 0) {
          // The reader may have left meanwhile.
          written_ += ::write(pipe, text.data(), text.size()) > 0 ? 1 : 0;
          ::close(pipe);
        }
        ::usleep(1000);
        continue;
      }
      ffmpeg::Options options;
      for (const auto& [key, value] : wanted) {
        options.Set(key.c_str(), value);
      }
      AVIOContext* opened = nullptr;
      if (avio_open2(&opened, url.c_str(), AVIO_FLAG_WRITE, &interrupt, options.Exchange()) < 0) {
        ::usleep(1000);
        continue;
      }
      const ffmpeg::Connection connection(opened);
      avio_write(connection.get(), reinterpret_cast<const std::uint8_t*>(text.data()),
                 static_cast<int>(text.size()));
      avio_flush(connection.get());
      ++written_;
    }
  }

  ffmpeg::IoDeadline deadline_;
  std::atomic<int> written_{0};
  std::thread thread_;
};

std::string HlsOf(const std::string& target) {
  return "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:1\n#EXT-X-MEDIA-SEQUENCE:0\n"
         "#EXTINF:1.0,\n" +
         target + "\n#EXT-X-ENDLIST\n" + std::string(3000, '#') + "\n";
}

std::string DashOf(const std::string& target) {
  return "<?xml version=\"1.0\"?><MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" type=\"static\" "
         "profiles=\"urn:mpeg:dash:profile:isoff-on-demand:2011\" "
         "mediaPresentationDuration=\"PT1S\"><Period><AdaptationSet mimeType=\"video/mp4\">"
         "<Representation id=\"1\" bandwidth=\"1\"><BaseURL>" +
         target + "</BaseURL></Representation></AdaptationSet></Period></MPD>" +
         std::string(3000, ' ');
}

class HostileSourceTest : public testing::Test {
 protected:
  // Texts that lead to the honeypot's file; over HTTP, an address is what a playlist is expected
  // to name.
  std::vector<std::string> Texts(bool overHttp) const {
    const std::string path = honeypot_.file();
    std::vector<std::string> texts;
    for (const std::string& target :
         {"file:" + path, "file://" + path, path, "crypto+file:" + path, "crypto:" + path,
          "subfile,,start,0,end,4096,,:" + path, "concat:" + path + "|" + path, "async:" + path,
          "cache:" + path}) {
      texts.push_back(HlsOf(target));
      texts.push_back(DashOf(target));
    }
    // A key is fetched before the segment that it belongs to.
    texts.push_back(
        "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-KEY:METHOD=AES-128,URI=\"file:" + path +
        "\"\n#EXTINF:1,\nfile:" + path + "\n#EXT-X-ENDLIST\n" + std::string(3000, '#') + "\n");
    const std::string url = "http://" + honeypot_.address() + "/a.ts";
    texts.push_back("ffconcat version 1.0\nfile '" + url + "'\n" + std::string(3000, '\n'));
    texts.push_back("ffconcat version 1.0\nfile 'tcp://" + honeypot_.address() + "'\n" +
                    std::string(3000, '\n'));
    if (!overHttp) {
      texts.push_back(HlsOf(url));
      texts.push_back(DashOf(url));
    }
    return texts;
  }
  static std::string Open(const std::string& source, SourceAddress::Options options = {}) {
    MediaReader::Settings settings;
    settings.source = source;
    settings.options.openLimit = 2 * kSecond;
    settings.options.options = std::move(options);
    MediaReader reader(settings);
    try {
      reader.Open();
    } catch (const MediaError& error) {
      return error.reason();
    }
    return "opened";
  }

  void ExpectRefused(const std::string& result, const std::string& source,
                     const std::string& text) const {
    EXPECT_NE(result, "opened") << source << "\n" << text.substr(0, 300);
    EXPECT_FALSE(honeypot_.touched()) << source << ": " << result << "\n" << text.substr(0, 300);
  }
  // The sender may not be listening yet.
  void ExpectRefused(const Sender& sender, const std::string& source,
                     const std::string& text) const {
    std::string result;
    do {
      result = Open(source);
    } while (sender.written() == 0);
    ExpectRefused(result, source, text);
  }

  const TemporaryFolder folder_;
  const Honeypot honeypot_{folder_ / "honeypot.ts"};
};

TEST_F(HostileSourceTest, WhatComesOverTheNetworkOpensNothingElse) {
  const std::string host = "127.0.0.1:";
  const auto run = [&](const std::string& source, const std::string& sends,
                       const std::map<std::string, std::string>& options = {},
                       std::size_t most = kFew) {
    std::vector<std::string> texts = Texts(false);
    texts.resize(std::min(texts.size(), most));
    for (const std::string& text : texts) {
      ExpectRefused(Sender(sends, text, options), source, text);
    }
  };
  const std::string tcp = "tcp://" + host + std::to_string(FreePort(SOCK_STREAM));
  run(tcp, tcp + "?listen=1", {}, std::string::npos);
  const std::string local = "unix:" + (folder_ / "socket").string();
  run(local, local, {{"listen", "1"}});
  const std::string srt =
      "srt://" + host + std::to_string(FreePort(SOCK_DGRAM)) + "?transtype=file";
  run(srt, srt + "&mode=listener");
  for (const std::string scheme : {"udp", "rtp"}) {
    const std::string address = host + std::to_string(FreePort(SOCK_DGRAM));
    run(scheme + "://" + address, "udp://" + address + "?pkt_size=32000");
  }
  const std::string fifo = (folder_ / "fifo").string();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  run(fifo, fifo);
}

TEST_F(HostileSourceTest, WhatAServerAnswersOpensNoFile) {
  for (const std::string& text : Texts(true)) {
    const HttpServer server(text, HttpServer::Manner::kIgnoresRanges);
    for (const std::string& source :
         {server.url(), server.url() + ".sdp", server.url() + ".sdp?a=b", "async:" + server.url(),
          "cache:" + server.url(), "hls+" + server.url()}) {
      ExpectRefused(Open(source), source, text);
    }
  }
  // An unexpected session description opens no port.
  const std::string port = std::to_string(FreePort(SOCK_DGRAM));
  const HttpServer server(
      "v=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=x\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\nm=video " + port +
          " RTP/AVP 33\r\n",
      HttpServer::Manner::kIgnoresRanges);
  EXPECT_NE(Open(server.url()).find("format_whitelist"), std::string::npos) << Open(server.url());
}

TEST_F(HostileSourceTest, NoAnswerOfAServerOfSessionsOpensAFileOrLastsOrFillsTheMemory) {
  const std::string ok = "RTSP/1.0 200 OK\r\nCSeq: 1\r\n";
  const std::string described =
      ok + "\r\nRTSP/1.0 200 OK\r\nCSeq: 2\r\nContent-Type: application/sdp\r\nContent-Length: ";
  const std::string address = "://127.0.0.1:" + std::to_string(FreePort(SOCK_STREAM));
  for (const auto& [scheme, text] : std::vector<std::pair<std::string, std::string>>{
           {"rtsp", described + "1900000000\r\n\r\n"},
           {"rtsp", described + "-1900000000\r\n\r\n" + std::string(100'000, 'a')},
           {"rtsp",
            "RTSP/1.0 302 Moved\r\nCSeq: 1\r\nLocation: file:" + honeypot_.file() + "\r\n\r\n"},
           {"rtsp", ok + "X: " + std::string(10'000'000, 'a')},
           {"rtsp", std::string("$\0\xFF\xFF", 4) + std::string(10'000'000, '$')},
           {"rtmp", "\3" + std::string(3072, '\0') +
                        std::string("\2\0\0\0\0\0\4\1\0\0\0\0\x7F\xFF\xFF\xFF", 16) +
                        std::string(10'000'000, '\2')}}) {
    ExpectRefused(Sender("tcp" + address + "?listen=1", text), scheme + address + "/a/b", text);
  }
}

TEST_F(HostileSourceTest, OptionsMayAllowIt) {
  const HttpServer server(HlsOf("file:" + honeypot_.file()), HttpServer::Manner::kIgnoresRanges);
  EXPECT_EQ(Open(server.url(), {{"protocol_whitelist", "file,http,tcp"}}), "opened");
  EXPECT_TRUE(honeypot_.touched());
  const std::string fifo = (folder_ / "fifo").string();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const Sender sender(fifo, HlsOf("file:" + honeypot_.file()));
  EXPECT_EQ(Open(fifo, {{"format_whitelist", "hls,mpegts"}, {"protocol_whitelist", "file"}}),
            "opened");
}

}  // namespace
}  // namespace host
