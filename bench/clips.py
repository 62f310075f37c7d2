#!/usr/bin/env python3
"""The clips that benchmarks decode: H.264 with audio, made by FFmpeg of real media or of moving test pictures.

Every frame carries its number as a row of black and white blocks across its middle, so that a recording of a
wall shows which frames it has shown.

    bench/clips.py FOLDER 1920x1080 25 6M    two clips of ten seconds in FOLDER, unless they are there
"""

import os
import pathlib
import subprocess
import sys

SECONDS = 10
BITS = 9  # of a frame's number: more than the frames of a clip
GENERATED = ["testsrc2=s={size}:r={rate},noise=alls=12:allf=t", "mandelbrot=s={size}:r={rate}:maxiter=200"]


def media():
    """The files of TAVREL_BENCH_MEDIA; without it the clips are generated."""
    folder = os.environ.get("TAVREL_BENCH_MEDIA")
    names = sorted(pathlib.Path(folder).iterdir()) if folder else []
    return [name for name in names if name.suffix in (".mp4", ".ts", ".webm", ".mkv", ".mov")]


def numbering():
    """Filters that draw the number of each frame."""
    row = "y=ih*7/16:h=ih/8:t=fill"
    boxes = [f"drawbox=x=iw*3/16:w=iw*{BITS}/16:{row}:color=black"]
    boxes += [f"drawbox=x=iw*{3 + bit}/16:w=iw/16:{row}:color=white:enable='mod(floor(n/{2 ** bit}),2)'"
              for bit in range(BITS)]
    return ",".join(boxes)


def number_at(row_of, x, y, width, height):
    """The number that a window of a grey picture shows; row_of gives a line of the picture."""
    line = row_of(y + height // 2)
    bits = (line[x + width * (2 * (3 + bit) + 1) // 32] > 120 for bit in range(BITS))
    return sum(1 << bit for bit, isSet in enumerate(bits) if isSet)


def make(folder, size, rate, bitrate, count=2, suffix="mp4"):
    """The paths of the clips, with a keyframe every two seconds."""
    folder.mkdir(parents=True, exist_ok=True)
    files = media()
    clips = []
    for i in range(count):
        origin = files[i % len(files)] if files else None
        clip = folder / f"{origin.stem if origin else 'generated'}-{i}-{size}-{rate}-{bitrate}.{suffix}"
        clips.append(clip)
        if clip.exists():
            continue
        picture = (["-stream_loop", "-1", "-i", origin] if origin
                   else ["-f", "lavfi", "-i", GENERATED[i % 2].format(size=size, rate=rate)])
        part = clip.with_suffix(".part." + suffix)
        subprocess.run(["ffmpeg", "-v", "error", "-y", *picture, "-f", "lavfi", "-i", f"sine=f={440 + 110 * i}:r=48000",
                        "-map", "0:v:0", "-map", "1:a", "-t", str(SECONDS),
                        "-vf", f"scale={size.replace('x', ':')},setsar=1,fps={rate},{numbering()}",
                        "-c:v", "libx264", "-preset", "medium", "-b:v", bitrate, "-maxrate", bitrate, "-bufsize", bitrate,
                        "-g", str(2 * rate), "-sc_threshold", "0", "-pix_fmt", "yuv420p", "-c:a", "aac", "-ac", "2", part],
                       check=True)
        part.rename(clip)
    return clips


if __name__ == "__main__":
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    for path in make(pathlib.Path(sys.argv[1]), sys.argv[2], int(sys.argv[3]), sys.argv[4]):
        print(path)
