#include "host/cli/message_log.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "host/ffmpeg/error.h"
#include "host/ffmpeg/mask.h"
#include "log/i_log_perf.h"
#include "log/log_file.h"
#include "log/log_line.h"
#include "platform/os/console.h"
#include "platform/os/error_numbers.h"
#include "platform/os/files.h"
#include "platform/os/sockets.h"
#include "platform/os/thread.h"

namespace host::cli {

namespace {

using std::chrono::seconds;

constexpr std::size_t kMaxWaitingLines = 1000;
constexpr seconds kFirstDelay{1};
constexpr seconds kMaxDelay{60};

// The sink truncates the line by bytes, header included: "<131>Nov 16 09:43:14 host 0000 text".
// Truncated to this length before, between characters, it stays valid.
std::size_t RoomForText() {
  constexpr std::size_t kMaxLine = 1024;
  const std::size_t header =
      std::string_view("<131>Nov 16 09:43:14  0000 ").size() + os::HostName().size();
  return kMaxLine - std::min(header, kMaxLine);
}

using qorp::log::CircularLogFile;

// How long the file system of a log file may take to answer.
constexpr std::chrono::seconds kLogFileLimit{3};
constexpr std::int32_t kDefaultSize = 10 << 20;
constexpr std::uint32_t kFlushLimit = 3000;  // ms
// The logger truncates there by bytes; truncated here before, between characters.
constexpr std::size_t kMaxMessage = 1040;

// Warnings are recorded but not shown: at every start the composer warns twice of each channel.
std::int32_t ScreenLevel(const config::LogOptions& options) {
  return options.level.value_or(qorp::log::kError);
}
std::int32_t RecordLevel(const config::LogOptions& options) {
  return options.level.value_or(qorp::log::kWarning);
}

qorp::log::LogPerfOptions LoggerOptions(const config::LogOptions& options) {
  qorp::log::LogPerfOptions logger;
  if (options.perfPeriod) {
    logger.reportPeriod = static_cast<std::uint32_t>(*options.perfPeriod / kMillisecond);
  }
  return logger;
}

// A sink would try again indefinitely; a wrong path must be reported when the wall starts, and no
// other file may be overwritten.
std::string CheckedPath(const std::filesystem::path& path) {
  std::string name = path.string();
  CircularLogFile file;
  file.Open(name, os::File::Access::kRead);
  const bool isEmpty = file.header() == CircularLogFile::Header::kMissing;
  if (file.IsOpen() && !isEmpty && file.header() != CircularLogFile::Header::kWhole) {
    bool hasLines = false;
    file.ReadOldest([&](std::string_view line, std::uint64_t) {
      hasLines = qorp::log::ReadLogLine(line).has_value();
      return !hasLines;
    });
    if (!hasLines) {
      throw std::runtime_error(name + " is no log file: it would be overwritten; name another one");
    }
  }
  if (const std::uint32_t error = file.Open(name, os::File::Access::kReadWrite); error != 0) {
    throw std::runtime_error("the log file " + name +
                             " cannot be written: " + os::FileErrorText(error));
  }
  os::FileLock lock;
  if (lock.Take(name) == os::kErrorSharingViolation) {
    throw std::runtime_error("the log file " + name +
                             " is written by another program, perhaps a service that runs: name "
                             "another file with --log-file or TAVREL_LOG_FILE");
  }
  return name;
}

constexpr int kFixesAtStart = 2;
// The longest message of the logger, with its terminator.
constexpr std::size_t kMaxText = 1041;

}  // namespace

ResolvingSyslog::ResolvingSyslog(config::Endpoint server, std::int32_t maxLevel, Report report)
    : maxLevel_(maxLevel), room_(RoomForText()) {
  state_->server = std::move(server);
  state_->report = std::move(report);
  std::string failure;
  if (!os::IsAddress(state_->server.host) || !state_->Resolve(&failure)) {
    thread_ = std::make_unique<os::Thread>([state = state_] { state->ResolveUntilStopped(); },
                                           "syslog name");
  }
}

ResolvingSyslog::~ResolvingSyslog() {
  const os::MutexLock guard(state_->lock);
  state_->stopped = true;
  state_->changed.NotifyAll();
}

void ResolvingSyslog::Write(std::int32_t level, const qorp::log::LogTime& time, const char* text) {
  if (level > maxLevel_) {
    return;
  }
  std::string line(ffmpeg::CutToBytes(text, room_));
  const os::MutexLock guard(state_->lock);
  if (state_->sink) {
    state_->sink->Write(level, time, line.c_str());
    return;
  }
  if (state_->waiting.size() >= kMaxWaitingLines) {
    state_->waiting.pop_front();
  }
  state_->waiting.push_back({level, time, std::move(line)});
}

bool ResolvingSyslog::State::Resolve(std::string* failure) {
  try {
    os::DatagramSocket socket(server.host, server.port);
    const os::MutexLock guard(lock);
    sink.emplace(std::move(socket), os::HostName());
    for (const Message& message : std::exchange(waiting, {})) {
      sink->Write(message.level, message.time, message.text.c_str());
    }
    return true;
  } catch (const std::runtime_error& error) {
    *failure = error.what();
    return false;
  }
}

void ResolvingSyslog::State::ResolveUntilStopped() {
  seconds delay = kFirstDelay;
  std::string failure;
  while (!Resolve(&failure)) {
    const os::MutexLock guard(lock);
    // Under the lock: the receiver of the report lives until it has set stopped.
    if (delay == kFirstDelay && !stopped) {
      report("syslog: " + failure + "; it is tried again");
    }
    const auto next = std::chrono::steady_clock::now() + delay;
    while (!stopped && changed.WaitUntil(lock, next)) {
    }
    if (stopped) {
      return;
    }
    delay = std::min(delay * 2, kMaxDelay);
  }
}

// Events of the log file are messages themselves.
void MessageLog::Configure(std::optional<qorp::log::recovering_logfile_sink>& sink,
                           const std::optional<std::filesystem::path>& path, std::int32_t level,
                           const config::LogOptions& options) {
  if (!path || path->empty()) {
    return;
  }
  sink.emplace(qorp::log::LogFileOptions{level, options.size.value_or(kDefaultSize), 0},
               [this](const std::string& message) { Say(qorp::log::kError, message); });
  const std::optional<std::string> checked = os::CallWithin<std::string>(
      kLogFileLimit, [path = *path] { return CheckedPath(path); }, "log file");
  if (checked) {
    sink->SetPath(*checked);
  } else {
    sink.reset();
    Say(qorp::log::kError, "no answer from the file system of the log file " + path->string() +
                               "; nothing is written there");
  }
}

MessageLog::Screen::Screen(Streams& streams, std::int32_t maxLevel)
    : maxLevel_(maxLevel),
      console_(maxLevel, streams.err, streams.colour),
      progress_(streams.err, streams.progress) {}

void MessageLog::Screen::Write(std::int32_t level, const qorp::log::LogTime& time,
                               const char* text) {
  if (level <= maxLevel_) {
    const os::MutexLock guard(lock_);
    progress_.Wipe();
    console_.Write(level, time, text);
  }
}

void MessageLog::Screen::ShowProgress(const std::string& text) {
  const os::MutexLock guard(lock_);
  // One column is left for the cursor.
  progress_.Show(ffmpeg::Printable(text), std::max(os::ConsoleColumns(2), 2) - 1);
}

void MessageLog::Screen::WipeProgress() {
  const os::MutexLock guard(lock_);
  progress_.Wipe();
}

MessageLog::MessageLog(Streams& streams, const config::LogOptions& options)
    : screen_(streams, ScreenLevel(options)), logger_(LoggerOptions(options)) {
  const std::int32_t level = RecordLevel(options);
  Configure(file_, options.file, level, options);
  if (options.file && options.perfFile && !options.file->empty() &&
      (*options.file == *options.perfFile ||
       os::IsSameFile(options.file->string(), options.perfFile->string()))) {
    throw std::runtime_error(
        "the messages and the performance records need a file each, not both " +
        options.file->string());
  }
  Configure(perfFile_, options.perfFile, qorp::log::kInfo, options);
  if (options.syslog && !options.syslog->host.empty()) {
    syslog_.emplace(*options.syslog, level,
                    [this](const std::string& what) { Say(qorp::log::kError, what); });
  }
  logger_.AddSink(&screen_);
  if (file_) {
    logger_.AddSink(&*file_);
  }
  if (syslog_) {
    logger_.AddSink(&*syslog_);
  }
  logger_.Start();
  if (level >= qorp::log::kDebug) {
    RouteFfmpeg();
  }
}

MessageLog::~MessageLog() {
  ffmpeg::RouteLog(ffmpeg::LogLevel::kError, {});
  logger_.Stop();
  syslog_.reset();  // it reports to the logger
}

// FFmpeg's errors are in our own messages; its own lines are details.
void MessageLog::RouteFfmpeg() {
  ffmpeg::RouteLog(ffmpeg::LogLevel::kInfo, [this](ffmpeg::LogLevel, const std::string& line) {
    Say(qorp::log::kDebug, "FFmpeg: " + line);
  });
}

void MessageLog::StartRecords() {
  if (perfFile_) {
    logger_.SetPerformanceSink(&*perfFile_);
    logger_.WriteReport();
  }
}

bool MessageLog::Flush() {
  logger_.WriteReport();
  if (!logger_.StopWithin(kFlushLimit)) {
    return false;
  }
  logger_.Start();
  return true;
}

void MessageLog::Say(std::int32_t level, const std::string& line) {
  const std::string text = ffmpeg::Printable(line);
  logger_.log(level, "%s", std::string(ffmpeg::CutToBytes(text, kMaxMessage)).c_str());
}

bool ComposerLog::BelongsToStart(const char* text) {
  int channel = 0;
  char sign = '\0';
  if (std::sscanf(text, "Composer audio/video #%d resynchronizes (%c)", &channel, &sign) != 2 ||
      sign != '-') {
    return false;
  }
  const os::MutexLock guard(lock_);
  return ++fixed_[channel] <= kFixesAtStart;
}

void ComposerLog::log(std::int32_t level, const char* format, ...) {
  std::array<char, kMaxText> text{};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  next_.log(BelongsToStart(text.data()) ? std::max(level, qorp::log::kInfo) : level, "%s",
            text.data());
}

}  // namespace host::cli
