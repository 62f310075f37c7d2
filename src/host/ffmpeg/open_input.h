// Opens a source for reading.
#pragma once

#include <string>

#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/io_deadline.h"

namespace host::ffmpeg {

// name: path or URL. io: what is read in its place, null for none; outlives the context, as does
// the deadline, which ends blocking calls. Takes out of the options what was used. Throws Error.
InputFormat OpenInput(const std::string& name, AVIOContext* io, Options& options,
                      IoDeadline& deadline);

}  // namespace host::ffmpeg
