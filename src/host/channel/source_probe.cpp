#include "host/channel/source_probe.h"

#include <algorithm>
#include <cmath>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

#include "host/channel/audio/level_meter.h"
#include "host/feed/audio_format.h"

namespace host {
namespace {

// Enough to detect fields and colours, short enough for a live source.
constexpr int kMaxFrames = 12;
constexpr Time kLength = 2 * kSecond;

std::string NameOr(const char* name) {
  return name != nullptr ? name : "unknown";
}

void Look(const DecodedFrame& decoded, ProbeReport& report) {
  const AVFrame& frame = *decoded.frame;
  ++report.frames;
  report.width = frame.width;
  report.height = frame.height;
  report.interlaced = report.interlaced || frame.interlaced_frame != 0;
  report.topFieldFirst = frame.top_field_first != 0;
  report.colourSpace = NameOr(av_color_space_name(frame.colorspace));
  report.colourRange = NameOr(av_color_range_name(frame.color_range));
  report.colourPrimaries = NameOr(av_color_primaries_name(frame.color_primaries));
  report.colourTransfer = NameOr(av_color_transfer_name(frame.color_trc));
  report.wideColour = WideColourOf(frame);
  report.orientation = decoded.orientation;
}

void Listen(const AudioSamples& samples, SamplePlanes& planes, ProbeReport& report) {
  for (const float* plane : planes.Convert(*samples.frame)) {
    for (int i = 0; i < samples.frame->nb_samples; ++i) {
      report.loudest = std::max(report.loudest, static_cast<double>(std::fabs(plane[i])));
    }
  }
}

}  // namespace

ProbeReport Examine(MediaReader& reader) {
  ProbeReport report;
  report.info = reader.info();
  report.passesThrough =
      reader.audioParameters() != nullptr && PassesThrough(reader.audioParameters()->codec_id);
  SamplePlanes planes;
  for (Time now = 0; now < kLength;) {
    const MediaItem item = reader.Read();
    if (const auto* decoded = std::get_if<DecodedFrame>(&item)) {
      Look(*decoded, report);
      now = decoded->start;
      if (report.frames >= kMaxFrames && !report.info.audio) {
        break;
      }
    } else if (const auto* samples = std::get_if<AudioSamples>(&item)) {
      Listen(*samples, planes, report);
      now = report.info.video ? now : samples->start;
    } else if (std::holds_alternative<EndOfMedia>(item)) {
      break;
    }
  }
  report.damagedPackets = reader.damagedPackets();
  return report;
}

}  // namespace host
