#include "host/ffmpeg/open_input.h"

#include <cstddef>
#include <new>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mem.h>
}

#include "host/ffmpeg/error.h"

namespace host::ffmpeg {
namespace {

// In one piece, of all of FFmpeg: a length field of a stranger may ask for gigabytes. A frame of
// the greatest size that is decoded takes half of it.
constexpr std::size_t kMaxAllocation = std::size_t{512} << 20;

void LimitAllocations() {
  static const bool isLimited = [] {
    av_max_alloc(kMaxAllocation);
    return true;
  }();
  static_cast<void>(isLimited);
}

}  // namespace

InputFormat OpenInput(const std::string& name, AVIOContext* io, Options& options,
                      IoDeadline& deadline) {
  LimitAllocations();
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
