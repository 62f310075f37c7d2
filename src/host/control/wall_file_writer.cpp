#include "host/control/wall_file_writer.h"

#include "host/control/command.h"

namespace host::control {

void WriteWallFile(const std::filesystem::path& file, const WallState&) {
  throw CommandError(CommandError::Kind::kFailed, file.string() + " cannot be written yet");
}

}  // namespace host::control
