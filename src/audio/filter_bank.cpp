#include "audio/filter_bank.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

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

}  // namespace qorp
