#include <chrono>
#include <limits>
#include <ostream>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "host/cli/commands.h"
#include "host/control/event_feed.h"
#include "host/ffmpeg/mask.h"
#include "log/log_file_reader.h"
#include "platform/os/error_numbers.h"
#include "platform/os/service.h"

namespace host::cli {
namespace {

using qorp::log::CircularLogFile;
using qorp::log::FormatPlainLine;
using qorp::log::LogFileReader;
using qorp::log::NumberedLogLine;

constexpr std::chrono::milliseconds kPollPeriod{100};

class LogPrinter {
 public:
  LogPrinter(const ShowLogOptions& options, Streams& streams)
      : options_(options), streams_(streams), reader_(options.file.string()) {}

  ExitCode Print() {
    if (options_.salvage) {
      if (const auto error =
              CircularLogFile().Open(options_.file.string(), os::File::Access::kRead);
          error != 0) {
        return Fail(os::FileErrorText(error));
      }
      reader_.Salvage([this](const NumberedLogLine& line) { Print(line); });
      return ExitCode::kDone;
    }
    const LogFileReader::Result first = Read();
    if (first.state != LogFileReader::State::kRead) {
      return Fail(Explain(first));
    }
    if (options_.follow) {
      Follow();
    }
    return ExitCode::kDone;
  }

 private:
  LogFileReader::Result Read() {
    const LogFileReader::Result result =
        reader_.Read([this](const NumberedLogLine& line) { Print(line); });
    streams_.out << std::flush;
    return result;
  }

  void Follow() {
    const os::StopSignals signals;
    std::string told;
    while (!signals.WaitFor(kPollPeriod) && streams_.out.good()) {
      const LogFileReader::Result result = Read();
      if (result.lost > 0) {
        Tell(std::to_string(result.lost) + " lines were overwritten before they could be read");
      }
      // Its writer may be about to create it again.
      const std::string trouble =
          result.state == LogFileReader::State::kRead ? "" : Explain(result);
      if (!trouble.empty() && trouble != told) {
        Tell(trouble + "; waiting for it");
      }
      told = trouble;
    }
  }

  void Print(const NumberedLogLine& line) {
    const auto& [level, milliseconds, timeText, text] = line.entry;
    if (level > options_.level) {
      return;
    }
    if (!options_.json) {
      streams_.out << FormatPlainLine(level, timeText, ffmpeg::Printable(text)) << '\n';
      return;
    }
    const nlohmann::ordered_json object = {{"number", line.number},
                                           {"time", timeText},
                                           {"milliseconds", milliseconds},
                                           {"level", level},
                                           {"text", text}};
    streams_.out << control::OneLine(object) << '\n';
  }

  std::string Explain(const LogFileReader::Result& result) const {
    switch (result.state) {
      case LogFileReader::State::kUnreadable:
        return os::FileErrorText(result.error);
      case LogFileReader::State::kEmpty:
        return "it has no header: it is empty, or no file";
      case LogFileReader::State::kDamaged:
        return std::string(result.header == CircularLogFile::Header::kNoNumber
                               ? "it does not begin with a header such as 0x0000002A, which tells "
                                 "where the next line goes"
                               : "its header names a place that is not in the file, which has " +
                                     std::to_string(reader_.size()) + " bytes") +
               "; is it a log file? --salvage prints what lines it has";
      case LogFileReader::State::kRead:
        break;
    }
    return {};
  }

  ExitCode Fail(const std::string& why) const {
    Tell(why);
    return ExitCode::kCouldNotStart;
  }
  void Tell(const std::string& what) const {
    streams_.err << "tavrel: " << options_.file.string() << ": " << what << "\n" << std::flush;
  }

  const ShowLogOptions& options_;
  Streams& streams_;
  LogFileReader reader_;
};

}  // namespace

void DefineShowLog(CLI::App& app, ShowLogOptions& options) {
  app.add_option("FILE", options.file, "a circular log file")->required();
  const auto follow =
      app.add_flag("-f,--follow", options.follow, "print what is added, too, until Ctrl-C");
  app.add_option("--level", options.level, "leave out lines of a greater level, 0 to 3 [3]")
      ->check(CLI::Range(0, std::numeric_limits<std::int32_t>::max()));
  app.add_flag("--json", options.json, "print every line as JSON")->envname("TAVREL_JSON");
  app.add_flag("--salvage", options.salvage,
               "print all lines of a file whose header is damaged, by their times")
      ->excludes(follow);
}

ExitCode ShowLog(const ShowLogOptions& options, Streams& streams) {
  return LogPrinter(options, streams).Print();
}

}  // namespace host::cli
