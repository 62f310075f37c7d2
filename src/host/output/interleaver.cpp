#include "host/output/interleaver.h"

extern "C" {
#include <libavcodec/packet.h>
}

namespace host {
namespace {

Time Middle(const AVPacket& packet) {
  return packet.dts + packet.duration / 2;
}

}  // namespace

void Interleaver::Move(Line& line, Time by) {
  for (const ffmpeg::Packet& packet : line.packets) {
    packet->pts += by;
    packet->dts += by;
  }
  while (!line.packets.empty() && line.packets.front()->dts < line.written) {
    line.packets.pop_front();
    ++leftOut_;
  }
}

void Interleaver::Push(std::size_t number, ffmpeg::Packet packet, Time shift) {
  Line& line = lines_.at(number);
  if (shift != line.shift) {
    Move(line, shift - line.shift);
    line.shift = shift;
  }
  if (packet->dts < line.written) {
    ++leftOut_;
    return;
  }
  while (!line.packets.empty() && packet->dts < Middle(*line.packets.back())) {
    line.packets.pop_back();
    ++leftOut_;
  }
  line.packets.push_back(std::move(packet));
}

void Interleaver::Release(Time before, const Write& write) {
  for (;;) {
    std::size_t earliest = lines_.size();
    for (std::size_t i = 0; i < lines_.size(); ++i) {
      const auto& packets = lines_[i].packets;
      if (!packets.empty() && packets.front()->dts < before &&
          (earliest == lines_.size() ||
           packets.front()->dts < lines_[earliest].packets.front()->dts)) {
        earliest = i;
      }
    }
    if (earliest == lines_.size()) {
      return;
    }
    Line& line = lines_[earliest];
    ffmpeg::Packet packet = std::move(line.packets.front());
    line.packets.pop_front();
    line.written = Middle(*packet);
    write(earliest, std::move(packet));
  }
}

}  // namespace host
