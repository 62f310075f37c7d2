#include "audio/audio_resampler.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <string>

namespace qorp {
namespace {

// Ten decimals, not M_PI: the last bits decide how some coefficients round.
constexpr double kPi = 3.1415926535;

double WindowedSinc(double x, double span) {
  const double sinc = x == 0 ? 1.0 : std::sin(x) / x;
  const double w = 2.0 * x / span + kPi;
  return sinc * (0.3635819 - 0.4891775 * std::cos(w) + 0.1365995 * std::cos(2 * w) -
                 0.0106411 * std::cos(3 * w));
}

// Rounds the taps of one phase, each with the error of those before it.
void Quantise(const std::vector<double>& taps, double norm, std::int16_t* coefficients) {
  double error = 0;
  for (std::size_t i = 0; i < taps.size(); ++i) {
    const double ideal = taps[i] * kFilterScale / norm;
    const long rounded = std::lrint(static_cast<float>(ideal + error));
    coefficients[i] = static_cast<std::int16_t>(std::clamp(rounded, -32768L, 32767L));
    error = error - coefficients[i] + ideal;
  }
}

}  // namespace

std::vector<std::int16_t> BuildFilter(double factor, std::int32_t taps, std::int32_t phases) {
  const auto length = static_cast<std::size_t>(taps);
  std::vector<std::int16_t> bank(length * (static_cast<std::size_t>(phases) + 1));
  std::vector<double> tap(length);
  const std::int32_t centre = (taps - 1) / 2;
  const double span = factor * taps;
  for (std::int32_t phase = 0; phase < phases; ++phase) {
    double norm = 0;
    for (std::int32_t i = 0; i < taps; ++i) {
      const double distance = (i - centre) - static_cast<double>(phase) / phases;
      tap[static_cast<std::size_t>(i)] = WindowedSinc(distance * factor * kPi, span);
      norm += tap[static_cast<std::size_t>(i)];
    }
    Quantise(tap, norm, &bank[length * static_cast<std::size_t>(phase)]);
  }
  const auto last = bank.begin() + static_cast<std::ptrdiff_t>(length) * phases;
  std::copy_n(bank.begin(), length - 1, last + 1);
  *last = bank[length - 1];
  return bank;
}

namespace {

constexpr std::int32_t kMaxInt32 = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kMaxRate = 2097151;  // times 1024 phases it still fits 32 bits
constexpr std::int32_t kMaxPhaseShift = 15;
constexpr std::int32_t kMaxTaps = 16;  // from 20 on, a full-scale sum could leave 32 bits

std::int32_t CheckedRate(std::int32_t rate, const char* which) {
  if (rate < 1 || rate > kMaxRate) {
    throw std::invalid_argument("AudioResampler: the " + std::string(which) + " rate is " +
                                std::to_string(rate) + "; give 1 to " + std::to_string(kMaxRate) +
                                " samples per second");
  }
  return rate;
}

std::int32_t CheckedPhaseShift(std::int32_t phaseShift) {
  if (phaseShift < 0 || phaseShift > kMaxPhaseShift) {
    throw std::invalid_argument("AudioResampler: the phase shift is " + std::to_string(phaseShift) +
                                "; give 0 to " + std::to_string(kMaxPhaseShift));
  }
  return phaseShift;
}

// When the rate goes down, the pass band narrows, and a filter needs more taps.
double BandFactor(std::int32_t outputRate, std::int32_t inputRate) {
  return std::min(static_cast<double>(outputRate) / inputRate, 1.0);
}

std::int32_t FilterLength(double factor, const ResamplingQuality& quality) {
  if (quality.taps < 1 || quality.taps > kMaxTaps) {
    throw std::invalid_argument("AudioResampler: " + std::to_string(quality.taps) +
                                " taps; give 1 to " + std::to_string(kMaxTaps));
  }
  const double length = std::max(std::ceil(quality.taps / factor), 1.0);
  if (length * ((1 << quality.phaseShift) + 1) > kMaxInt32) {
    throw std::invalid_argument("AudioResampler: a rate factor of " + std::to_string(factor) +
                                " needs too large a filter bank; bring the rates closer together");
  }
  return static_cast<std::int32_t>(length);
}

std::int32_t Step(std::int32_t inputRate, std::int32_t phaseShift) {
  const std::int64_t step = std::int64_t{inputRate} << phaseShift;
  if (step > kMaxInt32) {
    throw std::invalid_argument("AudioResampler: an input rate of " + std::to_string(inputRate) +
                                " is too high for " + std::to_string(1 << phaseShift) + " phases");
  }
  return static_cast<std::int32_t>(step);
}

// A position in the signal that advances by a fraction of integers, without rounding. All 64-bit:
// the position in a source of 2^31 samples needs more than 32.
struct Cursor {
  explicit Cursor(const ResamplingContext& context)
      : place(context.index),
        frac(context.frac),
        denominator(context.srcIncr),
        step(context.dstIncr / context.srcIncr),
        stepFrac(context.dstIncr % context.srcIncr) {}

  void SetStep(std::int32_t increment) {
    step = increment / denominator;
    stepFrac = increment % denominator;
  }
  std::int64_t Increment() const { return step * denominator + stepFrac; }

  void Advance() {
    frac += stepFrac;
    place += step;
    if (frac >= denominator) {
      frac -= denominator;
      ++place;
    }
  }
  void Advance(std::int64_t count) {
    frac += count * stepFrac;
    place += count * step + frac / denominator;
    frac %= denominator;
  }

  std::int64_t place;
  std::int64_t frac;
  std::int64_t denominator;
  std::int64_t step;
  std::int64_t stepFrac;
};

std::int16_t ToSample(std::int32_t sum) {
  return static_cast<std::int16_t>(std::clamp((sum + kFilterScale / 2) >> 15, -32768, 32767));
}

// One call's source, as one channel.
struct Source {
  std::int32_t operator[](std::int64_t i) const { return samples[i * stride]; }

  const std::int16_t* samples;
  std::int64_t count;
  std::ptrdiff_t stride;
};

// Before the first sample the signal is its own mirror image.
std::int32_t MirroredSum(const Source& source, std::int64_t first, const std::int16_t* coefficients,
                         std::int32_t taps) {
  std::int32_t sum = 0;
  for (std::int32_t i = 0; i < taps; ++i) {
    sum += source[std::abs(first + i) % source.count] * coefficients[i];
  }
  return sum;
}

std::int32_t StridedSum(const Source& source, std::int64_t first, const std::int16_t* coefficients,
                        std::int32_t taps) {
  std::int32_t sum = 0;
  for (std::int32_t i = 0; i < taps; ++i) {
    sum += source[first + i] * coefficients[i];
  }
  return sum;
}

// With one tap and one phase there is nothing to filter: each output is the source sample at or
// before its position.
std::int32_t PickSamples(const ResamplingContext& context, Cursor& cursor, std::int16_t* dst,
                         const Source& source, std::int32_t dstCapacity) {
  const std::int64_t reach = (source.count - cursor.place - 1) * context.srcIncr / context.dstIncr;
  const std::int64_t written = std::clamp<std::int64_t>(reach, 0, std::max(dstCapacity, 0));
  const std::int64_t ratio = (std::int64_t{context.dstIncr} << 32) / context.srcIncr;
  for (std::int64_t k = 0; k < written; ++k) {
    dst[k * source.stride] =
        static_cast<std::int16_t>(source[((cursor.place << 32) + k * ratio) >> 32]);
  }
  cursor.Advance(written);
  return static_cast<std::int32_t>(written);
}

// One run of outputs at one step: from output `written` on, up to output `limit` or to the first
// one whose filter begins at source sample `end` or later. Returns the number of outputs then.
template <typename SumOf>
std::int32_t FilterRun(const ResamplingContext& context, Cursor& at, std::int16_t* dst,
                       const Source& source, std::int32_t written, std::int32_t limit,
                       std::int64_t end, SumOf sumOf) {
  const std::int16_t* const bank = context.filterBank.data();
  Cursor cursor = at;  // a local one stays in registers
  for (; written < limit; ++written) {
    const std::int64_t first = cursor.place >> context.phaseShift;
    if (first >= end) {
      break;
    }
    const std::int64_t phase = cursor.place & context.phaseMask;
    dst[written * source.stride] =
        ToSample(sumOf(first, bank + phase * context.filterLength, cursor));
    cursor.Advance();
  }
  at = cursor;
  return written;
}

// The run over whole filters, with the sum that fits the source.
std::int32_t FilterWhole(const ResamplingContext& context, Cursor& cursor, std::int16_t* dst,
                         const Source& source, std::int32_t written, std::int32_t limit) {
  const std::int32_t taps = context.filterLength;
  const auto run = [&](auto sumOf) {
    return FilterRun(context, cursor, dst, source, written, limit, source.count - taps + 1, sumOf);
  };
  const auto runWith = [&](auto sumOf) {
    if (!context.linear) {
      return run([=](std::int64_t first, const std::int16_t* coefficients, const Cursor&) {
        return sumOf(first, coefficients);
      });
    }
    // A sum of interpolated coefficients is the interpolated value of two sums.
    return run([=](std::int64_t first, const std::int16_t* coefficients, const Cursor& at) {
      const std::int64_t weight = at.frac * 256 / at.denominator;  // of the next filter, in 256ths
      const std::int64_t sum =
          sumOf(first, coefficients) * (256 - weight) + sumOf(first, coefficients + taps) * weight;
      return static_cast<std::int32_t>(sum >> 8);
    });
  };
  if (source.stride != 1) {
    return runWith([=](std::int64_t first, const std::int16_t* coefficients) {
      return StridedSum(source, first, coefficients, taps);
    });
  }
  const std::int16_t* const samples = source.samples;
  if (taps == 16) {  // most streams: a constant length unrolls the sum
    return runWith([=](std::int64_t first, const std::int16_t* coefficients) {
      return InnerProduct(samples + first, coefficients, 16);
    });
  }
  return runWith([=](std::int64_t first, const std::int16_t* coefficients) {
    return InnerProduct(samples + first, coefficients, taps);
  });
}

// left counts down a compensation: at its end the ideal step applies again, and left is 0.
std::int32_t FilterSamples(const ResamplingContext& context, Cursor& cursor, std::int32_t& left,
                           std::int16_t* dst, const Source& source, std::int32_t dstCapacity) {
  std::int32_t written = 0;
  for (;;) {
    const std::int32_t limit = left > 0 ? std::min(left, dstCapacity) : dstCapacity;
    if (source.count > 0) {
      written = FilterRun(context, cursor, dst, source, written, limit, 0,
                          [&](std::int64_t first, const std::int16_t* coefficients, const Cursor&) {
                            return MirroredSum(source, first, coefficients, context.filterLength);
                          });
    }
    written = FilterWhole(context, cursor, dst, source, written, limit);
    if (left == 0 || written < left) {
      break;
    }
    cursor.SetStep(context.idealDstIncr);
    left = 0;
  }
  left = left > 0 ? left - written : 0;
  return written;
}

}  // namespace

ResamplingContext::ResamplingContext(std::int32_t outputRate, std::int32_t inputRate,
                                     const ResamplingQuality& quality)
    : idealDstIncr(Step(CheckedRate(inputRate, "input"), CheckedPhaseShift(quality.phaseShift))),
      dstIncr(idealDstIncr),
      srcIncr(CheckedRate(outputRate, "output")),
      phaseShift(quality.phaseShift),
      phaseMask((1 << quality.phaseShift) - 1),
      linear(quality.linear) {
  const double factor = BandFactor(outputRate, inputRate);
  filterLength = FilterLength(factor, quality);
  filterBank = BuildFilter(factor, filterLength, 1 << phaseShift);
  index = -(1 << phaseShift) * ((filterLength - 1) / 2);
}

AudioResampler::~AudioResampler() = default;

void AudioResampler::Init(std::int32_t outputRate, std::int32_t inputRate,
                          const ResamplingQuality& quality) {
  context_ = std::make_unique<ResamplingContext>(outputRate, inputRate, quality);
  inputRate_ = inputRate;
  outputRate_ = outputRate;
  stride_ = 1;
}

ResamplingContext& AudioResampler::RequireContext(const char* operation) const {
  if (context_ == nullptr) {
    throw std::logic_error(std::string("AudioResampler: ") + operation +
                           " before Init; give it the two rates first");
  }
  return *context_;
}

std::int32_t AudioResampler::Resample(std::int16_t* dst, const std::int16_t* src,
                                      std::int32_t& consumed, std::int32_t srcCount,
                                      std::int32_t dstCapacity, bool update) {
  ResamplingContext& context = RequireContext("Resample");
  const Source source{src, srcCount, stride_};
  Cursor cursor(context);
  std::int32_t left = context.compensationDistance;
  const bool picks = left == 0 && context.filterLength == 1 && context.phaseShift == 0;
  const std::int32_t written = picks
                                   ? PickSamples(context, cursor, dst, source, dstCapacity)
                                   : FilterSamples(context, cursor, left, dst, source, dstCapacity);

  const std::int64_t place = cursor.place;
  consumed = static_cast<std::int32_t>(std::max<std::int64_t>(place, 0) >> context.phaseShift);
  if (update) {
    context.frac = static_cast<std::int32_t>(cursor.frac);
    context.index = static_cast<std::int32_t>(place >= 0 ? place & context.phaseMask : place);
    context.dstIncr = static_cast<std::int32_t>(cursor.Increment());
    context.compensationDistance = left;
  }
  return written;
}

void AudioResampler::SetCompensation(std::int32_t sampleDelta, std::int32_t compensationDistance) {
  ResamplingContext& context = RequireContext("SetCompensation");
  if (compensationDistance == 0) {
    context.dstIncr = context.idealDstIncr;
    context.compensationDistance = 0;
    return;
  }
  // Outputs that the ideal step would have made of the same source.
  const std::int64_t ideal = std::int64_t{compensationDistance} - sampleDelta;
  const std::int64_t step =
      compensationDistance > 0 ? ideal * context.idealDstIncr / compensationDistance : 0;
  if (step < 1 || step > kMaxInt32) {
    throw std::invalid_argument("AudioResampler: " + std::to_string(compensationDistance) +
                                " samples cannot hide " + std::to_string(sampleDelta) +
                                "; give a distance greater than the delta");
  }
  context.dstIncr = static_cast<std::int32_t>(step);
  context.compensationDistance = compensationDistance;
}

void AudioResampler::SetStride(std::int32_t stride) {
  if (stride < 1) {
    throw std::invalid_argument("AudioResampler: the stride is " + std::to_string(stride) +
                                "; give 1 or more samples");
  }
  stride_ = stride;
}

}  // namespace qorp
