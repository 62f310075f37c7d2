// What drawing one frame of a mosaic costs, stage by stage, in copies of its windows: "copy" is
// memcpy of the same rows, measured on the frames between. Every window has a label and a meter of
// two channels whose levels change with every frame; two windows are selected.
//
//   compose_frame [--workload NAME] [--kernels NAME] [--frames N] [--runs N]
//   compose_frame --count-frames N    composes N frames and nothing else, for a profiler
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "bench/mosaic.h"
#include "render/kernels/drawing_kernels.h"
#include "render/meter_drawer.h"
#include "render/selector_drawer.h"

namespace {

using Clock = std::chrono::steady_clock;
using Nanoseconds = double;

enum Stage { kCopy, kLabels, kSelectors, kMeters, kStages };
constexpr std::array<std::string_view, kStages> kStageNames{"copy", "labels", "selectors",
                                                            "meters"};

struct FrameTimes {
  std::array<Nanoseconds, kStages> stages{};
  Nanoseconds total = 0;
};

Nanoseconds Between(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<Nanoseconds, std::nano>(to - from).count();
}

// The stages are functions of their own, so that a profiler can count their instructions.
#define TAVREL_STAGE [[gnu::noinline]]

class Mosaic {
 public:
  explicit Mosaic(const bench::Workload& workload)
      : workload_(workload), canvases_(workload.canvasWidth, workload.canvasHeight, 4, 1) {
    for (std::int32_t i = 0; i < workload.Windows(); ++i) {
      sources_.emplace_back(workload.windowWidth, workload.windowHeight, 3, 2 + i);
      labels_.push_back(bench::MakeLabel(workload, 10 + i % 8));
      levels_.push_back({0.3f, 0.4f});
    }
  }

  // The reference: the windows' rows and nothing else.
  Nanoseconds CopyRows() {
    const Yv12Picture canvas = canvases_.At(frame_);
    const Clock::time_point start = Clock::now();
    for (std::int32_t i = 0; i < workload_.Windows(); ++i) {
      const Yv12Picture source = sources_[i].At(frame_);
      const std::int32_t x = workload_.X(i);
      const std::int32_t y = workload_.Y(i);
      CopyPlane(source.Y(), source.width, source.height, canvas.Y() + y * canvas.width + x,
                canvas.width);
      const std::ptrdiff_t at = ChromaIndex(x, y, canvas.width);
      CopyPlane(source.V(), source.width / 2, source.height / 2, canvas.V() + at, canvas.width / 2);
      CopyPlane(source.U(), source.width / 2, source.height / 2, canvas.U() + at, canvas.width / 2);
    }
    const Clock::time_point end = Clock::now();
    ++frame_;
    return Between(start, end);
  }

  FrameTimes Compose() {
    FrameTimes times;
    const Yv12Picture canvas = canvases_.At(frame_);
    ChangeLevels();
    const Clock::time_point start = Clock::now();
    Clock::time_point last = start;
    const auto lap = [&](Stage stage) {
      const Clock::time_point now = Clock::now();
      times.stages[stage] += Between(last, now);
      last = now;
    };
    for (std::int32_t i = 0; i < workload_.Windows(); ++i) {
      CopyWindow(canvas, i);
      lap(kCopy);
      BlendLabel(canvas, i);
      lap(kLabels);
    }
    DrawSelector(canvas, 0);
    DrawSelector(canvas, workload_.Windows() / 2);
    lap(kSelectors);
    for (std::int32_t i = 0; i < workload_.Windows(); ++i) {
      DrawMeter(canvas, i);
    }
    lap(kMeters);
    times.total = Between(start, last);
    ++frame_;
    return times;
  }

 private:
  static void CopyPlane(const std::uint8_t* from, std::int32_t width, std::int32_t rows,
                        std::uint8_t* to, std::int32_t stride) {
    for (std::int32_t row = 0; row < rows; ++row) {
      std::memcpy(to, from, static_cast<std::size_t>(width));
      from += width;
      to += stride;
    }
  }

  void ChangeLevels() {
    for (std::size_t i = 0; i < levels_.size(); ++i) {
      const auto phase = static_cast<float>(frame_ * (i + 1));
      levels_[i] = {0.5f + 0.45f * std::sin(phase * 0.37f), 0.3f + 0.25f * std::sin(phase * 0.73f)};
    }
  }

  TAVREL_STAGE void CopyWindow(const Yv12Picture& canvas, std::int32_t window) {
    const Yv12Picture source = sources_[window].At(frame_);
    CopyPictureClipped(source.data, source.width, source.height, canvas, workload_.X(window),
                       workload_.Y(window));
  }
  TAVREL_STAGE void BlendLabel(const Yv12Picture& canvas, std::int32_t window) {
    BlendOverlay(labels_[window], workload_.X(window),
                 workload_.Y(window) + workload_.windowHeight + workload_.FontSize() / 4, canvas);
  }
  TAVREL_STAGE void DrawSelector(const Yv12Picture& canvas, std::int32_t window) {
    const std::int32_t t = canvas.height / 150;
    const std::int32_t x = workload_.X(window);
    const std::int32_t y = workload_.Y(window);
    const std::int32_t w = workload_.windowWidth;
    const std::int32_t h = workload_.windowHeight;
    const auto bar = [&](std::int32_t left, std::int32_t top, std::int32_t width,
                         std::int32_t height) {
      DrawSelectorBar(canvas.data, canvas.width, canvas.height, left, top, width, height);
    };
    bar(x, y, w, t);
    bar(x, y + h - t, w, t);
    bar(x, y, t, h);
    bar(x + w - t, y, t, h);
  }
  TAVREL_STAGE void DrawMeter(const Yv12Picture& canvas, std::int32_t window) {
    static constexpr std::array kPeaks{0.9f, 0.6f};
    meters_.Draw(canvas, workload_.X(window), workload_.Y(window), workload_.windowWidth / 10,
                 workload_.windowHeight, levels_[window], kPeaks, window % 8 == 0);
  }

  const bench::Workload& workload_;
  bench::PictureRing canvases_;
  std::vector<bench::PictureRing> sources_;
  std::vector<Yv12Overlay> labels_;
  std::vector<std::array<float, 2>> levels_;
  MeterDrawer meters_;
  std::size_t frame_ = 0;
};

Nanoseconds Median(std::vector<Nanoseconds> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

struct Options {
  std::string_view workload;
  int frames = 200;
  int runs = 7;
  int countFrames = 0;
};

// The ratios of one run: medians over its frames, in medians of the copies between them.
struct Ratios {
  Nanoseconds copy = 0;
  std::array<double, kStages> stages{};
  double total = 0;
};

Ratios Run(Mosaic& mosaic, int frames) {
  std::vector<Nanoseconds> copies;
  std::vector<Nanoseconds> totals;
  std::array<std::vector<Nanoseconds>, kStages> stages;
  for (int i = 0; i < frames; ++i) {
    copies.push_back(mosaic.CopyRows());
    const FrameTimes times = mosaic.Compose();
    totals.push_back(times.total);
    for (int stage = 0; stage < kStages; ++stage) {
      stages[stage].push_back(times.stages[stage]);
    }
  }
  Ratios ratios;
  ratios.copy = Median(copies);
  ratios.total = Median(totals) / ratios.copy;
  for (int stage = 0; stage < kStages; ++stage) {
    ratios.stages[stage] = Median(stages[stage]) / ratios.copy;
  }
  return ratios;
}

void Measure(const bench::Workload& workload, const Options& options) {
  Mosaic mosaic(workload);
  if (options.countFrames > 0) {
    for (int i = 0; i < options.countFrames; ++i) {
      mosaic.Compose();
    }
    return;
  }
  for (int i = 0; i < 20; ++i) {  // touches every page and fills every kept table
    mosaic.CopyRows();
    mosaic.Compose();
  }
  std::vector<Ratios> runs;
  for (int i = 0; i < options.runs; ++i) {
    runs.push_back(Run(mosaic, options.frames));
  }
  const auto median = [&](auto value) {
    std::vector<double> values;
    for (const Ratios& run : runs) {
      values.push_back(value(run));
    }
    return Median(values);
  };
  std::printf("%-4.*s %8.0f", static_cast<int>(workload.name.size()), workload.name.data(),
              median([](const Ratios& run) { return run.copy; }) / 1000);
  for (int stage = 0; stage < kStages; ++stage) {
    std::printf(" %10.3f", median([stage](const Ratios& run) { return run.stages[stage]; }));
  }
  const double total = median([](const Ratios& run) { return run.total; });
  std::printf(" %8.3f %8.2f %s\n", total, workload.budget, total <= workload.budget ? "" : "OVER");
}

int Usage() {
  std::fputs(
      "usage: compose_frame [--workload NAME] [--kernels NAME] [--frames N] [--runs N]\n"
      "       compose_frame [--workload NAME] [--kernels NAME] --count-frames N\n"
      "kernels:",
      stderr);
  for (const kernels::DrawingKernels* version : kernels::AllKernels()) {
    std::fprintf(stderr, " %s", version->name);
  }
  std::fputs("\n", stderr);
  return 64;
}

bool Choose(std::string_view name) {
  for (const kernels::DrawingKernels* version : kernels::AllKernels()) {
    if (name == version->name) {
      kernels::UseKernels(*version);
      return true;
    }
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; i += 2) {
    const std::string_view name = argv[i];
    if (i + 1 == argc) {
      return Usage();
    }
    if (name == "--workload") {
      options.workload = argv[i + 1];
    } else if (name == "--frames") {
      options.frames = std::max(std::atoi(argv[i + 1]), 1);
    } else if (name == "--runs") {
      options.runs = std::max(std::atoi(argv[i + 1]), 1);
    } else if (name == "--count-frames") {
      options.countFrames = std::max(std::atoi(argv[i + 1]), 1);
    } else if (name != "--kernels" || !Choose(argv[i + 1])) {
      return Usage();
    }
  }
  std::printf("kernels %s, %d runs of %d frames; medians, stages in copies of the windows\n",
              kernels::CurrentKernels().name, options.runs, options.frames);
  std::printf("%-4s %8s %10s %10s %10s %10s %8s %8s\n", "", "copy us", "windows", "labels",
              "selectors", "meters", "frame", "budget");
  for (const bench::Workload& workload : bench::kWorkloads) {
    if (options.workload.empty() || options.workload == workload.name) {
      Measure(workload, options);
    }
  }
  return 0;
}
