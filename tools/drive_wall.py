#!/usr/bin/env python3
"""Drives a running wall and checks every frame that it wrote.

Channels of one colour each run live for a while. Afterwards each frame of the recording is compared
with the state that was in force: every window is where its layout puts it, in its size and colour,
and nothing of another layout is seen. While the wall runs,

  random   random commands come over HTTP, the socket and tally, a third of them malformed, and
           WebSocket clients listen, some of which never read
  solo     one channel after the other is shown alone, and all of them again
  reload   the wall file is broken, then has another source for one channel, and SIGHUP comes each
           time; the audio of all other channels must be that of their files, without a gap

    tools/drive_wall.py --tavrel build/release/bin/tavrel --seconds 60 --commands 500
    tools/drive_wall.py --tavrel build/release/bin/tavrel --scenario solo --channels 36 \\
        --canvas 1920x1080 --commands 200 --seconds 300
"""
import argparse
import base64
import colorsys
import http.client
import json
import os
import random
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

RATE = 25
BACKGROUND = (16, 16, 16)
SLATE = (16, 13, 28)


def free_port(kind):
    with socket.socket(socket.AF_INET, kind) as taken:
        taken.bind(("127.0.0.1", 0))
        return taken.getsockname()[1]


PORT, TALLY = free_port(socket.SOCK_STREAM), free_port(socket.SOCK_DGRAM)


class Wall:
    """The wall file and the clips of its channels, in a folder."""

    def __init__(self, folder, channels, canvas, seconds):
        self.folder, self.seconds = folder, seconds
        self.width, self.height = (int(part) for part in canvas.split("x"))
        self.colours = {f"C{i}": self.colour(i, channels) for i in range(channels)}
        self.file = Path(folder, "wall.toml")
        self.recording = Path(folder, "wall.mkv")
        for name in self.colours:
            self.make_clip(name, 300 + 20 * int(name[1:]))
        self.write({})

    @staticmethod
    def colour(i, count):
        return tuple(round(255 * part) for part in colorsys.hsv_to_rgb(i / count, 0.75, 0.5 + 0.4 * (i % 2)))

    def clip(self, name):
        return f"{self.folder}/{name}.mkv"

    # Longer than the wall runs: at the end of a file the audio has a gap.
    def make_clip(self, name, pitch, colour=None):
        red, green, blue = colour or self.colours[name]
        subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                        f"color=0x{red:02X}{green:02X}{blue:02X}:size=320x180:rate={RATE}", "-f", "lavfi",
                        "-i", f"sine={pitch}", "-t", str(self.seconds + 40), "-c:v", "libx264", "-g", "25",
                        "-preset", "ultrafast", "-c:a", "aac", self.clip(name)], check=True)

    def write(self, sources):
        lines = [f'[wall]\nwidth = {self.width}\nheight = {self.height}\nspare = {min(2, 36 - len(self.colours))}\nfollow = true\n'
                 'background = "#101010"\n'
                 f'[http]\nlisten = "127.0.0.1:{PORT}"\n'
                 f'[control]\nsocket = "{self.folder}/wall.sock"\n'
                 f'[tally]\nlisten = "udp://127.0.0.1:{TALLY}"\nprotocol = "3.1"\ntext = false\n'
                 f'[[output]]\nurl = "{self.recording}"\npreset = "ultrafast"\nquality = 12\noverwrite = true\n'
                 '[defaults]\ndecode = "full"\naudio = { meter = false }\n'
                 'alarm = { freeze = false, silence = false }\n']
        for i, name in enumerate(self.colours):
            source = self.clip(sources.get(name, name))
            lines.append(f'[[channel]]\nname = "{name}"\nsource = "{source}"\nlabel = ""\ntally_index = {i}\n')
        self.file.write_text("\n".join(lines))


class Listener(threading.Thread):
    """A WebSocket client; one that does not read only connects."""

    def __init__(self, reads):
        super().__init__(daemon=True)
        self.reads, self.events, self.closed = reads, [], False
        self.socket = socket.create_connection(("127.0.0.1", PORT), timeout=10)
        key = base64.b64encode(os.urandom(16)).decode()
        self.socket.sendall(f"GET /ws HTTP/1.1\r\nHost: 127.0.0.1:{PORT}\r\nUpgrade: websocket\r\n"
                            f"Connection: Upgrade\r\nSec-WebSocket-Key: {key}\r\n"
                            "Sec-WebSocket-Version: 13\r\n\r\n".encode())

    def take(self, count):
        data = b""
        while len(data) < count:
            piece = self.socket.recv(count - len(data))
            if not piece:
                raise OSError("closed")
            data += piece
        return data

    def run(self):
        if not self.reads:
            return
        self.socket.settimeout(None)
        try:
            head = b""
            while not head.endswith(b"\r\n\r\n"):
                head += self.take(1)
            text = b""
            while True:
                first, second = self.take(2)
                size = second & 127
                size = int.from_bytes(self.take(2), "big") if size == 126 else \
                    int.from_bytes(self.take(8), "big") if size == 127 else size
                payload = self.take(size)
                if first & 15 == 9:  # ping
                    mask = os.urandom(4)
                    self.socket.sendall(bytes([0x8A, 0x80 | len(payload)]) + mask +
                                        bytes(c ^ mask[i % 4] for i, c in enumerate(payload)))
                elif first & 15 <= 1:
                    text += payload
                    if first & 128:
                        self.events.append(json.loads(text))
                        text = b""
        except OSError:
            self.closed = True


def random_command(dice, names):
    name = dice.choice(names)
    return dice.choice([
        {"command": "select", "channel": name}, {"command": "select"},
        {"command": "layout", "layout": dice.choice(["auto", "3x3", "2x2", "1+5", "1+7", "2+8", "4x4", "1"])},
        {"command": "solo", "channel": name}, {"command": "solo_off"},
        {"command": "swap", "channel": name, "with": dice.choice(names)},
        {"command": "mute", "channel": name, "with": dice.choice(["silence", "nothing", "off"])},
        {"command": "follow", "channel": name},
        {"command": "set", "channel": name, "enabled": dice.random() < 0.7},
        {"command": "set", "channel": name, "colour": "#%06X" % dice.randrange(1 << 24)},
        {"command": "mask", "channel": name, "for": dice.randrange(3)},
        {"command": "acknowledge", "channel": name, "who": "op"},
        {"command": "reconnect", "channel": name},
        {"command": "order", "channels": dice.sample(names, 4)},
        [{"command": "select", "channel": name}, {"command": "layout", "layout": "3x3"}],
    ])


def malformed(dice, names):
    return dice.choice([
        {"command": "solo", "channel": "C99"}, {"command": "sollo"}, {"command": "layout"}, 7, "x",
        {"command": "mute", "channel": "C1", "with": "loud"}, [{"command": "select", "channel": "C1"}, {}],
        {"command": "set", "channel": "C1", "deinterlace": 5}, {"command": "add"}, {"nothing": 1},
        {"command": "set", "channel": "C1", "name": "C2"}, {"command": "mask", "channel": "C1", "for": -1}])


class Driver:
    def __init__(self, wall, process, seed):
        self.wall, self.process, self.dice = wall, process, random.Random(seed)
        self.names = list(wall.colours)
        self.refused = self.accepted = self.wrong = 0

    def over_http(self, command):
        link = http.client.HTTPConnection("127.0.0.1", PORT, timeout=20)
        link.request("POST", "/api/v1/commands", json.dumps(command), {"Content-Type": "application/json"})
        answer = link.getresponse()
        answer.read()
        link.close()
        return answer.status

    def over_socket(self, command):
        with socket.socket(socket.AF_UNIX) as link:
            link.settimeout(20)
            link.connect(f"{self.wall.folder}/wall.sock")
            link.sendall(json.dumps({"id": 1, "commands": command}).encode() + b"\n")
            answer = link.makefile().readline()
            return 400 if "error" in json.loads(answer) else 200

    def tally(self):
        text = self.dice.choice(self.names).encode().ljust(16)
        message = bytes([0x80 + self.dice.randrange(9), self.dice.randrange(4)]) + text
        if self.dice.random() < 0.3:
            message = os.urandom(self.dice.randrange(40))
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as link:
            link.sendto(message, ("127.0.0.1", TALLY))

    def send(self, command):
        status = (self.over_http if self.dice.random() < 0.6 else self.over_socket)(command)
        self.refused += status >= 400
        self.accepted += status < 400
        return status < 400

    def random(self, _number, _count):
        if self.dice.random() < 0.1:
            self.tally()
            return
        if self.dice.random() < 0.33:
            self.wrong += self.send(malformed(self.dice, self.names))
        else:
            self.send(random_command(self.dice, self.names))

    def solo(self, number, _count):
        name = self.names[number // 2 % len(self.names)]
        self.wrong += not self.send({"command": "solo_off"} if number % 2 else {"command": "solo", "channel": name})

    def reload(self, number, count):
        if number == count // 3:
            self.wall.file.write_text(self.wall.file.read_text().replace("spare = ", "spare = no"))
        elif number == count // 2:
            self.wall.write({"C1": "other"})
        else:
            return
        self.process.send_signal(signal.SIGHUP)


def check(wall, states):
    """What is wrong with each recorded frame, by the number of the composed frame."""
    size = wall.width * wall.height * 3
    times = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v", "-show_entries", "packet=pts_time",
                            "-of", "csv=p=0", wall.recording], capture_output=True, text=True, check=True)
    numbers = sorted(round(float(time.strip(",")) * RATE) for time in times.stdout.split())
    process = subprocess.Popen(["ffmpeg", "-v", "error", "-i", wall.recording, "-map", "0:v", "-fps_mode",
                                "passthrough", "-f", "rawvideo", "-pix_fmt", "rgb24", "-"], stdout=subprocess.PIPE)
    frames = {}
    for number in numbers:
        frame = process.stdout.read(size)
        # At the start no channel has a frame yet.
        if number >= 3 * RATE:
            frames[number] = frame_faults(wall, frame, states, number)
    return frames


def audio_packets(file, track):
    """(time, hash) of each packet of an audio track."""
    listed = subprocess.run(["ffmpeg", "-v", "error", "-i", file, "-map", f"0:a:{track}", "-c", "copy", "-f",
                             "framehash", "-hash", "md5", "-"], capture_output=True, text=True, check=True)
    rows = [line.split(",") for line in listed.stdout.splitlines() if not line.startswith("#")]
    return [(int(row[2]), row[5].strip()) for row in rows]


def audio_faults(wall, reloaded):
    """Of each channel: whether its track is its file's audio without a gap from the time in
    ms on at which the wall was told to read its file again; of C1, of both files."""
    faults = []
    for track, name in enumerate(wall.colours):
        if name == "C1":
            carried = {packet for _, packet in audio_packets(wall.recording, track)}
            for file in ("C1", "other"):
                if len(carried.intersection(p for _, p in audio_packets(wall.clip(file), 0))) < 50:
                    faults.append(f"C1: nothing of {file} in its track")
            continue
        recorded, original = audio_packets(wall.recording, track), audio_packets(wall.clip(name), 0)
        hashes = [packet for _, packet in original]
        # A machine that is too slow for all channels at once reads them late at the start.
        recorded = [(time, packet) for time, packet in recorded if time > reloaded - 1000]
        if not recorded or recorded[0][1] not in hashes:
            faults.append(f"{name}: nothing of its file in its track")
            continue
        at = hashes.index(recorded[0][1])
        run = [packet for _, packet in recorded]
        if run != hashes[at:at + len(run)]:
            faults.append(f"{name}: its track is not its file's audio")
        times = [time for time, _ in recorded]
        faults += [f"{name}: a gap of {b - a} ms at {a} ms" for a, b in zip(times, times[1:]) if b - a > 25]
        if len(run) < (wall.seconds * 1000 - reloaded) / 1000 * 48000 / 1024 * 0.9:
            faults.append(f"{name}: only {len(run)} packets")
    return faults


def frame_faults(wall, frame, states, number):
    state = states[max((n for n in states if n <= number), default=min(states))]

    def pixel(x, y):
        at = (y * wall.width + x) * 3
        return frame[at:at + 3]

    def near(x, y, colour, tolerance=30):
        return all(abs(a - b) < tolerance for a, b in zip(pixel(x, y), colour))

    faults = []
    shown = [c for c in state["channels"] if c["shown"]]
    for channel in shown:
        x, y, w, h = channel["window"]
        colour = wall.colours[channel["name"]]
        for px, py in ((x + 14, y + 14), (x + w - 16, y + 14), (x + w // 2, y + h // 3)):
            if not near(px, py, colour) and not (wall.may_show_slates and near(px, py, SLATE, 8)):
                faults.append(f"{channel['name']} at {px},{py}: {tuple(pixel(px, py))}")
        for px, py in ((x + w + 3, y + h // 2), (x + w // 2, y - 4), (x - 4, y + h // 2)):
            inside = any(a <= px < a + c and b <= py < b + d for a, b, c, d in (o["window"] for o in shown))
            if 0 <= px < wall.width and 0 <= py < wall.height and not inside and not near(px, py, BACKGROUND):
                faults.append(f"beside {channel['name']} at {px},{py}: {tuple(pixel(px, py))}")
    return faults


def states_by_frame(listeners):
    """The state that each frame has to show, from the frame of the change on."""
    versions, start = {}, None
    for listener in listeners:
        for event in listener.events:
            inner = event.get("data", event)
            if inner.get("event") == "snapshot":
                start = start or inner["wall"]
            if inner.get("event") == "changed":
                versions[inner["version"]] = (inner["frame"], inner["state"])
    if start is None:
        sys.exit("no listener heard of the wall's state")

    # Commands that move no window (a selection, the audio that is followed) take effect at
    # another time than a pending change of places; those keep their order.
    def places(state):
        return sorted((c["name"], c["shown"], c["window"] if c["shown"] else 0) for c in state["channels"])

    states, latest, before = {-1: start}, 0, places(start)
    for version in sorted(versions):
        frame, state = versions[version]
        if places(state) != before:
            latest, before = max(latest, frame), places(state)
            states[latest] = state
    return states


def listen(count):
    for _ in range(300):
        time.sleep(0.2)
        try:
            listeners = [Listener(i >= count // 4) for i in range(count)]
        except OSError:
            continue
        for listener in listeners:
            listener.start()
        return listeners
    return None


def main():
    options = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    options.add_argument("--tavrel", required=True)
    options.add_argument("--scenario", choices=["random", "solo", "reload"], default="random")
    options.add_argument("--seconds", type=int, default=60)
    options.add_argument("--commands", type=int, default=500)
    options.add_argument("--channels", type=int, default=9)
    options.add_argument("--canvas", default="1280x720")
    options.add_argument("--seed", type=int, default=1)
    options.add_argument("--may-be-late", action="store_true", help="late frames are reported only")
    options.add_argument("--may-show-slates", action="store_true",
                         help="the machine may be too slow to open a channel again within a second")
    given = options.parse_args()
    with tempfile.TemporaryDirectory(prefix="drive-") as folder:
        sys.exit(drive(given, folder))


def drive(given, folder):
    wall = Wall(folder, given.channels, given.canvas, given.seconds)
    wall.may_show_slates = given.may_show_slates
    wall.make_clip("other", 1000, wall.colours["C1"])
    with open(f"{folder}/out", "w") as out, open(f"{folder}/err", "w") as err:
        process = subprocess.Popen([given.tavrel, "run", wall.file, "--json", "--seconds", str(given.seconds + 6)],
                                   stdout=out, stderr=err)
    listeners = listen(20)
    if listeners is None:
        sys.exit("the wall does not start: " + Path(folder, "err").read_text()[-2000:])
    time.sleep(4)
    driver = Driver(wall, process, given.seed)
    step = getattr(driver, given.scenario)
    begun, sizes = time.time(), []
    for i in range(given.commands):
        time.sleep(max(0.0, begun + i * (given.seconds - 6) / given.commands - time.time()))
        step(i, given.commands)
        if i % max(1, given.commands // 10) == 0:
            status = Path(f"/proc/{process.pid}/status").read_text()
            sizes.append(int(re.search(r"VmRSS:\s+(\d+)", status)[1]) // 1024)
    process.wait(timeout=given.seconds + 240)
    report = json.loads(Path(folder, "out").read_text().strip().splitlines()[-1])
    states = states_by_frame(listeners)
    frames = check(wall, states)
    bad = [number for number, faults in frames.items() if faults]
    print(f"{driver.accepted} commands accepted, {driver.refused} refused, {driver.wrong} answered otherwise "
          "than they should have been")
    print(f"{report['frames']} frames composed, late {report['late']}, recorded and checked {len(frames)}; "
          f"resident MB {sizes}; exit {process.returncode}")
    print(f"{len(states)} states; frames that show something else: {len(bad)}")
    for i in bad[:12]:
        print(f"  frame {i}: {frames[i][:3]}")
    if process.returncode != 0:
        print(Path(folder, "err").read_text()[-20000:])
    faults = bool(bad) or driver.wrong > 0 or process.returncode != 0
    faults |= report["late"] > 0 and not given.may_be_late
    if given.scenario == "reload":
        messages = Path(folder, "err").read_text()
        # The start, before the first command: four seconds, and until the wall answers.
        wrong = audio_faults(wall, 4000 + (given.seconds - 6) * 1000 // 3)
        if not re.search(r"the wall stays as it is: .*wall\.toml:4:\d+: ", messages):
            wrong.append("no message with the place of the mistake: " + messages[-500:])
        print(f"audio of all channels and the message: {wrong or 'as they should be'}")
        faults |= bool(wrong)
    return 1 if faults else 0


if __name__ == "__main__":
    main()
