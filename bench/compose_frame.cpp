// What drawing one frame of a mosaic costs, stage by stage, in copies of its windows: "copy" is
// memcpy of the same rows, measured between the frames. Every window has a label and a meter of two
// channels whose levels change with every frame; two windows are selected. A stage is what the
// frames get dearer by when it is drawn as well. "frame" is the median frame with everything, "new
// text" one in which all labels change their texts, "mean" of nine of the former and one of those.
//
//   compose_frame [--workload NAME] [--kernels NAME] [--frames N] [--runs N]
//   compose_frame --count-frames N    composes N frames and nothing else, for a profiler; all texts
//                                     change with every tenth
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "bench/mosaic.h"
#include "render/kernels/drawing_kernels.h"

namespace {

using bench::kStages;
using bench::Median;
using bench::Mosaic;
using bench::Nanoseconds;
using bench::Stage;

struct Options {
  std::string_view workload;
  int frames = 200;
  int runs = 7;
  int countFrames = 0;
};

// One run: what its frames cost, in medians of the copies between them.
struct Ratios {
  Nanoseconds copy = 0;
  std::array<double, kStages> stages{};
  double frame = 0;     // the median
  double changing = 0;  // the median of those in which every label's text changes
  double mean = 0;      // of all: one frame in ten changes the texts
};

Ratios Run(Mosaic& mosaic, int frames) {
  std::vector<Nanoseconds> copies;
  std::array<std::vector<Nanoseconds>, kStages> upTo;
  std::vector<Nanoseconds> changing;
  for (int i = 0; i < frames; ++i) {
    for (int stage = 0; stage < kStages; ++stage) {
      // A copy with each frame, so that both meet the machine in the same state.
      copies.push_back(mosaic.CopyRows());
      upTo[stage].push_back(mosaic.Compose(static_cast<Stage>(stage)));
    }
    if (i % 9 == 8) {
      mosaic.ChangeTexts();
      copies.push_back(mosaic.CopyRows());
      changing.push_back(mosaic.Compose());
    }
  }
  Ratios ratios;
  ratios.copy = Median(copies);
  Nanoseconds before = 0;
  for (int stage = 0; stage < kStages; ++stage) {
    const Nanoseconds median = Median(upTo[stage]);
    ratios.stages[stage] = (median - before) / ratios.copy;
    before = median;
  }
  ratios.frame = before / ratios.copy;
  ratios.changing = Median(changing) / ratios.copy;
  ratios.mean = 0.9 * ratios.frame + 0.1 * ratios.changing;
  return ratios;
}

void Measure(const bench::Workload& workload, const Options& options) {
  Mosaic mosaic(workload);
  if (options.countFrames > 0) {
    for (int i = 0; i < options.countFrames; ++i) {
      if (i % 10 == 9) {
        mosaic.ChangeTexts();
      }
      mosaic.Compose();
    }
    return;
  }
  for (int i = 0; i < 20; ++i) {  // touches every page and fills every cache
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
  const double frame = median([](const Ratios& run) { return run.frame; });
  std::printf(" %8.3f %8.2f %-4s %8.3f %8.3f\n", frame, workload.budget,
              frame <= workload.budget ? "ok" : "OVER",
              median([](const Ratios& run) { return run.changing; }),
              median([](const Ratios& run) { return run.mean; }));
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
  std::printf("%-4s %8s %10s %10s %10s %10s %8s %8s %-4s %8s %8s\n", "", "copy us", "windows",
              "labels", "selectors", "meters", "frame", "budget", "", "new text", "mean");
  for (const bench::Workload& workload : bench::kWorkloads) {
    if (options.workload.empty() || options.workload == workload.name) {
      Measure(workload, options);
    }
  }
  return 0;
}
