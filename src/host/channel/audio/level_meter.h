// LevelMeter: the audio levels of a channel, once for each frame of the canvas.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "host/feed/alarm_record.h"
#include "host/ffmpeg/handles.h"
#include "host/units.h"

struct AVFrame;

namespace host {

// Converts the samples of a frame into planes of floats. Layout and rate stay those of the source:
// nothing is mixed or resampled, so the levels are those of the source's own channels. Keeps its
// buffers from call to call; one thread.
class SamplePlanes {
 public:
  // For each channel a plane of frame.nb_samples floats, full scale at -1 and 1; valid until the
  // next call. Empty for an unknown sample format, and for more than 64 channels.
  std::span<const float* const> Convert(const AVFrame& frame);

 private:
  ffmpeg::Resampler converter_;  // null: the format cannot be converted
  int format_ = -1;              // of the converter
  int channels_ = 0;
  std::vector<float> samples_;
  std::vector<float*> planes_;
};

// The level of a reading is the greatest magnitude of a sample within the frame's time; the peak is
// the greatest level of the hold time, after which it falls at a fixed rate until a level reaches
// it again. Frames are on a grid that starts at time 0, so the readings of a channel do not depend
// on how its decoder divides the samples. Channels beyond the tenth are not measured.
//
// Pure arithmetic; owned and called by one channel on its thread.
class LevelMeter {
 public:
  struct Settings {
    Ratio frameRate{25, 1};
    Time peakHold = 3 * kSecond / 2;
    double peakFall = 20.0;  // decibels per second
  };

  struct Reading {
    Time start = 0;  // of the frame
    Time duration = 0;
    AudioLevels levels;
    float loudest = 0;  // greatest of the levels, full scale at 1
  };
  using Sink = std::function<void(const Reading&)>;

  explicit LevelMeter(const Settings& settings) : settings_(settings) {}

  // planes: for each channel this many samples, full scale at -1 and 1; rate in hertz; start: the
  // time of the first sample. Gives the readings of the frames that end within these samples. A
  // frame ends early where the channel count changes. Late samples count for the present frame.
  void Push(std::span<const float* const> planes, int samples, int rate, Time start,
            const Sink& sink);
  // At the end of the audio: gives the reading of the incomplete frame.
  void Finish(const Sink& sink);

 private:
  void EndFrame(const Sink& sink);
  void StartFrame(std::int64_t frame);

  const Settings settings_;
  std::optional<std::int64_t> frame_;  // the present one, counted on the grid
  bool measured_ = false;              // it has samples
  int channels_ = 0;
  std::array<float, kMaxMeterChannels> level_{};
  std::array<float, kMaxMeterChannels> peak_{};
  std::array<Time, kMaxMeterChannels> peakStart_{};
  std::optional<Time> lastReading_;
};

}  // namespace host
