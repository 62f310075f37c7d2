#include "host/ffmpeg/handles.h"

#include <new>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace host::ffmpeg {

void CloseInput::operator()(AVFormatContext* context) const noexcept {
  avformat_close_input(&context);
}

void FreeOutput::operator()(AVFormatContext* context) const noexcept {
  if (context != nullptr && context->oformat != nullptr &&
      (context->oformat->flags & AVFMT_NOFILE) == 0) {
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
