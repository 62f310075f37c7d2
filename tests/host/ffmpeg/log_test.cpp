#include "host/ffmpeg/log.h"

#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

namespace host::ffmpeg {
namespace {

TEST(RouteLog, GivesWholeMaskedLinesUpToItsLevel) {
  std::mutex lock;
  std::vector<std::pair<LogLevel, std::string>> lines;
  RouteLog(LogLevel::kWarning, [&](LogLevel level, const std::string& line) {
    const std::lock_guard<std::mutex> guard(lock);
    lines.emplace_back(level, line);
  });
  av_log(nullptr, AV_LOG_ERROR, "opening %s ", "rtsp://a:b@cam/1");
  EXPECT_TRUE(lines.empty());
  av_log(nullptr, AV_LOG_ERROR, "failed %d\n", 7);
  av_log(nullptr, AV_LOG_INFO, "chatter\n");
  av_log(nullptr, AV_LOG_WARNING, "careful\n");
  RouteLog(LogLevel::kWarning, {});
  av_log(nullptr, AV_LOG_ERROR, "unheard\n");

  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0],
            std::make_pair(LogLevel::kError, std::string("opening rtsp://***@cam/1 failed 7")));
  EXPECT_EQ(lines[1], std::make_pair(LogLevel::kWarning, std::string("careful")));
}

}  // namespace
}  // namespace host::ffmpeg
