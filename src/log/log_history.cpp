#include "log/log_history.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

namespace qorp::log {

void LogHistory::Insert(std::int64_t number, LogHistoryEntry entry) {
  const std::lock_guard guard(lock_);
  lines_.insert_or_assign(number, std::move(entry));
  while (lines_.size() > capacity_) {
    lines_.erase(lines_.begin());
  }
}

void LogHistory::Clear() {
  const std::lock_guard guard(lock_);
  lines_.clear();
}

bool LogHistory::Resolve(std::int64_t* first, std::int64_t* last) const {
  const std::int64_t oldest = lines_.begin()->first;
  const std::int64_t newest = lines_.rbegin()->first;
  const auto fromNewest = [&](std::int64_t bound) {
    constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
    if (bound >= 0) {
      return bound;
    }
    const std::int64_t behind = bound + 1;
    return newest < kLowest - behind ? kLowest : newest + behind;
  };
  *first = std::max(fromNewest(*first), oldest);
  *last = std::min(fromNewest(*last), newest);
  return *last >= *first;
}

bool LogHistory::GetRange(std::int64_t first, std::int64_t last, std::int64_t* outFirst,
                          std::int64_t* outLast) const {
  const std::lock_guard guard(lock_);
  if (lines_.empty()) {
    throw std::runtime_error("History is empty");
  }
  *outFirst = first;
  *outLast = last;
  return Resolve(outFirst, outLast);
}

std::vector<LogHistoryEntry> LogHistory::Get(std::int64_t first, std::int64_t last) const {
  const std::lock_guard guard(lock_);
  std::vector<LogHistoryEntry> entries;
  if (!lines_.empty() && Resolve(&first, &last)) {
    const auto end = lines_.upper_bound(last);
    for (auto line = lines_.lower_bound(first); line != end; ++line) {
      entries.push_back(line->second);
    }
  }
  return entries;
}

}  // namespace qorp::log
