#include "host/ffmpeg/open_input.h"

#include <new>

extern "C" {
#include <libavformat/avformat.h>
}

#include "host/ffmpeg/error.h"

namespace host::ffmpeg {

InputFormat OpenInput(const std::string& name, AVIOContext* io, Options& options,
                      IoDeadline& deadline) {
  AVFormatContext* context = avformat_alloc_context();
  if (context == nullptr) {
    throw std::bad_alloc();
  }
  context->interrupt_callback = {&IoDeadline::Callback, &deadline};
  context->pb = io;
  // On failure this frees the context itself.
  Check(avformat_open_input(&context, name.c_str(), nullptr, options.Exchange()), "cannot open");
  return InputFormat(context);
}

}  // namespace host::ffmpeg
