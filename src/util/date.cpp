#include "util/date.h"

namespace qorp {

std::int64_t Date::ToFileTime(const os::SystemTime& time) {
  const std::optional<std::int64_t> fileTime = os::SystemTimeToFileTime(time);
  if (!fileTime) {
    throw Exception("SystemTimeToFileTime failed");
  }
  return *fileTime;
}

}  // namespace qorp
