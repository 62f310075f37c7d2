// Any bytes as a log file that is read, and opened again: reader and sink survive, a new line is
// written, and a reader finds it; or the sink refuses numbers that are none and leaves the file
// alone.

#include "log/log_file.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include <unistd.h>

#include "fuzz/check.h"
#include "log/log_file_reader.h"

namespace {

std::filesystem::path LogPath() {
  static const std::filesystem::path path =
      std::filesystem::temp_directory_path() / ("tavrel-fuzz-log-" + std::to_string(getpid()));
  return path;
}

std::string ContentOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

bool Writes(qorp::log::logfile_sink& sink) {
  try {
    sink.Write(1, {1763286194, 123}, "still here");
    return true;
  } catch (const std::invalid_argument&) {
    return false;
  } catch (const std::out_of_range&) {
    return false;
  }
}

std::string LastLineOf(qorp::log::LogFileReader& reader) {
  std::string last;
  reader.Read([&](const qorp::log::NumberedLogLine& line) { last = line.entry.text; });
  return last;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::filesystem::path path = LogPath();
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  qorp::log::LogFileReader follower(path.string());
  LastLineOf(follower);
  follower.Salvage([](const qorp::log::NumberedLogLine& line) { FUZZ_CHECK(line.number >= 0); });
  for (int opening = 0; opening < 2; ++opening) {
    qorp::log::logfile_sink sink({3, 400, 20});
    sink.SetPath(path.string());
    const std::string before = ContentOf(path);
    if (!Writes(sink)) {
      FUZZ_CHECK(ContentOf(path) == before);
      std::filesystem::remove(path);
      return 0;
    }
    const auto history = sink.GetHistory(-1, -1);
    FUZZ_CHECK(history.size() == 1);
  }
  const std::string content = ContentOf(path);
  FUZZ_CHECK(content.size() >= 12 && content.starts_with("0x") && content[10] == '\r');
  FUZZ_CHECK(content.find("still here\r\n") != std::string::npos);
  // With the head at the start, times and numbers alone tell which line is the newest.
  if (!content.starts_with("0x0000000C")) {
    FUZZ_CHECK(LastLineOf(follower) == "still here");
    qorp::log::LogFileReader reader(path.string());
    FUZZ_CHECK(LastLineOf(reader) == "still here");
  }
  std::filesystem::remove(path);
  return 0;
}
