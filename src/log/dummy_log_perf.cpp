#include "log/dummy_log_perf.h"

#include "log/message_queue.h"
#include "platform/os/debugger_output.h"

namespace qorp::log {

void DummyLogPerf::log(std::int32_t, const char* format, ...) {
  FormatBuffer<260> buffer;
  va_list arguments;
  va_start(arguments, format);
  const std::size_t length = buffer.Format(format, arguments);
  va_end(arguments);
  os::WriteDebuggerOutput({buffer.Data(), length});
  os::WriteDebuggerOutput("\n");
}

}  // namespace qorp::log
