// AudioResampler: 16-bit audio from one sampling rate to another. The filter bank, with one short
// low-pass filter for each fraction of a sample, and the loop that applies a filter.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace qorp {

// A sum of coefficients of this size is a gain of 1.
inline constexpr int kFilterScale = 32768;

// Builds phases + 1 filters of taps coefficients each, one after the other.
//
// Filter p is a sinc that is cut off at factor (of half the source's rate, at most 1), shifted by
// p / phases of a sample, and faded out by a Blackman-Nuttall window. Each filter's coefficients
// add up to kFilterScale within 1: the rounding error of one tap is carried to the next. With taps
// of at most 16 / factor, rounded up, the magnitudes of one filter add up to less than 2 *
// kFilterScale, so that its products with 16-bit samples add up within 32 bits. The last filter is
// the first one shifted by one tap: the neighbour of filter phases - 1 when neighbours are
// interpolated.
std::vector<std::int16_t> BuildFilter(double factor, std::int32_t taps, std::int32_t phases);

// The inner loop: samples times coefficients, added up. This is its reference implementation. The
// caller's coefficients keep the sum, and each part of it, within 32 bits.
inline std::int32_t InnerProductScalar(const std::int16_t* samples,
                                       const std::int16_t* coefficients, std::int32_t taps) {
  std::int32_t sum = 0;
  for (std::int32_t i = 0; i < taps; ++i) {
    sum += std::int32_t{samples[i]} * coefficients[i];
  }
  return sum;
}

#ifdef __SSE2__

// Eight products at a time, measured 1.5 times as fast as the compiled loop above. Taps beyond the
// last whole eight are taken from the end, with those that are counted already masked out: nothing
// outside the two arrays is read.
inline std::int32_t InnerProduct(const std::int16_t* samples, const std::int16_t* coefficients,
                                 std::int32_t taps) {
  constexpr std::int32_t kLanes = 8;
  static constexpr std::int16_t kMasks[2 * kLanes] = {0,  0,  0,  0,  0,  0,  0,  0,
                                                      -1, -1, -1, -1, -1, -1, -1, -1};
  if (taps < kLanes) {
    return InnerProductScalar(samples, coefficients, taps);
  }
  const auto load = [](const std::int16_t* from) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
  };
  __m128i sums = _mm_setzero_si128();
  std::int32_t done = 0;
  for (; done + kLanes <= taps; done += kLanes) {
    sums = _mm_add_epi32(sums, _mm_madd_epi16(load(samples + done), load(coefficients + done)));
  }
  if (const std::int32_t rest = taps - done; rest > 0) {
    const __m128i lastCoefficients =
        _mm_and_si128(load(coefficients + taps - kLanes), load(kMasks + rest));
    sums = _mm_add_epi32(sums, _mm_madd_epi16(load(samples + taps - kLanes), lastCoefficients));
  }
  sums = _mm_add_epi32(sums, _mm_shuffle_epi32(sums, _MM_SHUFFLE(1, 0, 3, 2)));
  sums = _mm_add_epi32(sums, _mm_shuffle_epi32(sums, _MM_SHUFFLE(2, 3, 0, 1)));
  return _mm_cvtsi128_si32(sums);
}

#else

inline std::int32_t InnerProduct(const std::int16_t* samples, const std::int16_t* coefficients,
                                 std::int32_t taps) {
  return InnerProductScalar(samples, coefficients, taps);
}

#endif

// How a resampler trades time for accuracy.
struct ResamplingQuality {
  // Taps of one filter when the rate does not go down, 1 to 16; more are used when it does.
  std::int32_t taps = 16;
  // log2 of the number of filters, each for one fraction of a sample; 0 to 15. With one tap and
  // one filter, samples are picked and not filtered at all.
  std::int32_t phaseShift = 10;
  // Interpolate between the two filters next to a position instead of taking the one before it.
  bool linear = false;
};

// Filters and position of one stream. A position is counted in phases: the sample's number times
// the number of filters, plus the number of the filter.
struct ResamplingContext {
  // Throws std::invalid_argument for rates or a quality out of range.
  ResamplingContext(std::int32_t outputRate, std::int32_t inputRate,
                    const ResamplingQuality& quality);

  std::int32_t filterLength;             // taps of one filter
  std::vector<std::int16_t> filterBank;  // one filter after the other, one more than phases
  std::int32_t idealDstIncr;             // step from one output to the next, in phases / srcIncr
  std::int32_t dstIncr;                  // the present step, changed by a compensation
  std::int32_t index;                    // position of the next output; negative before the start
  std::int32_t frac = 0;                 // rest of the position beyond index, in phases / srcIncr
  std::int32_t srcIncr;
  std::int32_t compensationDistance = 0;  // outputs left of a compensation; 0 without one
  std::int32_t phaseShift;
  std::int32_t phaseMask;
  bool linear;
};

// Converts one channel of a stream with a bank of windowed-sinc filters in fixed point.
//
// A filter reaches filterLength samples ahead of its position, so an output needs that many samples
// after it; samples that were not consumed must be passed again at the start of the next call.
// Before the first sample the signal is mirrored. Fed in pieces, the stream gives the same output
// as at once, provided that the first piece holds at least filterLength samples.
//
// Belongs to one owner and one thread at a time; it has no lock.
class AudioResampler {
 public:
  AudioResampler() = default;
  virtual ~AudioResampler();
  AudioResampler(const AudioResampler&) = delete;
  AudioResampler& operator=(const AudioResampler&) = delete;

  // Starts a new stream; rates are in samples per second, 1 to 2097151, and the stride becomes 1.
  // Throws std::invalid_argument for anything else, and then the former stream continues.
  void Init(std::int32_t outputRate, std::int32_t inputRate, const ResamplingQuality& quality = {});

  // Writes up to dstCapacity samples and returns how many. consumed is the number of samples by
  // which the caller must advance src, which has srcCount; when a piece is shorter than a filter,
  // that may be more than it holds. With update the stream continues from there; without it, the
  // next call starts at this call's position again. Counts are of this channel's samples. dst and
  // src may not overlap. Throws std::logic_error before Init.
  std::int32_t Resample(std::int16_t* dst, const std::int16_t* src, std::int32_t& consumed,
                        std::int32_t srcCount, std::int32_t dstCapacity, bool update);

  // Changes the step of the next compensationDistance outputs, so that the source samples that they
  // use give sampleDelta outputs more (or, negative, fewer) than the rates do: a stream can follow
  // a clock that drifts. Then the ideal step applies again. A distance of 0 ends a compensation at
  // once. Throws std::invalid_argument when the step would leave its range (for instance when the
  // delta is not smaller than the distance) and std::logic_error before Init.
  void SetCompensation(std::int32_t sampleDelta, std::int32_t compensationDistance);

  // Distance between two samples of the channel in src and dst (the channel count of interleaved
  // data); at least 1, otherwise std::invalid_argument.
  void SetStride(std::int32_t stride);

  std::int32_t inputRate() const { return inputRate_; }
  std::int32_t outputRate() const { return outputRate_; }
  std::int32_t stride() const { return stride_; }
  // Null before Init.
  const ResamplingContext* context() const { return context_.get(); }

 private:
  ResamplingContext& RequireContext(const char* operation) const;

  std::unique_ptr<ResamplingContext> context_;
  std::int32_t inputRate_ = 0;
  std::int32_t outputRate_ = 0;
  std::int32_t stride_ = 1;
};

}  // namespace qorp
