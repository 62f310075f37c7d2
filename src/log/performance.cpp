#include "log/performance.h"

#include <utility>

namespace qorp::log {

void PinTable::Register(std::string_view name, std::uint32_t now) {
  pins_.insert_or_assign(std::string(name), Pin{0, now, 0});
}

std::uint32_t PinTable::Count(std::string_view name, std::uint32_t now) {
  const auto found = pins_.find(name);
  if (found == pins_.end()) {
    return 1;
  }
  Pin& pin = found->second;
  ++pin.count;
  ++pin.repeats;
  if (now - pin.lastWarning < kBufferFullPeriod) {
    return 0;
  }
  pin.lastWarning = now;
  return std::exchange(pin.repeats, 0);
}

PinTable::Counts PinTable::GetCounts() const {
  Counts counts;
  for (const auto& [name, pin] : pins_) {
    counts.emplace_hint(counts.end(), name, static_cast<std::int32_t>(pin.count));
  }
  return counts;
}

namespace {

// Limits below 0 are always reached.
bool Reaches(std::uint64_t value, std::int32_t limit) {
  return limit <= 0 || value >= static_cast<std::uint64_t>(limit);
}

}  // namespace

void RestartMonitor::CountBufferFull() {
  const os::MutexLock guard(lock_);
  ++count_;
}

void RestartMonitor::Tick() {
  const os::MutexLock guard(lock_);
  if (!Reaches(elapsed_, rule_.warmUp)) {
    elapsed_ += static_cast<std::uint64_t>(rule_.step);
  } else {
    state_.lastDelta = count_ - previousCount_;
    state_.consecutive =
        Reaches(state_.lastDelta, rule_.deltaThreshold) ? state_.consecutive + 1 : 0;
  }
  previousCount_ = count_;
  if (Reaches(state_.consecutive, rule_.consecutiveLimit)) {
    state_.needRestart = true;
  }
}

RestartMonitor::State RestartMonitor::GetState() const {
  const os::MutexLock guard(lock_);
  return state_;
}

std::string FormatPerformanceHeader(const PinTable::Counts& pins) {
  std::string line =
      "Cpu,TotalCpu,WorkingSet,PrivateBytes,NumBufferFull,NumResync,NumTsDiscontinuity,KernelTime,"
      "UserTime,Date,NumDecPictures,VirtualSize,HandleCount,NumPoliticChoices,";
  for (const auto& [name, count] : pins) {
    line += "buffer_full_" + name + ",";
  }
  return line + "LastDeltaNumOverAllBufferFull,NumPeriodThresholdReached,NeedRestart,";
}

std::string FormatPerformanceLine(const PerformanceRecord& record) {
  std::string line;
  const auto add = [&](auto... values) { ((line += std::to_string(values), line += ','), ...); };
  add(record.cpu, record.totalCpu, record.workingSet, record.privateBytes, record.numBufferFull,
      record.numResync, record.numTsDiscontinuity, record.kernelTime, record.userTime, record.date,
      record.numDecPictures, record.virtualSize, record.handleCount, record.numPoliticChoices);
  for (const auto& [name, count] : record.bufferFull) {
    add(count);
  }
  add(record.restart.lastDelta, record.restart.consecutive, record.restart.needRestart ? 1 : 0);
  return line;
}

}  // namespace qorp::log
