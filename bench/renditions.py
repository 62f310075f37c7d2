#!/usr/bin/env python3
"""What reading the right rendition of HLS sources saves: CPU seconds for each frame, and bytes read.

Makes one clip in four sizes, serves it as a master playlist on this machine, and runs the same wall of windows
of 480x270 twice: over the master playlist, and over the playlist of the largest size. The ratio of the two is
the figure that counts; the second run reads what a wall without a choice of renditions would read.
"""

import argparse
import functools
import http.server
import json
import os
import pathlib
import subprocess
import tempfile
import threading

SIZES = [(1920, 1080, "5M"), (1280, 720, "2500k"), (854, 480, "1200k"), (426, 240, "500k")]


class Handler(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *arguments):
        pass


def make(folder, seconds, clip):
    source = ["-stream_loop", "-1", "-i", clip] if clip else ["-f", "lavfi", "-i", "testsrc2=s=1920x1080:r=25"]
    master = ["#EXTM3U"]
    for width, height, rate in SIZES:
        subprocess.run(["ffmpeg", "-v", "error", *source, "-f", "lavfi", "-i", "sine=f=440", "-map", "0:v:0", "-map", "1:a",
                        "-t", str(seconds), "-r", "25", "-vf", f"scale={width}:{height}", "-c:v", "libx264", "-preset", "veryfast", "-b:v",
                        rate, "-maxrate", rate, "-bufsize", rate, "-g", "50", "-pix_fmt", "yuv420p", "-c:a", "aac", "-f",
                        "hls", "-hls_time", "2", "-hls_list_size", "0", folder / f"{height}.m3u8"], check=True)
        bits = int(float(rate.replace("M", "e6").replace("k", "e3")))
        master += [f"#EXT-X-STREAM-INF:BANDWIDTH={bits},RESOLUTION={width}x{height}", f"{height}.m3u8"]
    (folder / "master.m3u8").write_text("\n".join(master) + "\n")


def run(arguments, folder, url):
    lines = ["[wall]", "width = 1920", "height = 1080", "[defaults]", 'decode = "full"']
    for i in range(arguments.channels):
        lines += ["[[channel]]", f'source = "{url}"', f"window = [{i % 4 * 480}, {i // 4 % 4 * 270}, 480, 270]", 'label = ""']
    wall = folder / "wall.toml"
    wall.write_text("\n".join(lines) + "\n")
    command = ["render", wall, "--snapshot", folder / "last.png", "--overwrite"] if arguments.render else ["run", wall]
    process = subprocess.Popen([arguments.program, *command, "--json", "--seconds", str(arguments.seconds)],
                               stdout=subprocess.PIPE, text=True)
    events = [json.loads(line) for line in process.stdout]
    _, _, usage = os.wait4(process.pid, 0)
    statuses = [event for event in events if event.get("event") == "status"] or events
    channels = statuses[-1].get("channels", [])
    cpu = (usage.ru_utime + usage.ru_stime) / events[-1]["frames"]
    size = channels[0].get("rendition", {}) if channels else {}
    read = [channel.get("bytes_read", 0) for channel in channels] or [0]
    live = sum(channel.get("state") == "live" for channel in channels)
    print(f"  {cpu * 1000:6.1f} ms of CPU a frame; {events[-1]['frames']} frames, {events[-1].get('late', 0)} late; {live} live; "
          f"read for each source {min(read) / 1e6:.1f} to {max(read) / 1e6:.1f} MB"
          + (f"; {size['width']}x{size['height']}" if size else ""))
    return cpu


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--program", default="build/release/bin/tavrel")
    parser.add_argument("--channels", type=int, default=16)
    parser.add_argument("--seconds", type=float, default=20)
    parser.add_argument("--render", action="store_true", help="as fast as the machine can, for one that is too small or busy "
                        "to run the larger wall live; says nothing of the bytes")
    parser.add_argument("--clip", help="a clip to make the renditions of, instead of a test picture")
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="tavrel-renditions-") as name:
        folder = pathlib.Path(name)
        make(folder, arguments.seconds + (2 if arguments.render else 10), arguments.clip)
        handler = functools.partial(Handler, directory=name)
        with http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler) as server:
            threading.Thread(target=server.serve_forever, daemon=True).start()
            address = f"http://127.0.0.1:{server.server_address[1]}"
            print("the right rendition:")
            right = run(arguments, folder, f"{address}/master.m3u8")
            print("the largest:")
            largest = run(arguments, folder, f"{address}/{SIZES[0][1]}.m3u8")
            server.shutdown()
    print(f"ratio {right / largest:.2f}")


if __name__ == "__main__":
    main()
