#include "host/session/wall_check.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/temporary_folder.h"

namespace host {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::vector<std::string> Texts(const config::WallFile& file) {
  std::vector<std::string> texts;
  for (const config::Diagnostic& diagnostic : file.diagnostics.all()) {
    texts.push_back(ToText(diagnostic, "w"));
  }
  return texts;
}

class WallCheckTest : public testing::Test {
 protected:
  std::vector<std::string> Complaints(const std::string& text) {
    WriteWholeFile(folder_ / "wall.toml", text);
    config::WallFile file = config::ReadWall(folder_ / "wall.toml");
    CheckWall(file, folder_ / "wall.toml");
    return Texts(file);
  }

  const TemporaryFolder folder_;
};

// Tables of an output or a channel, and the diagnostics for them.
TEST_F(WallCheckTest, FindsWhatAnOutputOrASourceCannotBe) {
  struct Case {
    const char* header;
    const char* table;
    std::vector<const char*> said;
  };
  constexpr const char* kOut = "[[output]]\n";
  constexpr const char* kIn = "[[channel]]\n";
  const Case cases[] = {
      {kOut, "url = 'udp://10.0.0.1:5000'", {}},
      {kOut,
       "url = 'htp://h/x.ts'",
       {"w:4:7: error: \"url\" has the unknown scheme \"htp\"; did you mean \"http\"?"}},
      {kOut,
       "url = 'udp://10.0.0.1'",
       {"w:4:7: error: \"url\" has no port: it is written as udp://HOST:PORT"}},
      {kOut, "url = 'srt://[::1]:65536'", {"has the port \"65536\", which must be 1 to 65535"}},
      {kOut, "url = 'rtp://:5000'", {"has no host to send to"}},
      {kOut, "url = 'srt://:5000?mode=listener'", {"note: \"url\" serves one viewer at a time"}},
      {kOut, "url = 'a.dat'", {"w:4:7: error: \"url\" does not tell the container"}},
      {kOut,
       "url = 'a.mkv'\nformat = 'mkv'",
       {"w:5:10: error: \"format\" is no container: \"mkv\"; did you mean \"matroska\"?"}},
      {kOut,
       "url = 'a.mkv'\ncodec = 'h265'",
       {"w:5:9: error: \"codec\" is no video codec that can be encoded here: \"h265\"; did you "
        "mean \"hevc\"?"}},
      {kOut,
       "url = 'rtmp://h/live/x'\ncodec = 'hevc'",
       {"\"codec\" does not suit: flv cannot hold hevc: it holds h264, "}},
      {kOut,
       "url = 'a.mkv'\ncodec = 'mpeg2video'\nquality = 9\npreset = 'slow'",
       {"\"quality\" is not used: mpeg2video has no constant quality", "\"preset\" is not used"}},
      {kOut,
       "url = 'a.mp4'\noptions = { movflag = 'x' }",
       {"w:5:23: error: \"movflag\" is an option that neither mp4 nor its protocol knows; did you "
        "mean \"movflags\"?"}},
      {kOut, "url = 'srt://h:1'\noptions = { passphrase = 'x', mpegts_flags = 'y' }", {}},
      {kOut, "url = 'a.avi'", {"warning: \"url\" names a container, avi, whose files are lost"}},
      {kOut,
       "url = 'a.mpd'",
       {"warning: \"url\" names a container, dash, which writes several files"}},
      {kOut, "url = 'a-%Y%m%d-%%.mkv'\nsegment = '1 h'\nsegment_size = '2 GB'", {}},
      {kOut, "url = 'a-%Q.mkv'", {"\"url\" has the unknown conversion \"%Q\""}},
      {kOut, "url = 'a%%.m3u8'", {"where HLS cannot be written"}},
      {kOut,
       "url = 'udp://h:1'\nsegment = 5\nsegment_size = 5000000",
       {"\"segment\" is for files only", "\"segment_size\" is for files only"}},
      {kOut,
       "url = 'a.m3u8'\nsegment = 5",
       {"\"segment\" cannot be given: hls cuts its files itself"}},
      {kOut,
       "url = 'a.mkv'\nsegment_size = '5 kB'",
       {"\"segment_size\" must be bytes, 1 MB at least"}},
      {kOut, "url = 'screen:'", {}},
      {kOut, "url = 'Screen:1'\nwindow = '1280x720'\naudio = true", {}},
      {kOut, "url = 'screen:x'", {"w:4:7: error: \"url\" names no display"}},
      {kOut,
       "url = 'screen:16'\nwindow = '1280*720'\ncodec = 'hevc'\nwindw = 1",
       {"w:4:7: error: \"url\" names no display",
        "w:5:10: error: \"window\" must be the size of the window, such as \"1280x720\"",
        "w:6:9: error: \"codec\" is not for a screen",
        "w:7:1: error: output 1 has no key \"windw\"; did you mean \"window\"?"}},
      {kIn,
       "source = 'rtmp://0.0.0.0/live/key'\noptions = { listen = 1 }",
       {"note: \"source\" waits for its sender at port 1935 (rtmp)"}},
      {kIn,
       "source = 'rtsp://h/x'\noptions = { rtsp_transport = 'tcp', nonsense = 1 }",
       {"w:5:48: error: \"nonsense\" is an option that no container and no protocol knows"}},
  };
  for (const Case& c : cases) {
    const std::string channel = c.header == kIn ? "\n\n" : "[[channel]]\nsource = 'udp://h:9'\n";
    const std::vector<std::string> said = Complaints(channel + c.header + c.table + "\n");
    ASSERT_EQ(said.size(), c.said.size()) << c.table << testing::PrintToString(said);
    for (std::size_t i = 0; i < said.size(); ++i) {
      EXPECT_THAT(said[i], HasSubstr(c.said[i])) << c.table;
    }
  }
}

TEST_F(WallCheckTest, ChannelsShareASourceOrAreRefused) {
  struct Case {
    const char* first;
    const char* second;
    const char* said;  // of the second; null: nothing
  };
  const std::string fifo = folder_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::string pipe = "source = '" + fifo + "'";
  const std::string pipeProgram = pipe + "\nprogram = 'News'";
  constexpr const char* kPort = "\"source\" takes the port of channel \"Channel 1\" in another way";
  const Case cases[] = {
      {"source = 'udp://:5000'\nprogram = 1", "source = 'udp://:5000'\nprogram = 'Two'", nullptr},
      {"source = 'udp://h:5000'", "source = 'udp://:5000?fifo_size=9'", kPort},
      {"source = 'rtp://:5000'", "source = 'udp://:5000'\noptions = { reuse = 0 }", kPort},
      // Of the demuxer alone.
      {"source = 'udp://:5000'", "source = 'udp://:5000'\noptions = { probesize = 99999 }",
       nullptr},
      {"source = 'udp://239.1.1.1:5000'", "source = 'udp://239.1.1.2:5000'", nullptr},
      {"source = 'rtmp://:1935/a'\noptions = { listen = 1 }",
       "source = 'rtmp://0.0.0.0/b'\noptions = { listen = 1 }",
       "\"source\" waits for its sender at the port of channel \"Channel 1\""},
      {"source = 'rtmp://:1935/a'\noptions = { listen = 1 }",
       "source = 'rtmp://:1935/a'\noptions = { listen = 1 }", nullptr},
      {"source = 'srt://:9000?mode=listener'", "source = 'srt://:9000?mode=listener'", nullptr},
      {pipe.c_str(), pipe.c_str(), nullptr},
      {pipeProgram.c_str(), pipeProgram.c_str(), nullptr},
      {pipeProgram.c_str(), pipe.c_str(), "\"source\" is a pipe that channel \"Channel 1\" reads"},
      {"source = 'udp://:5000'", "source = 'udp://:5001'\nprogram = [1]",
       "\"program\" must be the number of a program, or the name of its service in quotes"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> said =
        Complaints("[[channel]]\n" + std::string(c.first) + "\n[[channel]]\n" + c.second + "\n");
    std::erase_if(
        said, [](const std::string& each) { return each.find("error: ") == std::string::npos; });
    ASSERT_EQ(said.size(), c.said != nullptr ? 1U : 0U) << c.second << testing::PrintToString(said);
    EXPECT_TRUE(c.said == nullptr || said[0].find(c.said) != std::string::npos) << said[0];
  }
}

TEST_F(WallCheckTest, StartsTheEncodersWhereThatIsAskedFor) {
  config::WallFile file = config::ParseWall(
      "wall = { width = 64, height = 64 }\n"
      "[[channel]]\nsource = 'udp://h:9'\n[[output]]\nurl = 'a.mkv'\npreset = 'hasty'\n"
      "[[output]]\nurl = 'b.mkv'\ncodec = 'libx265'\n[[output]]\nurl = 'c.mkv'\ncodec = "
      "'mpeg2video'\n",
      "/");
  CheckEncoders(file);
  EXPECT_THAT(Texts(file), ElementsAre(HasSubstr("w:5:7: error: \"codec\" cannot be used here")));
}

TEST_F(WallCheckTest, FindsEveryFileThatIsUsedTwiceUnderWhateverName) {
  std::filesystem::create_directory(folder_ / "sub");
  for (const char* const name : {"one.mp4", "sub/two.ts", "back.png"}) {
    WriteWholeFile(folder_ / name, "x");
  }
  std::filesystem::create_symlink("one.mp4", folder_ / "link.mp4");
  std::filesystem::create_symlink("sub", folder_ / "folder");
  std::filesystem::create_symlink("sub/new.mkv", folder_ / "dangling.mkv");
  std::filesystem::create_hard_link(folder_ / "one.mp4", folder_ / "hard.mp4");
  const std::string wall =
      "[wall]\nbackground = 'back.png'\n[[channel]]\nname = 'A'\n"
      "source = 'one.mp4'\nlabel_file = 'sub/title.txt'\n"
      "[[channel]]\nsource = 'sub/two.ts'\n";
  const auto output = [](const std::string& url) {
    return "[[output]]\nurl = '" + url + "'\nformat = 'mpegts'\n";
  };
  struct Case {
    std::string more;
    const char* said;  // null: nothing
  };
  const Case cases[] = {
      {output("other.mkv"), nullptr},
      {output("one.mp4"), "is the same file as the source of channel \"A\" (\""},
      {output("link.mp4"), "same file as the source of channel \"A\""},
      {output("hard.mp4"), "same file as the source of channel \"A\""},
      {output("FILE://" + (folder_ / "one.mp4").string()),
       "same file as the source of channel \"A\""},
      {output("file:folder/two.ts"), "same file as the source of channel \"Channel 2\""},
      {output("folder/title.txt"), "same file as the label file of channel \"A\""},
      {output("sub/../wall.toml"), "same file as the wall file"},
      {output("new.mkv") + output("folder/../new.mkv"), "output 2 (\""},
      {output("dangling.mkv") + output("sub/new.mkv"), "is the same file as output 1 (\""},
      {output("/dev/null") + output("/dev/null"), nullptr},
      {"[[output]]\nurl = 'sub/two.m3u8'\n[[output]]\nurl = 'folder/two_sound3.m3u8'\n",
       "same file as output 1"},
      {"[[output]]\nurl = 'sub/two.m3u8'\n" + output("sub/two_video_00042.ts"),
       "same file as output 1"},
      {"[[output]]\nurl = 'sub/two.m3u8'\n" + output("two_video_00042.ts"), nullptr},
      {output("x.mkv") + "[log]\nfile = 'sub/../x.mkv'\n", "[log] file (\""},
      {"[log]\nperf_file = 'hard.mp4'\n", "same file as the source of channel \"A\""},
      {output("udp://10.0.0.1:5000") + output("UDP://10.0.0.1:5000/"), "same address as output 1"},
      {output("udp://10.0.0.1:5000") + output("rtp://10.0.0.1:4999"), "same address as output 1"},
      {output("srt://:5000?mode=listener") + output("srt://10.0.0.2:5000?mode=listener"),
       "same address as output 1"},
      {output("srt://h:5000?streamid=a") + output("srt://h:5000?streamid=b"), nullptr},
      {output("rtmp://h/live/a") + output("rtmp://h/live/a"), "same address as output 1"},
      {"[[channel]]\nname = 'C'\nsource = 'udp://:5000'\n" + output("udp://localhost:5000"),
       "same address as the source of channel \"C\""},
      {"[[channel]]\nname = 'C'\nsource = 'udp://239.1.1.1:5000'\n[[channel]]\nsource = "
       "'udp://239.1.1.1:5000'\n",
       nullptr},
  };
  for (const Case& c : cases) {
    std::vector<std::string> clashes = Complaints(wall + c.more);
    std::erase_if(clashes, [](const std::string& text) {
      return text.find(" is the same ") == std::string::npos;
    });
    if (c.said == nullptr) {
      EXPECT_THAT(clashes, IsEmpty()) << c.more;
    } else {
      EXPECT_THAT(clashes, ElementsAre(AllOf(HasSubstr(c.said), HasSubstr(": error: ")))) << c.more;
    }
  }
}

TEST_F(WallCheckTest, FindsNothingWrongWithTheExampleOfTheManual) {
  config::WallFile file = config::ReadWall(TAVREL_DOCS "/wall-example.toml");
  CheckWall(file, TAVREL_DOCS "/wall-example.toml");
  EXPECT_TRUE(file.usable()) << testing::PrintToString(Texts(file));
  EXPECT_THAT(Texts(file), testing::Each(HasSubstr("names no file yet")));
}

}  // namespace
}  // namespace host
