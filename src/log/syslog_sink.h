// syslog_sink: datagrams for a syslog server.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "log/i_log_sink.h"
#include "platform/os/datagram.h"

namespace qorp::log {

// One datagram for each message, of every level:
//
//   <132>Nov 16 09:43:14 encoder01 0042 text NUL
//
// 132 is 128 (facility local 0) and the severity: 3, 4, 6, 7 for levels 0 to 3. The time is the
// local one, its day filled with a blank. The number counts from 0000 to 9999 and starts again.
// What is longer than 1024 characters, without the NUL, is cut. Whether a datagram arrives is not
// known.
class syslog_sink final : public ILogSink {
 public:
  // An invalid socket sends nothing.
  syslog_sink(os::DatagramSocket socket, std::string hostName);

  void Write(std::int32_t level, const LogTime& time, const char* text) override;

 private:
  std::mutex lock_;  // guards everything below
  const os::DatagramSocket socket_;
  const std::string hostName_;
  int sequenceNumber_ = 0;
};

}  // namespace qorp::log
