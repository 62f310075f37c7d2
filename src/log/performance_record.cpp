#include "log/performance_record.h"

namespace qorp::log {

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
