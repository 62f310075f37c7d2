// Decoded samples of any format as planes of floats.
#pragma once

#include <span>
#include <vector>

struct AVFrame;

namespace host {

// Layout and rate stay those of the source: nothing is mixed or resampled, so a level that is
// measured here is that of the source's own channel. Keeps its buffers from call to call; one
// thread.
class SamplePlanes {
 public:
  // For each channel a plane of frame.nb_samples floats, full scale at -1 and 1; valid until the
  // next call. Empty for a sample format that is not known.
  std::span<const float* const> Convert(const AVFrame& frame);

 private:
  std::vector<float> samples_;
  std::vector<const float*> planes_;
};

}  // namespace host
