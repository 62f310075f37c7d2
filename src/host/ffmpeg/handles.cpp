#include "host/ffmpeg/handles.h"

#include <new>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavfilter/avfilter.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libavutil/mem.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include "host/ffmpeg/error.h"
#include "host/ffmpeg/time_unit.h"

namespace host::ffmpeg {

void FreeOutput::operator()(AVFormatContext* context) const noexcept {
  if (context != nullptr && context->oformat != nullptr &&
      (context->oformat->flags & AVFMT_NOFILE) == 0 &&
      (context->flags & AVFMT_FLAG_CUSTOM_IO) == 0) {
    avio_closep(&context->pb);
  }
  avformat_free_context(context);
}

void FreeCodec::operator()(AVCodecContext* context) const noexcept {
  avcodec_free_context(&context);
}

void FreeParameters::operator()(AVCodecParameters* parameters) const noexcept {
  avcodec_parameters_free(&parameters);
}

void FreeFrame::operator()(AVFrame* frame) const noexcept {
  av_frame_free(&frame);
}

void FreePacket::operator()(AVPacket* packet) const noexcept {
  av_packet_free(&packet);
}

void FreeFilterGraph::operator()(AVFilterGraph* graph) const noexcept {
  avfilter_graph_free(&graph);
}

void FreeScaler::operator()(SwsContext* scaler) const noexcept {
  sws_freeContext(scaler);
}

void FreeResampler::operator()(SwrContext* resampler) const noexcept {
  swr_free(&resampler);
}

void FreeSampleFifo::operator()(AVAudioFifo* fifo) const noexcept {
  av_audio_fifo_free(fifo);
}

void FreePacketFilter::operator()(AVBSFContext* filter) const noexcept {
  av_bsf_free(&filter);
}

void CloseConnection::operator()(AVIOContext* io) const noexcept {
  avio_close(io);
}

void FreeCallbackIo::operator()(AVIOContext* io) const noexcept {
  if (io != nullptr) {
    av_freep(&io->buffer);
  }
  avio_context_free(&io);
}

namespace {

template <typename Holder, typename Handle>
Holder Own(Handle* handle) {
  if (handle == nullptr) {
    throw std::bad_alloc();
  }
  return Holder(handle);
}

CallbackIo MakeIo(int isWriting, void* self, IoCallback read, IoCallback write, SeekCallback seek,
                  int bufferSize) {
  auto* const buffer = static_cast<unsigned char*>(av_malloc(static_cast<std::size_t>(bufferSize)));
  if (buffer == nullptr) {
    throw std::bad_alloc();
  }
  AVIOContext* const io =
      avio_alloc_context(buffer, bufferSize, isWriting, self, read, write, seek);
  if (io == nullptr) {
    av_free(buffer);
  }
  return Own<CallbackIo>(io);
}

}  // namespace

Frame MakeFrame() {
  return Own<Frame>(av_frame_alloc());
}

Packet MakePacket() {
  return Own<Packet>(av_packet_alloc());
}

Parameters MakeParameters() {
  return Own<Parameters>(avcodec_parameters_alloc());
}

Frame RefFrame(const AVFrame& frame) {
  return Own<Frame>(av_frame_clone(&frame));
}

Packet RefPacket(const AVPacket& packet) {
  return Own<Packet>(av_packet_clone(&packet));
}

Parameters CopyParameters(const AVCodecParameters& parameters) {
  Parameters copy = MakeParameters();
  if (avcodec_parameters_copy(copy.get(), &parameters) < 0) {
    throw std::bad_alloc();
  }
  return copy;
}

CallbackIo MakeReadingIo(void* self, IoCallback read, SeekCallback seek) {
  return MakeIo(0, self, read, nullptr, seek, kIoBufferSize);
}

CallbackIo MakeWritingIo(void* self, IoCallback write, SeekCallback seek, int bufferSize) {
  return MakeIo(1, self, nullptr, write, seek, bufferSize);
}

const AVCodec* FindEncoder(const std::string& name) {
  if (const AVCodec* const encoder = avcodec_find_encoder_by_name(name.c_str())) {
    return encoder;
  }
  const AVCodecDescriptor* const codec = avcodec_descriptor_get_by_name(name.c_str());
  return codec != nullptr ? avcodec_find_encoder(codec->id) : nullptr;
}

PacketFilter MakePacketFilter(const char* name, const AVCodecParameters& parameters) {
  const AVBitStreamFilter* const kind = av_bsf_get_by_name(name);
  if (kind == nullptr) {
    throw Error(AVERROR_BSF_NOT_FOUND, "no packet filter", name);
  }
  AVBSFContext* context = nullptr;
  if (av_bsf_alloc(kind, &context) < 0) {
    throw std::bad_alloc();
  }
  PacketFilter filter(context);
  Check(avcodec_parameters_copy(context->par_in, &parameters), "cannot filter packets");
  context->time_base_in = kTimeUnit;
  Check(av_bsf_init(context), "cannot filter packets with", name);
  return filter;
}

Options::~Options() {
  av_dict_free(&dictionary_);
}

void Options::Set(const char* key, const std::string& value) {
  if (av_dict_set(&dictionary_, key, value.c_str(), 0) < 0) {
    throw std::bad_alloc();
  }
}

std::vector<std::string> Options::UnusedKeys() const {
  std::vector<std::string> keys;
  const AVDictionaryEntry* entry = nullptr;
  while ((entry = av_dict_get(dictionary_, "", entry, AV_DICT_IGNORE_SUFFIX)) != nullptr) {
    keys.emplace_back(entry->key);
  }
  return keys;
}

}  // namespace host::ffmpeg
