#!/usr/bin/env python3
"""A wall of nine live channels whose senders are killed, stalled, changed and disturbed.

Senders of FFmpeg's tools send small clips over loopback (UDP, RTP, and SRT from both sides) through
relays that can drop and damage packets, to `tavrel run`, whose status and events are read. A seeded
script for each channel does the harm. The verdict:

  frames    every tick of the wall's clock gave a frame or was counted as late or starved
  return    each channel is live again within the limit after the first packet of its source
  alarms    a lost, a frozen, a black and a silent channel raised their alarms in time
  memory    and descriptors of the wall's process do not grow
  end       the wall ends in good order, without a sanitizer's report
"""

import argparse
import dataclasses
import json
import os
import pathlib
import random
import re
import selectors
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

FRAME_RATE = 25
RETURN_LIMIT = 2.0  # seconds
SETTLED_AFTER = 1.5 # seconds that a channel stays live once it is back
ALARM_AFTER = 2     # seconds that a fault lasts before it is an alarm
ALARM_SLACK = 2.0   # seconds: the last good pictures are on their way when the source is back
FRAMES_ON_THEIR_WAY = 5  # sent and not composed yet, or between two readings of a status
GIVE_UP = 20.0      # a channel that is not back by then is counted as never back

VIDEO = "-c:v libx264 -preset ultrafast -tune zerolatency -g 25 -pix_fmt yuv420p"
CLIPS = {
    "plain": ("testsrc2=s=320x180:r=25", "sine=f=440", VIDEO + " -c:a aac -ac 2"),
    "large": ("testsrc2=s=640x360:r=30", "sine=f=880", VIDEO + " -c:a aac -ac 1"),
    "mpeg2": ("testsrc=s=352x288:r=25", "sine=f=330", "-c:v mpeg2video -g 12 -b:v 1M -c:a mp2 -ac 2"),
    "hevc": ("testsrc2=s=256x144:r=25", "sine=f=550",
             "-c:v libx265 -preset ultrafast -tune zerolatency -x265-params log-level=none:keyint=25 "
             "-c:a ac3 -ac 6"),
    "fast": ("testsrc2=s=160x90:r=100", "sine=f=660", VIDEO.replace("-g 25", "-g 100") + " -c:a mp2"),
    "still": ("smptebars=s=320x180:r=25", "sine=f=440",
              VIDEO + " -c:a aac -ac 2"),
    "black": ("color=black:s=320x180:r=25", "anullsrc", VIDEO + " -c:a aac -ac 2"),
}
MOVING = ["plain", "large", "mpeg2", "hevc", "fast"]
CLIP_SECONDS = 12


def make_clips(folder):
    for name, (video, audio, options) in CLIPS.items():
        command = ["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", video, "-f", "lavfi", "-i", audio,
                   "-t", str(CLIP_SECONDS), *options.split(), folder / f"{name}.ts"]
        subprocess.run(command, check=True)


class Relay:
    """Passes datagrams from one port to another and back, dropping and damaging some.

    What damages a datagram on its way is found by its checksum, and it is dropped: what arrives damaged was so
    before it was sent. So the control packets of SRT and all headers stay whole.
    """

    HEADERS = {"udp": 0, "rtp": 12, "srt": 16}

    def __init__(self, listen, target, seed, protocol):
        self.header = self.HEADERS[protocol]
        self.has_control = protocol == "srt"
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 21)
        self.socket.bind(("127.0.0.1", listen))
        self.socket.setblocking(False)
        self.target = ("127.0.0.1", target)
        self.back = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.back.bind(("127.0.0.1", 0))
        self.back.setblocking(False)
        self.peer = None
        self.random = random.Random(seed)
        self.loss = 0.0
        self.damage = 0.0
        self.lock = threading.Lock()
        self.latest = {False: 0.0, True: 0.0}  # time of the latest large packet, by direction
        self.first = None  # direction in which media goes; set with the first large packet
        self.waiting_since = None
        self.returned = threading.Event()
        self.returned_at = 0.0

    def expect_return(self):
        with self.lock:
            self.returned.clear()
            self.waiting_since = time.monotonic()

    def pass_on(self, forward):
        source = self.socket if forward else self.back
        for _ in range(64):
            try:
                data, sender = source.recvfrom(65536)
            except (BlockingIOError, ConnectionError):
                return
            if forward:
                self.peer = sender
            if len(data) > 600:  # media; connections and reports are smaller
                with self.lock:
                    if self.waiting_since is not None:
                        self.waiting_since = None
                        self.returned_at = time.monotonic()
                        self.returned.set()
            if self.random.random() < self.loss:
                continue
            control = self.has_control and data[0] & 0x80
            if self.random.random() < self.damage and not control and len(data) > self.header:
                data = bytearray(data)
                for _ in range(3):
                    data[self.random.randrange(self.header, len(data))] ^= 1 << self.random.randrange(8)
            try:
                if forward:
                    self.back.sendto(data, self.target)
                elif self.peer is not None:
                    self.socket.sendto(data, self.peer)
            except (BlockingIOError, ConnectionError):
                pass


class Relays(threading.Thread):
    """All relays, on one thread."""

    def __init__(self, relays):
        super().__init__(daemon=True)
        self.selector = selectors.DefaultSelector()
        self.ends = False
        for relay in relays:
            self.selector.register(relay.socket, selectors.EVENT_READ, (relay, True))
            self.selector.register(relay.back, selectors.EVENT_READ, (relay, False))

    def run(self):
        while not self.ends:
            for key, _ in self.selector.select(timeout=0.2):
                relay, forward = key.data
                relay.pass_on(forward)


class Sender(threading.Thread):
    """Keeps a sender running unless it is meant to be away."""

    def __init__(self, folder, url):
        super().__init__(daemon=True)
        self.folder, self.url = folder, url
        self.clip = "plain"
        self.lock = threading.Lock()
        self.process = None
        self.started_at = 0.0
        self.away = False
        self.ends = False

    def start_process(self):
        self.started_at = time.monotonic()
        self.process = subprocess.Popen(
            ["ffmpeg", "-v", "quiet", "-nostdin", "-re", "-stream_loop", "-1", "-i", self.folder / f"{self.clip}.ts",
             "-map", "0", "-c", "copy", "-f", "rtp_mpegts" if self.url.startswith("rtp:") else "mpegts", self.url],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def run(self):
        while not self.ends:
            with self.lock:
                gone = self.process is None or self.process.poll() is not None
                if gone and not self.away and not self.ends:
                    self.start_process()
            time.sleep(0.1)

    def kill(self):
        with self.lock:
            self.away = True
            if self.process is not None:
                self.process.kill()
                self.process.wait()

    def restart(self, clip):
        with self.lock:
            self.clip = clip
            self.away = False
            self.start_process()

    def send_signal(self, number):
        with self.lock:
            if self.process.poll() is None:
                self.process.send_signal(number)

    def end(self):
        self.ends = True
        self.kill()


class Wall:
    """The running wall: its process, its events and what it needs of the machine."""

    def __init__(self, command, environment, log, events):
        self.events = events   # file that keeps every event with the second it came at
        self.process = subprocess.Popen(command, env=environment, stdout=subprocess.PIPE, stderr=log,
                                        stdin=subprocess.DEVNULL, text=True)
        self.condition = threading.Condition()
        self.states = {}       # channel: (state, since when it is known)
        self.alarms = {}       # (channel, alarm): raised
        self.raised = {}       # alarm: how often
        self.statuses = []
        self.end_report = None
        self.samples = []      # (time, resident bytes, descriptors, threads)
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self):
        for line in self.process.stdout:
            self.events.write(f"{time.monotonic():.3f} {line}")
            try:
                event = json.loads(line)
            except ValueError:
                print("not JSON:", line.rstrip(), file=sys.stderr)
                continue
            with self.condition:
                if event["event"] == "channel":
                    self.states[event["channel"]] = (event["state"], time.monotonic())
                elif event["event"] == "alarm":
                    self.alarms[event["channel"], event["alarm"]] = event["raised"]
                    if event["raised"]:
                        self.raised[event["alarm"]] = self.raised.get(event["alarm"], 0) + 1
                elif event["event"] == "status":
                    self.statuses.append(event)
                elif event["event"] == "end":
                    self.end_report = event
                self.condition.notify_all()

    def state(self, channel):
        with self.condition:
            return self.states.get(channel, ("opening", 0.0))

    def wait(self, condition, limit):
        with self.condition:
            return self.condition.wait_for(condition, limit)

    def measure(self):
        folder = f"/proc/{self.process.pid}"
        try:
            pages = int(pathlib.Path(folder, "statm").read_text().split()[1])
            descriptors = len(os.listdir(folder + "/fd"))
            threads = len(os.listdir(folder + "/task"))
        except OSError:
            return
        self.samples.append((time.monotonic(), pages * os.sysconf("SC_PAGE_SIZE"), descriptors, threads))


@dataclasses.dataclass
class Harm:
    channel: str
    kind: str
    length: float
    back_after: float  # seconds; infinite: never
    clip: str = ""
    fault: str = ""
    alarmed_after: float = 0.0  # seconds that its alarms took once the channel was live
    at: float = dataclasses.field(default_factory=time.monotonic)  # when its outcome was known


class Script(threading.Thread):
    """What is done to one channel, by its own seed."""

    KINDS = ["kill", "stall", "change", "loss", "damage", "still", "black", "away"]

    def __init__(self, name, seed, wall, sender, relay, until):
        super().__init__(daemon=True)
        self.name_, self.random = name, random.Random(f"{seed}/{name}")
        self.wall, self.sender, self.relay, self.until = wall, sender, relay, until
        self.harms = []

    def run(self):
        kinds = []
        while True:
            if not kinds:
                kinds = self.random.sample(self.KINDS, len(self.KINDS))
            pause = self.random.uniform(3, 8)
            if time.monotonic() + pause + 15 > self.until:
                return
            time.sleep(pause)
            kind = kinds.pop()
            getattr(self, kind)()

    def back(self, kind, length, since=None):
        """Waits for the source's first packet, then for the live channel."""
        if since is None:
            if not self.relay.returned.wait(GIVE_UP):
                self.harms.append(Harm(self.name_, kind, length, float("inf"), self.sender.clip,
                                       "the source sent nothing"))
                return
            since = self.relay.returned_at
        live = lambda: self.wall.state(self.name_)[0] == "live"
        gone = lambda: not live()
        give_up = time.monotonic() + GIVE_UP
        while True:
            if not self.wall.wait(live, give_up - time.monotonic()):
                after = float("inf")
                break
            became = self.wall.state(self.name_)[1]
            # A source that goes on in another form is live until its old pictures are used up.
            if not self.wall.wait(gone, max(became, since) + SETTLED_AFTER - time.monotonic()):
                # A sender whose connection broke began anew later.
                since = max(since, min(self.sender.started_at, became))
                after = max(0.0, became - since)
                break
        self.harms.append(Harm(self.name_, kind, length, after, self.sender.clip))

    def kill(self, kind="kill", length=None, clip=None):
        length = length if length is not None else self.random.uniform(0.5, 4)
        self.sender.kill()
        time.sleep(length)
        self.relay.expect_return()
        self.sender.restart(clip or self.sender.clip)
        self.back(kind, length)

    def away(self):
        # Longer than reading may take and the picture is held: lost; and back with something else.
        self.kill("away", self.random.uniform(6, 9), self.random.choice(MOVING))

    def stall(self):
        length = self.random.uniform(0.5, 5)
        self.sender.send_signal(signal.SIGSTOP)
        time.sleep(length)
        self.relay.expect_return()
        self.sender.send_signal(signal.SIGCONT)
        self.back("stall", length)

    def change(self):
        self.kill("change", 0, self.random.choice(MOVING))

    def disturb(self, kind, loss, damage):
        length = self.random.uniform(2, 5)
        self.relay.loss, self.relay.damage = loss, damage
        time.sleep(length)
        self.relay.loss = self.relay.damage = 0
        self.back(kind, length, since=time.monotonic())

    def loss(self):
        self.disturb("loss", 0.1, 0)

    def damage(self):
        self.disturb("damage", 0, 0.1)

    def fault(self, clip, *alarms):
        self.kill(clip, 0, clip)
        harm, started = self.harms[-1], time.monotonic()
        for alarm in alarms:
            raised = lambda: self.wall.alarms.get((self.name_, alarm), False)
            left = started + ALARM_AFTER + RETURN_LIMIT + ALARM_SLACK - time.monotonic()
            if not self.wall.wait(raised, max(0.0, left)):
                harm.fault = f"no alarm of {alarm}"
        harm.alarmed_after = time.monotonic() - started
        self.sender.clip = "plain"
        time.sleep(max(0.0, started + 4 - time.monotonic()))
        self.kill("after " + clip, 0, "plain")

    def still(self):
        self.fault("still", "freeze")

    def black(self):
        self.fault("black", "black", "silence")  # the clip has neither light nor sound


def write_wall(path, channels):
    lines = ["[wall]", "width = 960", "height = 540", f"frame_rate = {FRAME_RATE}", "label_room = 0", "",
             "[defaults]", "hold = 3", "read_limit = 3",
             'alarm.loss = { after = 1, clear_after = 1 }',
             f'alarm.freeze = {{ after = {ALARM_AFTER}, clear_after = 1 }}',
             f'alarm.black = {{ after = {ALARM_AFTER}, clear_after = 1 }}',
             f'alarm.silence = {{ after = {ALARM_AFTER}, clear_after = 1 }}', ""]
    for name, url in channels:
        lines += ["[[channel]]", f'name = "{name}"', f'source = "{url}"', 'label = ""', ""]
    lines += ["[[output]]", 'url = "/dev/null"', 'format = "mpegts"', 'preset = "ultrafast"', "quality = 40", ""]
    path.write_text("\n".join(lines))


def flat(samples, index, slack):
    """The greatest value of the second and of the last quarter, and whether they are alike."""
    quarter = max(1, len(samples) // 4)
    early = max(sample[index] for sample in samples[quarter:2 * quarter] or samples)
    late = max(sample[index] for sample in samples[-quarter:])
    return early, late, late <= early + slack(early)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--program", default="build/release/bin/tavrel", help="the program under test")
    parser.add_argument("--minutes", type=float, default=5)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--return-limit", type=float, default=RETURN_LIMIT, help="seconds")
    parser.add_argument("--do-not-judge-memory", action="store_true",
                        help="resident memory is printed only: it is mostly not the program's own")
    parser.add_argument("--keep", type=pathlib.Path, help="folder that keeps the wall file and the messages")
    arguments = parser.parse_args()

    folder = pathlib.Path(tempfile.mkdtemp(prefix="tavrel-soak-"))
    log_path, events_path = folder / "messages.log", folder / "events.log"
    make_clips(folder)

    names, relays, senders, channels = [], [], [], []
    base = 20000 + arguments.seed % 1000 * 20
    for i in range(9):
        name = f"{'udp' if i < 3 else 'rtp' if i < 5 else 'listener' if i < 7 else 'caller'}-{i + 1}"
        near, far = base + 2 * i, base + 2 * i + 1  # the sender's side of the relay, the wall's side
        if i < 5:
            protocol = "udp" if i < 3 else "rtp"
            sender, source = f"{protocol}://127.0.0.1:{near}?pkt_size=1316", f"{protocol}://127.0.0.1:{far}"
            relay = Relay(near, far, arguments.seed * 100 + i, protocol)
        elif i < 7:
            sender = f"srt://127.0.0.1:{near}?mode=caller&pkt_size=1316"
            source = f"srt://127.0.0.1:{far}?mode=listener"
            relay = Relay(near, far, arguments.seed * 100 + i, "srt")
        else:
            sender = f"srt://127.0.0.1:{near}?mode=listener&pkt_size=1316"
            source = f"srt://127.0.0.1:{far}?mode=caller"
            relay = Relay(far, near, arguments.seed * 100 + i, "srt")
        names.append(name)
        relays.append(relay)
        senders.append(Sender(folder, sender))
        channels.append((name, source))
    wall_path = folder / "wall.toml"
    write_wall(wall_path, channels)

    environment = dict(os.environ)
    command = [arguments.program, "run", wall_path, "--json", "--events"]
    pump = Relays(relays)
    pump.start()
    with open(log_path, "w") as log, open(events_path, "w") as events:
        wall = Wall([str(part) for part in command], environment, log, events)
        for sender in senders:
            sender.start()
        all_live = lambda: all(wall.states.get(name, ("",))[0] == "live" for name in names)
        if not wall.wait(all_live, 60):
            print("not all channels came up:", {name: wall.state(name)[0] for name in names})
        until = time.monotonic() + arguments.minutes * 60
        scripts = [Script(name, arguments.seed, wall, sender, relay, until)
                   for name, sender, relay in zip(names, senders, relays)]
        for script in scripts:
            script.start()
        while any(script.is_alive() for script in scripts) and wall.process.poll() is None:
            wall.measure()
            time.sleep(2)
        died = wall.process.poll() is not None
        if not died:
            wall.process.send_signal(signal.SIGTERM)
        try:
            code = wall.process.wait(60)
        except subprocess.TimeoutExpired:
            wall.process.kill()
            code = "none: it did not end within a minute"
        wall.reader.join(10)
        for sender in senders:
            sender.end()
        pump.ends = True

    faults = []
    messages = log_path.read_text(errors="replace")

    # Frames.
    # A machine that stood for some seconds counts what it missed when it goes on: the count may be off for a
    # moment, but it comes back to the clock.
    off = [abs(s["frames"] + s["late"] + s["starved"] - s["clock"] * FRAME_RATE) for s in wall.statuses]
    worst = max((min(off[i:i + 5]) for i in range(max(1, len(off) - 4))), default=float("inf")) if off else float("inf")
    worst = max(worst, off[-1]) if off else worst
    last = wall.statuses[-1] if wall.statuses else {}
    print(f"frames: {last.get('frames')} composed, {last.get('late')} late, {last.get('starved')} starved in "
          f"{last.get('clock')} s; the count stays off the clock by {worst:.1f} frames at most")
    if worst > FRAMES_ON_THEIR_WAY:
        faults.append("frames are missing that were not counted as late")
    longest = max((s["longest_compose_ms"] for s in wall.statuses), default=0)
    mean = sum(s["compose_ms"] for s in wall.statuses) / max(1, len(wall.statuses))
    print(f"composing: {mean:.2f} ms on average, {longest:.1f} ms at most; "
          f"{last.get('dropped')} frames dropped by the output")

    # Returns.
    harms = [harm for script in scripts for harm in script.harms]
    slow = [harm for harm in harms if harm.back_after > arguments.return_limit]
    for kind in sorted({harm.kind for harm in harms}):
        after = sorted(harm.back_after for harm in harms if harm.kind == kind)
        print(f"{kind}: {len(after)} times, back after {after[len(after) // 2]:.2f} s in the middle, "
              f"{after[-1]:.2f} s at most")
    for harm in slow:
        print(f"  slow: {harm.channel} {harm.kind} of {harm.length:.1f} s with {harm.clip}: back after {harm.back_after:.2f} s"
              + (f" ({harm.fault})" if harm.fault else ""))
    if slow:
        faults.append(f"{len(slow)} of {len(harms)} returns took longer than {arguments.return_limit} s")
    if not harms:
        faults.append("nothing was done to the channels")

    # Alarms.
    unraised = [harm for harm in harms if harm.fault.startswith("no alarm")]
    print(f"alarms raised: {dict(sorted(wall.raised.items()))}; of a frozen, black or silent channel "
          f"{max((harm.alarmed_after for harm in harms), default=0):.2f} s at most after it was live, {ALARM_AFTER} s set")
    for harm in unraised:
        faults.append(f"{harm.channel}: {harm.fault}")
    if any(harm.kind == "away" for harm in harms) and not wall.raised.get("loss"):
        faults.append("no alarm of loss")

    # Memory and descriptors.
    if len(wall.samples) >= 8:
        for index, what, scale, slack in ((1, "resident MB", 1 << 20, lambda early: early * 0.1 + (16 << 20)),
                                          (2, "descriptors", 1, lambda early: 8),
                                          (3, "threads", 1, lambda early: 8)):
            early, late, good = flat(wall.samples, index, slack)
            print(f"{what}: {early / scale:.0f} early, {late / scale:.0f} late")
            if not good and not (what == "resident MB" and arguments.do_not_judge_memory):
                faults.append(f"{what} grow")

    # The end.
    if died:
        faults.append(f"the wall ended by itself with {code}")
    elif code != 0:
        faults.append(f"the wall's exit code is {code}")
    if wall.end_report is None:
        faults.append("there is no report at the end")
    if re.search(r"ERROR: \w+Sanitizer|WARNING: ThreadSanitizer|runtime error:", messages):
        faults.append("a sanitizer has something to report")

    for fault in faults:
        print("FAULT:", fault)
    if faults or arguments.keep:
        kept = arguments.keep or pathlib.Path("out/soak")
        kept.mkdir(parents=True, exist_ok=True)
        with open(events_path, "a") as events:
            events.writelines(f"{harm.at:.3f} {harm}\n" for script in scripts for harm in script.harms)
        samples_path = folder / "samples.tsv"
        samples_path.write_text("".join("\t".join(map(str, sample)) + "\n" for sample in wall.samples))
        for path in (log_path, events_path, samples_path, wall_path):
            shutil.copy(path, kept)
        print("messages, events, what the process held and the wall file are in", kept)
    shutil.rmtree(folder, ignore_errors=True)
    print("soak:", "FAILED" if faults else "passed", f"(seed {arguments.seed}, {len(harms)} harms)")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
