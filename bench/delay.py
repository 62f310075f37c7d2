#!/usr/bin/env python3
"""How long a frame takes from its source to the wall's output, and how far its audio is off.

A clip with a flash and a beep every three seconds is sent to a wall as a transport stream over UDP, and the wall's own
transport stream is received over UDP. The delay of a flash is the time from the last packet of its frame, as that is
sent, to the last packet of the composed frame that shows it, as the system receives it.

The work of sender and receiver is not measured: the clip is encoded before the wall starts, without reordering, and
each frame is sent whole at its time, with the audio muxed behind it; what the wall sends is stored with the
times at which the kernel received it, and decoded when the wall has ended.

Every minute the source stalls for three seconds: in turn its network stops, and what was sent meanwhile comes in a
burst, and its sender pauses and continues where it was. Flashes that are sent in a burst are not sent at their time and
do not count, nor do those of the first seconds, while the wall measures how early a source arrives.
"""

import argparse
import array
import json
import os
import pathlib
import select
import signal
import socket
import statistics
import struct
import subprocess
import tempfile
import threading
import time

PACKET = 188
RATE = 25
PERIOD = 3.0  # from one flash to the next, seconds
FLASH = 2  # frames
STALL = 3.0  # seconds
SO_TIMESTAMPNS = 35
SAMPLE_RATE = 48_000
SETTLING = 5.0  # seconds from the first packet that is received


def make_clip(path, seconds):
    every = int(PERIOD * RATE)
    video = (f"testsrc2=s=640x360:r={RATE},eq=brightness=-0.4:contrast=0.3,"
             f"drawbox=x=160:y=90:w=320:h=180:color=black:t=fill,"
             f"drawbox=x=160:y=90:w=320:h=180:color=white:t=fill:enable='lt(mod(n,{every}),{FLASH})'")
    audio = f"aevalsrc='if(lt(mod(t,{PERIOD}),{FLASH / RATE}),0.7*sin(2*PI*1000*t),0)':s={SAMPLE_RATE}"
    subprocess.run(["ffmpeg", "-y", "-v", "error", "-f", "lavfi", "-i", video, "-f", "lavfi", "-i", audio, "-t", str(seconds),
                    "-c:v", "libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-g", str(RATE), "-crf", "30",
                    "-pix_fmt", "yuv420p", "-c:a", "aac", "-b:a", "96k", "-muxdelay", "0", "-pes_payload_size", "0",
                    "-f", "mpegts", path], check=True)


def pid_of(packet):
    return (packet[1] & 0x1F) << 8 | packet[2]


def starts_pes(packet):
    return packet[1] & 0x40 != 0


def pes_of(packet):
    """The PES header in the first packet of a PES packet."""
    begin = 4 + (packet[4] + 1 if packet[3] & 0x20 else 0)
    return packet[begin:] if packet[begin:begin + 3] == b"\0\0\1" else None


def pts_of(pes):
    if pes[7] & 0x80 == 0:
        return None
    return ((pes[9] >> 1 & 7) << 30 | pes[10] << 22 | pes[11] >> 1 << 15 | pes[12] << 7 | pes[13] >> 1) / 90_000


def video_pid(data):
    for at in range(0, len(data), PACKET):
        packet = data[at:at + PACKET]
        pes = starts_pes(packet) and pes_of(packet)
        if pes and 0xE0 <= pes[3] <= 0xEF:
            return pid_of(packet)
    raise SystemExit("a transport stream without video")


class Sender(threading.Thread):
    """Sends each frame at its time, with everything up to the next frame."""

    def __init__(self, clip, port, stalls):
        super().__init__(daemon=True)
        self.data = clip.read_bytes()
        self.address = ("127.0.0.1", port)
        self.stalls = stalls
        self.flashes = []  # when they were sent, and whether that was their time

    def frames(self):
        video = video_pid(self.data)
        starts = [at for at in range(0, len(self.data), PACKET)
                  if starts_pes(self.data[at:at + 2]) and pid_of(self.data[at:at + 3]) == video]
        starts[0] = 0  # the tables
        return zip(starts, starts[1:])

    def run(self):
        video = video_pid(self.data)
        out = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        out.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 4 << 20)
        origin = time.time() + 0.1
        stall = 1
        for number, (begin, end) in enumerate(self.frames()):
            due = origin + number / RATE
            if self.stalls and number / RATE >= stall * 60 + 1:
                time.sleep(STALL)
                if stall % 2 == 0:
                    origin += STALL
                    due += STALL
                stall += 1
            late = time.time() - due
            if late < 0:
                time.sleep(-late)
            sent = None
            last = max(at for at in range(begin, end, PACKET) if pid_of(self.data[at:at + PACKET]) == video)
            for at in range(begin, end, 7 * PACKET):
                out.sendto(self.data[at:min(at + 7 * PACKET, end)], self.address)
                if at <= last < at + 7 * PACKET:
                    sent = time.time()
            if number % int(PERIOD * RATE) == 0:
                self.flashes.append((sent, sent - due < 0.02))


class Receiver(threading.Thread):
    """Stores datagrams with the times at which the kernel received them."""

    def __init__(self, port, path):
        super().__init__(daemon=True)
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8 << 20)
        self.socket.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
        self.socket.bind(("127.0.0.1", port))
        self.path = path
        self.times = []  # of each packet of the stream
        self.ended = threading.Event()

    def run(self):
        with open(self.path, "wb") as file:
            while not self.ended.is_set():
                if not select.select([self.socket], [], [], 0.2)[0]:
                    continue
                data, ancillary, _, _ = self.socket.recvmsg(65536, 64)
                seconds, nanoseconds = struct.unpack("qq", ancillary[0][2][:16])
                file.write(data)
                self.times += [seconds + nanoseconds / 1e9] * (len(data) // PACKET)


def frames_of(data, times):
    """When each frame's last packet came, in the order of the frames' timestamps."""
    video = video_pid(data)
    frames = []
    for number, at in enumerate(range(0, len(data) - PACKET + 1, PACKET)):
        packet = data[at:at + PACKET]
        if pid_of(packet) != video or packet[3] & 0x10 == 0:
            continue  # of another track, or a PCR alone
        if starts_pes(packet):
            frames.append([pts_of(pes_of(packet)), 0.0])
        if frames:
            frames[-1][1] = times[number] if times else 0.0
    return sorted(frames)


def decode(path, *arguments):
    return subprocess.run(["ffmpeg", "-v", "fatal", "-copyts", "-i", path, *arguments, "-"], stdout=subprocess.PIPE,
                          check=True).stdout


def flashes_of(path, frames):
    """The frames with which a flash begins."""
    luma = decode(path, "-map", "0:v:0", "-vf", "crop=iw/4:ih/4,scale=1:1:flags=area", "-fps_mode", "passthrough",
                  "-pix_fmt", "gray", "-f", "rawvideo")
    if len(luma) != len(frames):
        raise SystemExit(f"{path}: {len(frames)} frames came and {len(luma)} were decoded")
    return [frames[i] for i in range(1, len(luma)) if luma[i] > 128 >= luma[i - 1]]


def beeps_of(path):
    """The timestamps at which a beep begins."""
    samples = array.array("h")
    samples.frombytes(decode(path, "-map", "0:a:0", "-af", "aresample=async=1:min_hard_comp=0.002:first_pts=0", "-ac",
                             "1", "-ar", str(SAMPLE_RATE), "-f", "s16le"))
    beeps = []
    at = 0
    quiet = SAMPLE_RATE // 2
    while at < len(samples):
        if abs(samples[at]) > 6000:
            beeps.append(at / SAMPLE_RATE)
            at += quiet
        at += 1
    return beeps


def skews(flashes, beeps):
    """By how much the beep of each flash is later than the flash."""
    found = []
    for timestamp, _ in flashes:
        nearest = min(beeps, key=lambda beep: abs(beep - timestamp), default=None)
        if nearest is not None and abs(nearest - timestamp) < PERIOD / 4:
            found.append(nearest - timestamp)
    return found


def write_wall(path, arguments, source, output):
    alarms = ", ".join(f"{kind} = false" for kind in ("loss", "black", "freeze", "silence", "clipping"))
    width, height = arguments.canvas.split("x")
    lines = ["[wall]", f"width = {width}", f"height = {height}"]
    if arguments.delay:
        lines.append(f'delay = "{arguments.delay}"')
    lines += ["[control]", 'socket = ""', "[[channel]]", f'source = "udp://127.0.0.1:{source}"', f"window = [0, 0, {width}, {height}]", 'label = ""',
              f"alarm = {{ {alarms} }}", "audio = { meter = false }",
              "[[output]]", f'url = "udp://127.0.0.1:{output}"', f"low_delay = {str(arguments.low_delay).lower()}"]
    if arguments.preset:
        lines.append(f'preset = "{arguments.preset}"')
    path.write_text("\n".join(lines) + "\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--program", default="build/release/bin/tavrel")
    parser.add_argument("--minutes", type=float, default=1)
    parser.add_argument("--no-stalls", action="store_true", help="the source never stalls")
    parser.add_argument("--delay", help='of the wall, such as "0.2 s"')
    parser.add_argument("--low-delay", action="store_true", help="of the output")
    parser.add_argument("--preset", help="of the output's encoder")
    parser.add_argument("--canvas", default="640x360")
    parser.add_argument("--port", type=int, default=23710, help="and the next one")
    parser.add_argument("--keep", type=pathlib.Path, help="a folder for what was received")
    arguments = parser.parse_args()

    with tempfile.TemporaryDirectory(prefix="tavrel-delay-") as name:
        folder = arguments.keep or pathlib.Path(name)
        folder.mkdir(parents=True, exist_ok=True)
        clip, received, wall = folder / "clip.ts", folder / "received.ts", folder / "wall.toml"
        make_clip(clip, arguments.minutes * 60 + 20)
        write_wall(wall, arguments, arguments.port, arguments.port + 1)
        receiver = Receiver(arguments.port + 1, received)
        receiver.start()
        sender = Sender(clip, arguments.port, not arguments.no_stalls)
        sender.start()
        time.sleep(1)
        load = os.getloadavg()
        with open(folder / "events", "wb") as events:
            run = subprocess.Popen([arguments.program, "run", wall, "--json", "--seconds",
                                    str(arguments.minutes * 60)], stdout=events)
            run.wait()
        receiver.ended.set()
        receiver.join()
        data = received.read_bytes()
        flashes = flashes_of(received, frames_of(data, receiver.times))
        beeps = beeps_of(received)
        own = skews(flashes_of(clip, frames_of(clip.read_bytes(), None))[:20], beeps_of(clip))
        end = json.loads((folder / "events").read_text().splitlines()[-1])

    flashes = [flash for flash in flashes if flash[1] > receiver.times[0] + SETTLING]
    delays, counted = [], []
    for _, arrival in flashes:
        sent, is_regular = [flash for flash in sender.flashes if flash[0] < arrival][-1]
        counted.append(sent)
        if is_regular:
            delays.append((arrival - sent, arrival))
    due = sum(is_regular and counted[0] <= sent <= counted[-1] for sent, is_regular in sender.flashes)
    lip = [skew - statistics.median(own) for skew in skews(flashes, beeps)]
    ordered = sorted(delay for delay, _ in delays)
    print(f"delay {arguments.delay or 'by default'}, low_delay {'on' if arguments.low_delay else 'off'}, canvas "
          f"{arguments.canvas}, {arguments.minutes:g} minutes, "
          f"{'no stalls' if arguments.no_stalls else 'a stall every minute'}; load {load[0]:.1f} at the start, "
          f"{os.getloadavg()[0]:.1f} at the end, {os.cpu_count()} processors")
    print(f"  {end['frames']} frames, {end['late']} late; {due} flashes sent in time and {len(delays)} of them shown")
    if ordered:
        print(f"  delay: median {statistics.median(ordered):.3f} s, 95th percentile "
              f"{ordered[min(len(ordered) - 1, len(ordered) * 95 // 100)]:.3f} s, maximum {ordered[-1]:.3f} s")
    if lip:
        print(f"  audio against video: {min(lip) * 1000:+.0f} to {max(lip) * 1000:+.0f} ms over {len(lip)} beeps")
    if arguments.keep:
        (folder / "delays").write_text("".join(f"{at - receiver.times[0]:.2f} {delay:.3f}\n" for delay, at in delays))


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    main()
