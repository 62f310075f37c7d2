#include "host/channel/source/packet_source.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace host {

void PacketSource::Select(TrackKind kind, int index) {
  selection_[static_cast<std::size_t>(kind)] = index;
  context().streams[index]->discard = AVDISCARD_DEFAULT;
}

std::optional<TrackKind> PacketSource::KindOf(int index) const {
  for (const TrackKind kind : kTrackKinds) {
    if (selection_[static_cast<std::size_t>(kind)] == index) {
      return kind;
    }
  }
  return std::nullopt;
}

AVStream& PacketSource::stream(TrackKind kind) const {
  return *context().streams[*selection_[static_cast<std::size_t>(kind)]];
}

}  // namespace host
