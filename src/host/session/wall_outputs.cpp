#include "host/session/wall_outputs.h"

#include "host/ffmpeg/mask.h"

namespace host {
namespace {

// Of a rendered wall, whose sources are read as fast as they give: all are known long before.
constexpr Time kRenderedFormatLimit = 5 * kSecond;

OutputSet::Item ItemOf(const wall::Canvas& canvas, const wall::Output& output, bool live) {
  OutputSet::Item item;
  item.name = ffmpeg::MaskCredentials(output.url);
  item.encoder.width = canvas.width;
  item.encoder.height = canvas.height;
  item.encoder.frameRate = canvas.frameRate;
  item.encoder.pixelAspect = PixelAspect(canvas.width, canvas.height, canvas.aspect);
  item.encoder.codec = output.codec;
  item.encoder.preset = output.preset;
  item.encoder.bitRate = output.bitRate;
  item.encoder.quality = output.quality;
  item.encoder.keyFrameInterval = output.keyFrameInterval;
  item.encoder.lowDelay = output.lowDelay;
  item.muxer.url = output.url;
  item.muxer.format = output.format;
  item.muxer.options = output.options;
  item.sound = output.audio;
  using Existing = RecordingFiles::Existing;
  // Who renders waits for the file of that name; a wall that runs records, wherever there is room.
  item.existing = output.overwrite ? Existing::kReplaced
                  : live           ? Existing::kKept
                                   : Existing::kRefused;
  item.segments = {output.segment, output.segmentSize};
  item.formatLimit = live ? output.audioWait : kRenderedFormatLimit;
  return item;
}

}  // namespace

OutputSet::Settings OutputsOfWall(const wall::Wall& wall, const std::vector<wall::Output>& outputs,
                                  bool live) {
  OutputSet::Settings settings;
  settings.live = live;
  settings.frameRate = wall.canvas.frameRate;
  for (const wall::Output& output : outputs) {
    settings.outputs.push_back(ItemOf(wall.canvas, output, live));
  }
  for (const wall::Channel& channel : wall.channels) {
    const wall::AudioOptions& audio = channel.options.audio;
    settings.tracks.push_back({channel.name, audio.language, channel.selected,
                               audio.enabled ? std::make_shared<AudioTrack>() : nullptr});
  }
  return settings;
}

}  // namespace host
