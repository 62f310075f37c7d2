#!/usr/bin/env python3
"""What a live wall of many small channels costs: decoding, composing and encoding on this machine.

Runs `tavrel run` over looped clips of the window's own size (so that nothing is scaled) and reports what
its status says and what the process used. Figures of a whole machine, not ratios: for finding its limit.
"""

import argparse
import json
import os
import pathlib
import resource
import subprocess
import tempfile

CLIPS = ["testsrc2=s={s}:r=25", "mandelbrot=s={s}:r=25:maxiter=100", "smptehdbars=s={s}:r=25,hue=h=36*t",
         "testsrc=s={s}:r=25", "life=s={s}:r=25:mold=10:ratio=0.3:seed=3", "gradients=s={s}:r=25:seed=5"]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--program", default="build/release/bin/tavrel")
    parser.add_argument("--channels", type=int, default=36)
    parser.add_argument("--columns", type=int, default=6)
    parser.add_argument("--window", default="512x288")
    parser.add_argument("--canvas", default="3840x2160")
    parser.add_argument("--seconds", type=float, default=20)
    parser.add_argument("--preset", help="encode with this preset of x264; nothing is encoded without it")
    arguments = parser.parse_args()
    width, height = map(int, arguments.window.split("x"))
    canvas_width, canvas_height = map(int, arguments.canvas.split("x"))
    rows = -(-arguments.channels // arguments.columns)
    step_x, step_y = canvas_width // arguments.columns, canvas_height // rows
    if step_x < width or step_y < height:
        parser.error("the windows do not fit on the canvas")

    with tempfile.TemporaryDirectory(prefix="tavrel-live-wall-") as name:
        folder = pathlib.Path(name)
        for i, clip in enumerate(CLIPS):
            subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", clip.format(s=arguments.window), "-f", "lavfi",
                            "-i", "sine=f=440", "-t", "6", "-c:v", "libx264", "-preset", "veryfast", "-g", "25", "-pix_fmt",
                            "yuv420p", "-c:a", "aac", "-ac", "2", folder / f"{i}.ts"], check=True)
        lines = ["[wall]", f"width = {canvas_width}", f"height = {canvas_height}"]
        for i in range(arguments.channels):
            x = i % arguments.columns * step_x // 2 * 2
            y = i // arguments.columns * step_y // 2 * 2
            lines += ["[[channel]]", f'source = "{i % len(CLIPS)}.ts"', f"window = [{x}, {y}, {width}, {height}]",
                      f"selected = {'true' if i in (1, 8) else 'false'}"]
        if arguments.preset:
            lines += ["[[output]]", 'url = "/dev/null"', 'format = "mpegts"', f'preset = "{arguments.preset}"']
        wall = folder / "wall.toml"
        wall.write_text("\n".join(lines) + "\n")
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        run = subprocess.run([arguments.program, "run", wall, "--json", "--seconds", str(arguments.seconds)],
                             stdout=subprocess.PIPE, text=True, check=True)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)

    events = [json.loads(line) for line in run.stdout.splitlines()]
    statuses = [event for event in events if event["event"] == "status"][3:]  # without the start
    if not statuses:
        parser.error("the run was too short")
    end = events[-1]
    cpu = after.ru_utime - before.ru_utime + after.ru_stime - before.ru_stime
    live = sum(channel["state"] == "live" for channel in statuses[-1]["channels"])
    print(f"{arguments.channels} channels of {arguments.window} on {arguments.canvas}, "
          f"{'encoded ' + arguments.preset if arguments.preset else 'not encoded'}, {os.cpu_count()} processors")
    print(f"  {live} live; {end['frames']} frames in {end['elapsed']:.1f} s, {end['late']} late, {end['no_free_buffer']} without a free buffer, "
          f"{sum(output['dropped'] for output in end['outputs'])} dropped by the output")
    print(f"  a frame is composed in {sum(s['compose_ms'] for s in statuses) / len(statuses):.2f} ms on average, "
          f"{max(s['longest_compose_ms'] for s in statuses):.1f} ms at most")
    print(f"  {cpu / end['elapsed']:.2f} processors used, {after.ru_maxrss / 1024:.0f} MB")


if __name__ == "__main__":
    main()
