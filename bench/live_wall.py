#!/usr/bin/env python3
"""What live walls do on this machine: which frames their outputs have, and which frames of their channels those show.

Runs `tavrel run` over looped clips whose frames are numbered, records the wall, and reads from the recording what
each channel showed. Figures of a whole machine, not ratios: for finding its limit. The clips are made of the files in
TAVREL_BENCH_MEDIA, otherwise of moving test pictures. The first channel is selected.

    small   36 channels of 512x288 on 3840x2160, in windows of their own size: nothing is scaled
    hd16    16 channels of 1920x1080, 6 Mb/s, on 1920x1080
    hd36    36 channels of 1280x720, 3 Mb/s, on 1920x1080
    udp9     9 channels of 1280x720, 3 Mb/s, over UDP, on 1920x1080
    twice9   9 channels of 1280x720 with 50 frames per second, 4 Mb/s, on 1920x1080; beside --decode full it shows what
             is saved by not decoding frames that the canvas does not show
"""

import argparse
import contextlib
import json
import os
import pathlib
import resource
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).parent))
import clips  # noqa: E402

RATE = 25
START = 3.0  # seconds in which the wall opens its channels and fills
#        channels, columns, source, bit rate, canvas, window
WALLS = {"small": (36, 6, "512x288", "700k", "3840x2160", "512x288"), "hd16": (16, 4, "1920x1080", "6M", "1920x1080", None),
         "hd36": (36, 6, "1280x720", "3M", "1920x1080", None), "udp9": (9, 3, "1280x720", "3M", "1920x1080", None),
         "twice9": (9, 3, "1280x720", "4M", "1920x1080", None)}
# Compiled again and again where the processors are to be busy.
BUSY = "#include <regex>\nbool F(const char* t) { return std::regex_match(t, std::regex(\"a+b\")); }\n"


def numbers(text):
    return tuple(map(int, text.split("x")))


def layout(channels, columns, canvas, window):
    """x, y, width, height of each window."""
    width, height = numbers(canvas)
    step_x, step_y = width // columns, height // -(-channels // columns)
    size = numbers(window) if window else (step_x // 2 * 2, step_y // 2 * 2)
    return [(i % columns * step_x // 2 * 2, i // columns * step_y // 2 * 2, *size) for i in range(channels)]


@contextlib.contextmanager
def senders(files, ports):
    processes = [subprocess.Popen(["ffmpeg", "-v", "error", "-re", "-stream_loop", "-1", "-i", file, "-c", "copy", "-f",
                                   "mpegts", f"udp://127.0.0.1:{port}?pkt_size=1316"]) for file, port in zip(files, ports)]
    try:
        yield
    finally:
        for process in processes:
            process.terminate()
            process.wait()


@contextlib.contextmanager
def busy(is_busy, folder):
    """A compiler for each processor, at normal priority."""
    source = folder / "busy.cpp"
    source.write_text(BUSY)
    command = f"while :; do c++ -O2 -c '{source}' -o /dev/null; done"
    processes = [subprocess.Popen(["sh", "-c", command], start_new_session=True)
                 for _ in range(os.cpu_count() if is_busy else 0)]
    try:
        yield
    finally:
        for process in processes:
            os.killpg(process.pid, 15)
            process.wait()


def shown(recording, canvas, windows):
    """For each frame of the recording, its time and the numbers that its windows show."""
    times = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v", "-show_entries", "frame=pts_time", "-of",
                            "csv=p=0", recording], stdout=subprocess.PIPE, text=True, check=True).stdout.split()
    width, height = (side // 4 for side in numbers(canvas))
    small = [tuple(side // 4 for side in window) for window in windows]
    with subprocess.Popen(["ffmpeg", "-v", "error", "-i", recording, "-map", "0:v", "-vsync", "passthrough", "-vf",
                           f"scale={width}:{height}:flags=area,format=gray", "-f", "rawvideo", "-"],
                          stdout=subprocess.PIPE) as decoder:
        for time in times:
            picture = memoryview(decoder.stdout.read(width * height))
            yield (float(time.strip(",")),
                   [clips.number_at(lambda y: picture[y * width:(y + 1) * width], *window) for window in small])


def channel_figures(recording, canvas, windows):
    """Of each channel, the share of its frames that were shown, and the longest time without a new one."""
    new, gap, last, since = [0] * len(windows), [0.0] * len(windows), [None] * len(windows), [START] * len(windows)
    first = time = None
    for time, seen in shown(recording, canvas, windows):
        first = time if first is None else first
        if time - first < START:
            continue
        for i, number in enumerate(seen):
            if number != last[i]:
                new[i] += 1
                last[i] = number
                since[i] = time
            gap[i] = max(gap[i], time - max(since[i], first + START))
    seconds = time - first - START
    return [count / (seconds * RATE) for count in new], gap


def run(arguments, folder):
    channels, columns, source, bitrate, canvas, window = WALLS[arguments.wall]
    windows = layout(channels, columns, canvas, window)
    is_udp = arguments.wall.startswith("udp")
    made = clips.make(pathlib.Path(arguments.clips or folder), source, RATE * (1 + arguments.wall.startswith("twice")), bitrate)
    files = [made[i % len(made)] for i in range(channels)]
    ports = range(arguments.port, arguments.port + channels)
    width, height = numbers(canvas)
    lines = ["[wall]", f"width = {width}", f"height = {height}"]
    for i, (file, port) in enumerate(zip(files, ports)):
        url = f"udp://127.0.0.1:{port}" if is_udp else file.resolve()
        lines += ["[[channel]]", f'source = "{url}"', f"window = {list(windows[i])}",
                  f"selected = {'true' if i == 0 else 'false'}"]
        lines += [f'decode = "{arguments.decode}"'] if arguments.decode else []
    recording = folder / "wall.ts"
    if arguments.preset:
        lines += ["[[output]]", f'url = "{recording}"', f'preset = "{arguments.preset}"']
    wall = folder / "wall.toml"
    wall.write_text("\n".join(lines) + "\n")
    with senders(files, ports) if is_udp else contextlib.nullcontext(), busy(arguments.busy, folder):
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        ran = subprocess.run([arguments.program, "run", wall, "--json", "--events", "--seconds", str(arguments.seconds)],
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
    if ran.returncode != 0:
        sys.exit(ran.stderr)
    events = [json.loads(line) for line in ran.stdout.splitlines()]
    if arguments.events:
        pathlib.Path(arguments.events).write_text(ran.stdout)
    cpu = after.ru_utime - before.ru_utime + after.ru_stime - before.ru_stime
    report(arguments, events, cpu, after)
    if arguments.preset:
        report_channels(recording, canvas, windows)


def report(arguments, events, cpu, usage):
    statuses = [event for event in events if event["event"] == "status"][3:]  # without the start
    if not statuses:
        sys.exit("the run was too short")
    end = events[-1]
    held = sum(event["event"] == "channel" and event["state"] in ("held", "lost") for event in events)
    changes = sum(event["event"] == "decoding" for event in events)
    steps = {}
    for channel in statuses[-1]["channels"]:
        step = channel.get("decoding", {}).get("step", "?")
        steps[step] = steps.get(step, 0) + 1
    print(f"{arguments.wall}, {'encoded ' + arguments.preset if arguments.preset else 'not encoded'}, {os.cpu_count()} processors"
          f"{' kept busy by compilers' if arguments.busy else ''}, load {os.getloadavg()[0]:.1f}")
    ticks = end["frames"] + end["late"] + end["no_free_buffer"]
    print(f"  {ticks} frames in {end['elapsed']:.1f} s: {end['late']} late, {end['no_free_buffer']} without a free buffer")
    for output in end["outputs"]:
        audio = output["audio"]
        print(f"  the output has {output['frames']} frames, {100 * output['frames'] / ticks:.2f} %; {output['dropped']} dropped; "
              f"{sum(track['packets'] for track in audio)} packets of audio, {sum(track['dropped'] for track in audio)} dropped, "
              f"{sum(track['left_out'] for track in audio)} left out")
    late = sum(channel["audio_too_late"] + channel["audio_too_early"] for channel in statuses[-1]["channels"])
    print(f"  channels: {held} times held or lost, {changes} changes of the step, {late} packets of audio too late or too early")
    print("  at the end " + ", ".join(f"{count} at {step}" for step, count in sorted(steps.items())))
    print(f"  a frame is composed in {sum(s['compose_ms'] for s in statuses) / len(statuses):.2f} ms on average, "
          f"{max(s['longest_compose_ms'] for s in statuses):.1f} ms at most; "
          f"{cpu / end['elapsed']:.2f} processors used, {usage.ru_maxrss / 1024:.0f} MB")


def report_channels(recording, canvas, windows):
    share, gap = channel_figures(recording, canvas, windows)
    others = share[1:]
    print(f"  the selected channel shows {100 * share[0]:.1f} % of its frames, the others {100 * min(others):.1f} to "
          f"{100 * max(others):.1f} %; longest without a new one: {gap[0]:.2f} s, {max(gap[1:]):.2f} s")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("wall", choices=WALLS, nargs="?", default="small")
    parser.add_argument("--program", default="build/release/bin/tavrel")
    parser.add_argument("--seconds", type=float, default=60)
    parser.add_argument("--preset", help="encode with this preset of x264; nothing is encoded without it")
    parser.add_argument("--busy", action="store_true", help="keep all processors busy with compilers meanwhile")
    parser.add_argument("--decode", help="the setting of all channels")
    parser.add_argument("--clips", help="keep the clips in this folder")
    parser.add_argument("--events", help="write what the wall said of itself to this file")
    parser.add_argument("--port", type=int, default=23500, help="the first one of the senders")
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="tavrel-live-wall-") as name:
        run(arguments, pathlib.Path(name))


if __name__ == "__main__":
    main()
