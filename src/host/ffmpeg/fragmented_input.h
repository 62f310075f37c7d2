// FragmentedInput: a stream of fragmented MP4 that one demuxer after another can read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "host/ffmpeg/handles.h"

namespace host::ffmpeg {

// FFmpeg's demuxer of MP4 keeps an index entry of every sample it has ever read: a stream that
// never ends fills the memory. This input remembers the header of such a stream, can end reading
// between two fragments, and gives the header again to the demuxer that continues there. All other
// bytes go through as they are.
//
// Owned by its reader, and must outlive the format contexts that read through io(). One thread.
class FragmentedInput {
 public:
  // below outlives the input, which reads it and never seeks.
  explicit FragmentedInput(AVIOContext* below);
  FragmentedInput(const FragmentedInput&) = delete;
  FragmentedInput& operator=(const FragmentedInput&) = delete;

  AVIOContext* io() const { return io_.get(); }

  // The first fragment has come, and its header is known.
  bool isFragmented() const { return inFragments_ && !header_.empty(); }
  // Reading ends before the next fragment, with AVERROR_EOF. Of fragmented streams only.
  void EndBeforeNextFragment() { ending_ = isFragmented(); }
  // It has ended there.
  bool ended() const { return ended_; }
  // Afterwards: what is read next is the header and then that fragment.
  void Restart();

 private:
  static constexpr std::size_t kMaxHeader = std::size_t{4} << 20;  // bytes

  static int ReadCallback(void* input, std::uint8_t* buffer, int size);
  int Read(std::uint8_t* buffer, int size);
  // Looks at the header of a box at which the stream stands; false while it has not come.
  bool BeginBox();
  void Remember(std::size_t count);
  int ReadBelow();

  AVIOContext* const below_;
  CallbackIo io_;
  std::string header_;      // all before the first fragment; empty when it is not to be remembered
  std::string pending_;     // read from below, not given yet
  std::size_t given_ = 0;   // of pending_
  std::uint64_t left_ = 0;  // bytes of the box at which the stream stands
  std::size_t repeat_ = 0;  // bytes of the header that are to be given again
  bool inFragments_ = false;
  bool isOther_ = false;  // no MP4
  bool ending_ = false;
  bool ended_ = false;
};

}  // namespace host::ffmpeg
