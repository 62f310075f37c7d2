// A multiplex of six services that all come to one port: each is a source of its own.
#include <atomic>
#include <fstream>
#include <iomanip>
#include <mutex>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/e2e/paced_sender.h"
#include "tests/e2e/wall_harness.h"
#include "tests/host/clips.h"
#include "tests/support/transport_stream.h"

namespace {

using host::kSecond;
using testing::HasSubstr;
using transport::Bytes;
using transport::Low;

const std::vector<std::string> kServices = {"Alpha", "Bravo", "Charlie", "Délta", "Echo", "Golf"};
constexpr std::size_t kLeaving = 2;  // goes at kGone, comes back with other PIDs at kReturned
constexpr int kLength = 12;          // seconds
constexpr int kGone = 3;
constexpr int kReturned = 5;
constexpr int kRenamed = 6;   // the first service
constexpr int kFrames = 200;  // that each reader reads
constexpr std::size_t kPacket = 188;

struct Pids {
  int map, video, audio;
};

Pids PidsOf(std::size_t service, bool moved) {
  const int first = 0x100 + 0x10 * static_cast<int>(service) + (moved ? 0x400 : 0);
  return {0x1000 + static_cast<int>(service), first, first + 1};
}

Bytes Pid(int pid) {
  return {Low(0xE0U | static_cast<unsigned>(pid) >> 8), Low(static_cast<unsigned>(pid))};
}

// PAT, SDT and every PMT, as they are at that second.
Bytes TablesAt(int second) {
  Bytes programs;
  Bytes services{0, 1, 0xFF};
  Bytes maps;
  for (std::size_t i = 0; i < kServices.size(); ++i) {
    if (i == kLeaving && second >= kGone && second < kReturned) {
      continue;
    }
    const auto [map, video, audio] = PidsOf(i, i == kLeaving && second >= kReturned);
    const Bytes number{0, Low(i + 1)};
    const std::string name =
        "\x15" + (i == 0 && second >= kRenamed ? "Renamed" : kServices[i]);  // UTF-8
    programs = transport::Join({programs, number, Pid(map)});
    services = transport::Join(
        {services,
         number,
         {0xFC, 0x80, Low(name.size() + 5), 0x48, Low(name.size() + 3), 1, 0, Low(name.size())},
         {name.begin(), name.end()}});
    const Bytes streams = transport::Join(
        {Pid(video), {0xF0, 0, 0x1B}, Pid(video), {0xF0, 0, 0x0F}, Pid(audio), {0xF0, 0}});
    maps = transport::Join(
        {maps, transport::Packets(map, transport::Section(2, streams, static_cast<int>(i) + 1))});
  }
  return transport::Join(
      {transport::Packets(0, transport::Section(0, programs, 1, second % 32)),
       transport::Packets(0x11, transport::Section(0x42, services, 1, second % 32)), maps});
}

// The service by itself; the luma of a frame is its number, modulo 100.
std::string WriteService(std::size_t service, const std::filesystem::path& file) {
  const auto [map, video, audio] = PidsOf(service, false);
  host::ClipRecipe recipe;
  recipe.pictures =
      "color=black:size=64x36:rate=25,format=yuv420p,geq=lum='20+2*mod(N,100)':cb=128:cr=128";
  recipe.videoOptions = {{"qp", "0"}, {"preset", "ultrafast"}, {"g", "12"}};
  recipe.audio = "sine=frequency=440:sample_rate=48000";
  recipe.containerOptions = {{"mpegts_start_pid", std::to_string(video)},
                             {"mpegts_pmt_start_pid", std::to_string(map)}};
  recipe.length = kLength * kSecond;
  host::WriteClip(recipe, file);
  return ReadWholeFile(file);
}

// Twenty slices a second, each with the tables and a slice of every present service.
std::string Multiplex(const std::filesystem::path& folder) {
  constexpr int kSlices = 20 * kLength;
  std::vector<std::string> services;
  for (std::size_t i = 0; i < kServices.size(); ++i) {
    services.push_back(WriteService(i, folder / ("service" + std::to_string(i) + ".ts")));
  }
  std::string multiplex;
  for (int slice = 0; slice < kSlices; ++slice) {
    const int second = slice / 20;
    const Bytes tables = TablesAt(second);
    multiplex.append(tables.begin(), tables.end());
    for (std::size_t i = 0; i < services.size(); ++i) {
      const std::size_t packets = services[i].size() / kPacket;
      for (std::size_t at = packets * slice / kSlices; at < packets * (slice + 1) / kSlices; ++at) {
        std::string packet = services[i].substr(at * kPacket, kPacket);
        const int pid = (packet[1] & 0x1F) << 8 | static_cast<std::uint8_t>(packet[2]);
        const bool isLeaving = i == kLeaving && second >= kGone;
        if (pid < 0x100 || pid >= 0x1000 || (isLeaving && second < kReturned)) {
          continue;
        }
        packet[1] = static_cast<char>(packet[1] + (isLeaving ? 4 : 0));  // see PidsOf
        multiplex += packet;
      }
    }
  }
  return multiplex;
}

int SocketsAt(std::uint16_t port) {
  std::ostringstream ending;
  ending << ':' << std::uppercase << std::hex << std::setw(4) << std::setfill('0') << port;
  std::ifstream sockets("/proc/self/net/udp");
  int count = 0;
  for (std::string line; std::getline(sockets, line);) {
    std::string slot;
    std::string local;
    std::istringstream(line) >> slot >> local;
    count += local.ends_with(ending.str()) ? 1 : 0;
  }
  return count;
}

// Reads one service on a thread of its own.
class ServiceReader {
 public:
  ServiceReader(const std::string& url, std::shared_ptr<host::SharedReceivers> receivers,
                host::config::ProgramChoice program) {
    settings_ = host::Source(url);
    settings_.live = true;
    settings_.receivers = std::move(receivers);
    settings_.program = std::move(program);
    settings_.options.openLimit = settings_.options.readLimit = 30 * kSecond;
    thread_ = std::thread([this] { Read(); });
  }
  ~ServiceReader() { Join(); }
  void Join() {
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  std::vector<int> numbers;           // of its frames
  std::vector<std::string> failures;  // each time it opened the source again
  std::string name;                   // of the service, at last
  std::size_t audioTracks = 0;
  bool jumped = false;

 private:
  void Read() {
    while (static_cast<int>(numbers.size()) < kFrames && failures.size() < 5) {
      try {
        host::MediaReader reader(settings_);
        reader.Open();
        while (static_cast<int>(numbers.size()) < kFrames) {
          const host::MediaItem item = reader.Read();
          if (const auto* const frame = std::get_if<host::DecodedFrame>(&item)) {
            numbers.push_back(e2e::FrameNumber(frame->frame->data[0][0]));
            jumped = jumped || frame->discontinuity;
          }
        }
        name = reader.info().serviceName;
        audioTracks = reader.info().audioTracks.size();
      } catch (const host::MediaError& error) {
        failures.push_back(error.reason());
      }
    }
  }

  host::MediaReader::Settings settings_;
  std::thread thread_;
};

class MultiplexTest : public e2e::WallTest {
 protected:
  e2e::PacedSender& Send(double speed) {
    return sender_.emplace(multiplex_, std::chrono::seconds(kLength), speed);
  }

  const std::string multiplex_ = Multiplex(folder_ / "");
  std::optional<e2e::PacedSender> sender_;
};

TEST_F(MultiplexTest, IsReceivedOnceAndAServiceThatGoesAndReturnsDisturbsNoOther) {
  const std::string url = Send(3).url();
  const auto receivers = std::make_shared<host::SharedReceivers>();
  std::vector<std::unique_ptr<ServiceReader>> readers;
  for (std::size_t i = 0; i < kServices.size(); ++i) {
    // By number and by name.
    readers.push_back(std::make_unique<ServiceReader>(
        url, receivers,
        i % 2 == 1 ? host::config::ProgramChoice{0, kServices[i]}
                   : host::config::ProgramChoice{static_cast<int>(i) + 1, {}}));
  }
  const auto port = static_cast<std::uint16_t>(std::stoi(url.substr(url.rfind(':') + 1)));
  WaitUntil("the socket is open", [&] { return SocketsAt(port) > 0; });
  EXPECT_EQ(SocketsAt(port), 1);
  for (std::size_t i = 0; i < readers.size(); ++i) {
    ServiceReader& reader = *readers[i];
    reader.Join();
    SCOPED_TRACE(kServices[i]);
    EXPECT_EQ(reader.audioTracks, 1U);
    EXPECT_EQ(reader.name, i == 0 ? "Renamed" : kServices[i]);
    if (i == kLeaving) {
      ASSERT_EQ(reader.failures.size(), 1U);
      EXPECT_THAT(reader.failures[0],
                  HasSubstr("its program 3 (Charlie) has ended; it has 1 (Alpha), "
                            "2 (Bravo), 4 (Délta), 5 (Echo)"));
      continue;
    }
    EXPECT_THAT(reader.failures, testing::IsEmpty());
    EXPECT_FALSE(reader.jumped);
    for (std::size_t k = 1; k < reader.numbers.size(); ++k) {
      ASSERT_EQ(reader.numbers[k], (reader.numbers[k - 1] + 1) % 100) << "frame " << k;
    }
  }
  EXPECT_EQ(SocketsAt(port), 0) << "the last one that leaves closes the connection";
}

TEST_F(MultiplexTest, IsListedAndReadByProgramFromAFileToo) {
  const std::filesystem::path file = folder_ / "multiplex.ts";
  WriteWholeFile(file, multiplex_);
  host::MediaReader::Settings settings = host::Source(file);
  settings.program.name = "Echo";
  const auto reader = host::Opened(settings);
  std::vector<std::string> names;
  for (const host::ProgramInfo& program : reader->info().programs) {
    names.push_back(program.name);
  }
  EXPECT_EQ(names, kServices);
  const host::StreamInfo& video = reader->info().programs.at(4).streams.at(0);
  EXPECT_EQ(video.pid, PidsOf(4, false).video);
  EXPECT_EQ(std::pair(video.width, video.height), std::pair(64, 36));
  EXPECT_EQ(reader->info().serviceName, "Echo");
  EXPECT_EQ(reader->info().video->streamIndex / 2, 4);
  EXPECT_EQ(host::ReadAll(*reader).pictures.size(), static_cast<std::size_t>(25 * kLength));
  settings.program = {7, {}};
  try {
    host::Opened(settings);
    FAIL() << "there is no such program";
  } catch (const host::MediaError& error) {
    EXPECT_THAT(error.reason(), HasSubstr("it has no program 7; it has 1 (Alpha), 2 (Bravo)"));
  }
}

// Numbered datagrams, of which every tenth is a random access point.
TEST(SharedReceiver, TakesFromASlowReaderWhatIsOldestAndNothingFromTheOthers) {
  const std::uint16_t port = FreePort(SOCK_DGRAM);
  const host::SourceAddress address("udp://127.0.0.1:" + std::to_string(port));
  const LocalSocket sender(SOCK_DGRAM);
  host::SharedReceivers receivers;
  host::ffmpeg::IoDeadline deadline;
  const auto subscribe = [&] {
    return receivers.Subscribe(address.Receiver({}), std::chrono::minutes(1), {}, deadline);
  };
  const auto slow = subscribe();
  const auto other = subscribe();
  ASSERT_EQ(slow->WaitUntilOpen(deadline), 0);
  Bytes datagram(kPacket * 7, 0xFF);
  for (std::size_t at = 0; at < datagram.size(); at += kPacket) {
    const Bytes header{0x47, 1, 0, 0x30, 10, 0};
    std::copy(header.begin(), header.end(), datagram.begin() + static_cast<std::ptrdiff_t>(at));
  }
  Bytes read(datagram.size());
  std::size_t sent = 0;
  for (; slow->overflows() == 0; ++sent) {
    datagram[5] = sent % 10 == 0 ? 0x40 : 0;
    datagram[6] = Low(sent >> 8);
    datagram[7] = Low(sent);
    sender.SendTo(port, {datagram.begin(), datagram.end()});
    for (int count = 0; count == 0;) {
      count = other->Read(read);
      ASSERT_GE(count, 0);
    }
    ASSERT_EQ(read, datagram) << "datagram " << sent;
  }
  ASSERT_EQ(slow->Read(read), static_cast<int>(read.size()));
  EXPECT_EQ(read[5], 0x40);
  EXPECT_GT(static_cast<std::size_t>(read[6] << 8 | read[7]), sent / 2 - 20);
}

TEST_F(MultiplexTest, AWallNamesEachServiceAndFollowsItsNewName) {
  constexpr int kWidth = 320;
  constexpr host::config::Window kWindow{20, 10, 200, 100};
  constexpr int kLabel = 10 + 100 + 2;  // first of its 32 lines
  using Rows = std::vector<std::uint8_t>;
  const auto rowsOf = [](const std::uint8_t* pixels) {
    return Rows(pixels + kLabel * kWidth, pixels + (kLabel + 32) * kWidth);
  };
  const auto rendered = [&](const std::string& label) {
    e2e::TestWall wall(kWidth, 240);
    wall.AddChannel(folder_ / "service0.ts", kWindow);
    wall.wall().channels[0].label = {host::config::Label::Source::kText, label, {}};
    return rowsOf(wall.Render(kSecond).at(20).pixels.data());
  };
  const std::vector<Rows> expected{rendered("Alpha"), rendered("Renamed")};
  std::array<std::atomic<bool>, 2> seen{};
  e2e::TestWall wall(kWidth, 240);
  const std::string url = Send(1).url();
  for (const int program : {1, static_cast<int>(kLeaving) + 1}) {
    wall.AddChannel(url, program == 1 ? kWindow : host::config::Window{240, 150, 64, 36});
    host::config::Channel& channel = wall.wall().channels.back();
    channel.name = "Channel " + std::to_string(program);
    channel.program.number = program;
  }
  wall.wall().channels[0].label.source = host::config::Label::Source::kService;
  const auto session = wall.MakeLive([&](const ComPtr<IMediaSample>& sample, host::Time) {
    BYTE* pixels = nullptr;
    sample->GetPointer(&pixels);
    const Rows rows = rowsOf(pixels);
    for (std::size_t i = 0; i < expected.size(); ++i) {
      seen[i] = seen[i] || rows == expected[i];
    }
  });
  session->Start();
  WaitUntil("the label is the name of the service", [&] { return seen[0].load(); });
  WaitUntil("the label is the new name of the service", [&] { return seen[1].load(); });
  const host::Lines states = wall.channels().States("Channel 3");
  EXPECT_THAT(states, testing::Contains(HasSubstr("held: its program 3")));
  EXPECT_EQ(states.back(), "live") << "it has returned";
  EXPECT_THAT(wall.channels().States("Channel 1"), testing::Each(testing::Not(HasSubstr("held"))));
  session->Stop();
  session->Finish();
}

}  // namespace
