// Owning holders for FFmpeg's handles. Each deleter is named after what it frees; a null handle is
// always allowed. The structures stay incomplete here, so that a header that only owns one does not
// pull in FFmpeg.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct AVAudioFifo;
struct AVBSFContext;
struct AVCodec;
struct AVCodecContext;
struct AVCodecParameters;
struct AVDictionary;
struct AVFilterGraph;
struct AVFormatContext;
struct AVFrame;
struct AVIOContext;
struct AVPacket;
struct SwrContext;
struct SwsContext;

namespace host::ffmpeg {

struct CloseInput {
  void operator()(AVFormatContext* context) const noexcept;
};
// Closes the file of an output context, if one is open, and frees the context. It does not write
// the trailer.
struct FreeOutput {
  void operator()(AVFormatContext* context) const noexcept;
};
struct FreeCodec {
  void operator()(AVCodecContext* context) const noexcept;
};
struct FreeParameters {
  void operator()(AVCodecParameters* parameters) const noexcept;
};
struct FreeFrame {
  void operator()(AVFrame* frame) const noexcept;
};
struct FreePacket {
  void operator()(AVPacket* packet) const noexcept;
};
struct FreeFilterGraph {
  void operator()(AVFilterGraph* graph) const noexcept;
};
struct FreeScaler {
  void operator()(SwsContext* scaler) const noexcept;
};
struct FreeResampler {
  void operator()(SwrContext* resampler) const noexcept;
};
struct FreeSampleFifo {
  void operator()(AVAudioFifo* fifo) const noexcept;
};
struct FreePacketFilter {
  void operator()(AVBSFContext* filter) const noexcept;
};
struct CloseConnection {
  void operator()(AVIOContext* io) const noexcept;
};
// Frees a context made over callbacks of our own, with its buffer.
struct FreeCallbackIo {
  void operator()(AVIOContext* io) const noexcept;
};

using InputFormat = std::unique_ptr<AVFormatContext, CloseInput>;
using OutputFormat = std::unique_ptr<AVFormatContext, FreeOutput>;
using Codec = std::unique_ptr<AVCodecContext, FreeCodec>;
using Parameters = std::unique_ptr<AVCodecParameters, FreeParameters>;
using Frame = std::unique_ptr<AVFrame, FreeFrame>;
using Packet = std::unique_ptr<AVPacket, FreePacket>;
using FilterGraph = std::unique_ptr<AVFilterGraph, FreeFilterGraph>;
using Scaler = std::unique_ptr<SwsContext, FreeScaler>;
using Resampler = std::unique_ptr<SwrContext, FreeResampler>;
using SampleFifo = std::unique_ptr<AVAudioFifo, FreeSampleFifo>;
using PacketFilter = std::unique_ptr<AVBSFContext, FreePacketFilter>;
using Connection = std::unique_ptr<AVIOContext, CloseConnection>;
using CallbackIo = std::unique_ptr<AVIOContext, FreeCallbackIo>;

// What FFmpeg calls to read or write up to size bytes: their count, or a negative error of FFmpeg.
using IoCallback = int (*)(void* self, std::uint8_t* bytes, int size);
// What FFmpeg calls to seek: the new position, or with AVSEEK_SIZE the size of the file.
using SeekCallback = std::int64_t (*)(void* self, std::int64_t offset, int whence);

// Empty frame, packet and parameters. Throw std::bad_alloc.
Frame MakeFrame();
Packet MakePacket();
Parameters MakeParameters();

// The encoder of that name, or the default one of the codec of that name; null when there is none.
const AVCodec* FindEncoder(const std::string& name);

// New references to the same data. Throw std::bad_alloc.
Frame RefFrame(const AVFrame& frame);
Packet RefPacket(const AVPacket& packet);
Parameters CopyParameters(const AVCodecParameters& parameters);

inline constexpr int kIoBufferSize = 64 << 10;  // bytes
// A context that reads, or one that writes, through callbacks; self goes back into each call.
// Without a callback to seek it is a stream. Throw std::bad_alloc.
CallbackIo MakeReadingIo(void* self, IoCallback read, SeekCallback seek = nullptr);
CallbackIo MakeWritingIo(void* self, IoCallback write, SeekCallback seek = nullptr,
                         int bufferSize = kIoBufferSize);

// A packet filter (FFmpeg's bitstream filter of that name) for packets of such a stream, ready to
// work. Throws Error.
PacketFilter MakePacketFilter(const char* name, const AVCodecParameters& parameters);

// Options for FFmpeg's open calls. The callee takes out what it used: what is left was not known to
// it.
class Options {
 public:
  Options() = default;
  ~Options();
  Options(const Options&) = delete;
  Options& operator=(const Options&) = delete;

  void Set(const char* key, const std::string& value);
  // For the open calls, which replace the dictionary by what they did not use.
  AVDictionary** Exchange() { return &dictionary_; }
  std::vector<std::string> UnusedKeys() const;

 private:
  AVDictionary* dictionary_ = nullptr;
};

}  // namespace host::ffmpeg
