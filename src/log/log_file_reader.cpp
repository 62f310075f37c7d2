#include "log/log_file_reader.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace qorp::log {
namespace {

constexpr int kTries = 100;
constexpr std::uint64_t kLineEndBytes = 2;
// More than the longest line that a logger writes: a line that is being written ends within this
// distance of the head.
constexpr std::uint64_t kLineMargin = 4096;

auto TimeAndNumber(const NumberedLogLine& line) {
  return std::pair(line.entry.milliseconds, line.number);
}

// Whether a line's number is only the last digits of the number that precedes the next line's: its
// beginning has been overwritten.
bool IsRest(const NumberedLogLine& line, const NumberedLogLine& next) {
  const std::string whole = std::to_string(next.number - 1);
  const std::string rest = std::to_string(line.number);
  return whole.size() > rest.size() && whole.ends_with(rest);
}

bool IsOlder(const NumberedLogLine& line, const NumberedLogLine& than) {
  return line.number < than.number && line.entry.milliseconds <= than.entry.milliseconds;
}

}  // namespace

std::uint32_t LogFileReader::Open() {
  if (file_.IsOpen() && file_.IsAt(path_)) {
    return 0;
  }
  last_.reset();
  lastEnd_ = 0;
  return file_.Open(path_, os::File::Access::kRead);
}

// A header may be read while it is being written: it counts when two readings agree.
void LogFileReader::ReadHeader() {
  file_.ReadHeader();
  for (int i = 0; i < kTries; ++i) {
    const std::uint64_t head = file_.head();
    const bool isWhole = file_.header() == CircularLogFile::Header::kWhole;
    file_.ReadHeader();
    if (isWhole && file_.header() == CircularLogFile::Header::kWhole && file_.head() == head) {
      return;
    }
  }
}

LogFileReader::Result LogFileReader::Read(const TakeLine& take) {
  Result result;
  if (result.error = Open(); result.error != 0) {
    result.state = State::kUnreadable;
    return result;
  }
  ReadHeader();
  result.header = file_.header();
  if (result.header == CircularLogFile::Header::kMissing) {
    result.state = State::kEmpty;
  } else if (result.header != CircularLogFile::Header::kWhole) {
    result.state = State::kDamaged;
  } else if (!ReadFromStart(take) && !ReadOn(take)) {
    result.lost = ReadAll(take);
  }
  return result;
}

LogFileReader::Lines LogFileReader::Collect(std::uint64_t begin, std::uint64_t end) const {
  Lines lines;
  file_.ReadLines(begin, end, [&](std::string_view text, std::uint64_t place) {
    auto line = ReadLogLine(text);
    // A line that has no end yet is being written.
    if (line && place + text.size() + kLineEndBytes <= file_.size()) {
      lines.push_back({std::move(*line), place, place + text.size() + kLineEndBytes});
    }
    return true;
  });
  return lines;
}

bool LogFileReader::IsLastInPlace() const {
  const Lines there = Collect(last_->begin, last_->begin + 1);
  return !there.empty() && there.front().line == last_->line;
}

// A file that has never wrapped may be of any length: its lines are handed over as they are read.
// False when it has wrapped or was read before.
bool LogFileReader::ReadFromStart(const TakeLine& take) {
  const std::uint64_t head = file_.head();
  if (last_ || head < file_.size()) {
    return false;
  }
  file_.ReadLines(CircularLogFile::kHeaderSize, head,
                  [&](std::string_view text, std::uint64_t begin) {
                    if (auto line = ReadLogLine(text)) {
                      take(*line);
                      last_ = PlacedLine{std::move(*line), begin, head};
                    }
                    return true;
                  });
  lastEnd_ = head;
  return true;
}

// The usual case: lines were added after the last one. False in any other case.
bool LogFileReader::ReadOn(const TakeLine& take) {
  const std::uint64_t head = file_.head();
  if (!last_ || head < lastEnd_ || last_->begin >= head || !IsLastInPlace()) {
    return false;
  }
  const Lines added = Collect(lastEnd_, head);
  // A writer overwrites the last one before it reaches the added lines.
  if (!IsLastInPlace()) {
    return false;
  }
  for (const PlacedLine& line : added) {
    take(line.line);
  }
  if (!added.empty()) {
    last_ = added.back();
  }
  lastEnd_ = head;
  return true;
}

// Decided by its time: the number of a writer that has just taken over may step back by one.
bool LogFileReader::IsUncounted(const Lines& oldest, const Lines& newest) {
  const NumberedLogLine& first = oldest.front().line;
  if (!newest.empty()) {
    return TimeAndNumber(first) > TimeAndNumber(newest.back().line);
  }
  // The newest line is then one of these.
  return std::any_of(oldest.begin() + 1, oldest.end(), [&](const PlacedLine& line) {
    return line.line.number >= first.number - 1 && TimeAndNumber(line.line) < TimeAndNumber(first);
  });
}

// The lines that begin in [begin, end) and have a line end.
LogFileReader::Lines LogFileReader::Parse(std::string_view bytes, std::uint64_t begin,
                                          std::uint64_t end) {
  Lines lines;
  while (begin < end) {
    const std::size_t lineFeed = bytes.find('\n', begin);
    if (lineFeed == std::string_view::npos) {
      break;
    }
    std::string_view text = bytes.substr(begin, lineFeed - begin);
    if (text.ends_with('\r')) {
      text.remove_suffix(1);
    }
    if (auto line = ReadLogLine(text)) {
      lines.push_back({std::move(*line), begin, lineFeed + 1});
    }
    begin = lineFeed + 1;
  }
  return lines;
}

LogFileReader::Snapshot LogFileReader::TakeSnapshot() {
  const std::uint64_t head = file_.head();
  const std::string bytes = file_.ReadBytes();
  ReadHeader();
  Lines lines = Parse(bytes, head, bytes.size());
  Lines newest = Parse(bytes, CircularLogFile::kHeaderSize, head);
  // No line crosses the head: the writer has wrapped since the header was read.
  if (!newest.empty() && newest.back().end > head) {
    return {};
  }
  // Drops what the writer has overwritten meanwhile: from the old head to the new one, possibly
  // round the end of the file.
  const std::uint64_t movedTo = file_.head();
  if (movedTo != head) {
    const auto isUnsafe = [&](const PlacedLine& line) {
      return movedTo > head ? line.begin >= head && line.begin < movedTo + kLineMargin
                            : line.begin >= head || line.begin < movedTo + kLineMargin;
    };
    std::erase_if(lines, isUnsafe);
    std::erase_if(newest, isUnsafe);
  }
  // The first line may be one that no header has counted.
  if (!lines.empty() && IsUncounted(lines, newest)) {
    lines.erase(lines.begin());
  }
  // The next one may be the rest of a partly overwritten line.
  const PlacedLine* const second = lines.size() > 1  ? &lines[1]
                                   : !newest.empty() ? &newest.front()
                                                     : nullptr;
  if (!lines.empty() && second != nullptr && IsRest(lines.front().line, second->line)) {
    lines.erase(lines.begin());
  }
  // Lines from before the file was made smaller are at the end.
  const auto stale = std::find_if(lines.begin(), lines.end(), [&](const PlacedLine& line) {
    return IsOlder(line.line, lines.front().line);
  });
  std::rotate(lines.begin(), stale, lines.end());
  lines.insert(lines.end(), std::make_move_iterator(newest.begin()),
               std::make_move_iterator(newest.end()));
  return {std::move(lines), head};
}

// Places where the numbers are not consecutive: left by a writer that took over, or by one that
// wrapped during the reading, so that lines of different rounds are mixed. Only the former are
// found again by the next reading.
LogFileReader::Gaps LogFileReader::FindGaps(const Lines& lines) {
  Gaps gaps;
  for (std::size_t i = 1; i < lines.size(); ++i) {
    const std::pair pair(lines[i - 1].line.number, lines[i].line.number);
    if (pair.second != pair.first + 1) {
      gaps.push_back(pair);
    }
  }
  return gaps;
}

void LogFileReader::SortByTime(Lines& lines) {
  std::stable_sort(lines.begin(), lines.end(), [](const PlacedLine& one, const PlacedLine& next) {
    return TimeAndNumber(one.line) < TimeAndNumber(next.line);
  });
}

// Returns the number of lines that were lost between the last one handed over and the oldest one in
// the file. Steps within the file are not counted: numbers also step when a writer takes over.
std::int64_t LogFileReader::ReadAll(const TakeLine& take) {
  Snapshot snapshot;
  Gaps gaps;
  bool isTorn = true;
  for (int i = 0; i < kTries && isTorn; ++i) {
    snapshot = TakeSnapshot();
    Gaps again = FindGaps(snapshot.lines);
    isTorn = snapshot.lines.empty() || (!again.empty() && (i == 0 || again != gaps));
    gaps = std::move(again);
  }
  if (isTorn) {
    return 0;
  }
  const Lines& lines = snapshot.lines;
  auto next = lines.cbegin();
  std::int64_t lost = 0;
  if (last_) {
    const auto found = std::find_if(lines.crbegin(), lines.crend(), [&](const PlacedLine& line) {
      return line.line == last_->line;
    });
    next = found.base();
    if (found == lines.crend()) {
      lost = std::max<std::int64_t>(lines.front().line.number - last_->line.number - 1, 0);
    }
  }
  for (; next != lines.cend(); ++next) {
    take(next->line);
  }
  last_ = lines.back();
  lastEnd_ = snapshot.head;
  return lost;
}

void LogFileReader::Salvage(const TakeLine& take) {
  if (Open() != 0) {
    return;
  }
  file_.ReadHeader();
  Lines lines = Collect(0, file_.size());
  SortByTime(lines);
  for (const PlacedLine& line : lines) {
    take(line.line);
  }
}

}  // namespace qorp::log
