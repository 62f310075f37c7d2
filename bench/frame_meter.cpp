// What it costs to find out whether a frame is black or frozen, compared with FFmpeg's two filters
// for that. Both look at a frozen frame, the case in which nothing can be left out, in turns and in
// processor time. The ratio counts.
#include "host/channel/video/frame_meter.h"

#include <vector>

#include <benchmark/benchmark.h>

#include "bench/frame_of.h"
#include "host/channel/video/frame_filter.h"

namespace {

constexpr int kBurst = 50;  // frames

template <typename Body>
bench::Nanoseconds TimeOfPicture(Body body) {
  const bench::Nanoseconds start = bench::Now();
  for (int i = 0; i < kBurst; ++i) {
    body();
  }
  return (bench::Now() - start) / kBurst;
}

void FrameMeter(benchmark::State& state) {
  bench::PictureRing ring(512, 288, 1, 1);
  const Yv12Picture picture = ring.At(0);
  host::FrameMeter meter({});

  const host::ffmpeg::Frame frame = bench::FrameOf(picture);
  host::FrameFilter filter(*frame, "blackdetect,freezedetect");
  std::int64_t pts = 0;

  std::vector<bench::Nanoseconds> ours;
  std::vector<bench::Nanoseconds> theirs;
  for (auto _ : state) {
    ours.push_back(TimeOfPicture([&] {
      benchmark::DoNotOptimize(meter.Measure(picture.Y(), picture.width, picture.height));
    }));
    theirs.push_back(TimeOfPicture([&] {
      host::ffmpeg::Frame given = host::ffmpeg::MakeFrame();
      host::ffmpeg::Check(av_frame_ref(given.get(), frame.get()), "cannot share", "a frame");
      given->pts = pts += 400'000;
      filter.Push(std::move(given), [](const host::ffmpeg::Frame&) {});
    }));
    state.SetIterationTime(ours.back() * kBurst / 1e9);
  }
  state.counters["ours_us"] = bench::Median(ours) / 1000;
  state.counters["filters_us"] = bench::Median(theirs) / 1000;
  state.counters["ratio"] = bench::Median(theirs) / bench::Median(ours);
}

BENCHMARK(FrameMeter)->UseManualTime();

}  // namespace
