#!/usr/bin/env python3
"""Drives a running wall at random and checks every frame that it wrote.

Nine channels of one colour each run live for a while, while random commands come over HTTP, the
socket and tally, a third of them malformed, and WebSocket clients listen of which some never read.
Afterwards each frame of the recording is compared with the state that was in force: every window is
where its layout puts it, in its size and colour, and nothing of another layout is seen.

    tools/drive_wall.py --tavrel build/release/bin/tavrel --seconds 60 --commands 500
"""
import argparse
import base64
import http.client
import json
import os
import random
import re
import socket
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

WIDTH, HEIGHT, RATE = 1280, 720, 25
COLOURS = [(200, 40, 40), (40, 200, 40), (60, 60, 220), (200, 200, 40), (200, 40, 200),
           (40, 200, 200), (230, 130, 30), (140, 90, 220), (220, 220, 220)]
PORT, TALLY = 18080, 18081


def make_wall(folder):
    lines = [f'[wall]\nwidth = {WIDTH}\nheight = {HEIGHT}\nspare = 2\nfollow = true\nbackground = "#101010"\n'
             f'[http]\nlisten = "127.0.0.1:{PORT}"\n'
             f'[control]\nsocket = "{folder}/wall.sock"\n'
             f'[tally]\nlisten = "udp://127.0.0.1:{TALLY}"\nprotocol = "3.1"\ntext = false\n'
             f'[[output]]\nurl = "{folder}/wall.mkv"\npreset = "ultrafast"\nquality = 12\noverwrite = true\n'
             '[defaults]\ndecode = "full"\naudio = { meter = false }\nalarm = { freeze = false, silence = false }\n']
    for i, (r, g, b) in enumerate(COLOURS):
        clip = f"{folder}/c{i}.mkv"
        subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                        f"color=0x{r:02X}{g:02X}{b:02X}:size=320x180:rate=25:duration=8", "-f", "lavfi",
                        "-i", f"sine={300 + 50 * i}:duration=8", "-c:v", "libx264", "-g", "25",
                        "-preset", "ultrafast", "-c:a", "aac", clip], check=True)
        lines.append(f'[[channel]]\nname = "C{i}"\nsource = "{clip}"\nlabel = ""\ntally_index = {i}\n')
    Path(folder, "wall.toml").write_text("\n".join(lines))


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
    def __init__(self, folder, seed):
        self.folder, self.dice = folder, random.Random(seed)
        self.names = [f"C{i}" for i in range(len(COLOURS))]
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
            link.connect(f"{self.folder}/wall.sock")
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

    def step(self):
        if self.dice.random() < 0.1:
            return self.tally()
        bad = self.dice.random() < 0.33
        command = (malformed if bad else random_command)(self.dice, self.names)
        status = (self.over_http if self.dice.random() < 0.6 else self.over_socket)(command)
        self.refused += status >= 400
        self.accepted += status < 400
        self.wrong += bad and status < 400
        return None


def check(folder, states):
    """What is wrong with each recorded frame, by the number of the composed frame."""
    size = WIDTH * HEIGHT * 3
    times = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v", "-show_entries", "packet=pts_time",
                            "-of", "csv=p=0", f"{folder}/wall.mkv"], capture_output=True, text=True, check=True)
    numbers = sorted(round(float(time.strip(",")) * RATE) for time in times.stdout.split())
    process = subprocess.Popen(["ffmpeg", "-v", "error", "-i", f"{folder}/wall.mkv", "-map", "0:v", "-fps_mode",
                                "passthrough", "-f", "rawvideo", "-pix_fmt", "rgb24", "-"], stdout=subprocess.PIPE)
    frames = {}
    for number in numbers:
        frame = process.stdout.read(size)
        # At the start no channel has a frame yet.
        if number >= 3 * RATE:
            frames[number] = frame_faults(frame, states, number)
    return frames


def frame_faults(frame, states, number):
    state = states[max((n for n in states if n <= number), default=min(states))]

    def pixel(x, y):
        at = (y * WIDTH + x) * 3
        return frame[at:at + 3]

    def near(x, y, colour):
        return all(abs(a - b) < 30 for a, b in zip(pixel(x, y), colour))

    faults = []
    shown = [c for c in state["channels"] if c["shown"]]
    for channel in shown:
        x, y, w, h = channel["window"]
        colour = COLOURS[int(channel["name"][1:])]
        for px, py in ((x + 14, y + 14), (x + w - 16, y + 14), (x + w // 2, y + h // 3)):
            if not near(px, py, colour):
                faults.append(f"{channel['name']} at {px},{py}: {tuple(pixel(px, py))}")
        for px, py in ((x + w + 3, y + h // 2), (x + w // 2, y - 4), (x - 4, y + h // 2)):
            inside = any(a <= px < a + c and b <= py < b + d for a, b, c, d in (o["window"] for o in shown))
            if 0 <= px < WIDTH and 0 <= py < HEIGHT and not inside and not near(px, py, (16, 16, 16)):
                faults.append(f"beside {channel['name']} at {px},{py}: {tuple(pixel(px, py))}")
    return faults


def main():
    options = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    options.add_argument("--tavrel", required=True)
    options.add_argument("--seconds", type=int, default=60)
    options.add_argument("--commands", type=int, default=500)
    options.add_argument("--seed", type=int, default=1)
    given = options.parse_args()
    folder = tempfile.mkdtemp(prefix="drive-")
    make_wall(folder)
    wall = subprocess.Popen([given.tavrel, "run", f"{folder}/wall.toml", "--json", "--seconds",
                             str(given.seconds + 6)], stdout=open(f"{folder}/out", "w"),
                            stderr=open(f"{folder}/err", "w"))
    for _ in range(100):
        time.sleep(0.2)
        try:
            listeners = [Listener(i >= 5) for i in range(20)]
            break
        except OSError:
            pass
    for listener in listeners:
        listener.start()
    time.sleep(4)
    driver = Driver(folder, given.seed)
    begun, sizes = time.time(), []
    for i in range(given.commands):
        time.sleep(max(0.0, begun + i * (given.seconds - 6) / given.commands - time.time()))
        driver.step()
        if i % 50 == 49:
            status = Path(f"/proc/{wall.pid}/status").read_text()
            sizes.append(int(re.search(r"VmRSS:\s+(\d+)", status)[1]) // 1024)
    wall.wait(timeout=given.seconds + 120)
    report = json.loads(Path(folder, "out").read_text().strip().splitlines()[-1])
    states, versions = {}, {}
    for listener in listeners:
        for event in listener.events:
            inner = event.get("data", event)
            if inner.get("event") == "snapshot":
                versions.setdefault("start", inner["wall"])
            if inner.get("event") == "changed":
                versions[inner["version"]] = (inner["frame"], inner["state"])
    if "start" in versions:
        states[-1] = versions.pop("start")
    # What moves no window (a selection, the audio that is followed) takes effect at another time than
    # a change of places that is pending; those keep their order.
    def places(state):
        return sorted((c["name"], c["shown"], c["window"] if c["shown"] else 0) for c in state["channels"])

    latest, before = 0, places(states[-1]) if states else None
    for version in sorted(versions):
        frame, state = versions[version]
        if places(state) != before:
            latest, before = max(latest, frame), places(state)
            states[latest] = state
    if not states:
        sys.exit("no listener heard of the wall's state: " + str(listeners[6].events[:2])[:600])
    Path(folder, "states.json").write_text(json.dumps(states))
    frames = check(folder, states)
    bad = [number for number, faults in frames.items() if faults]
    print(f"{driver.accepted} commands accepted, {driver.refused} refused, {driver.wrong} malformed ones accepted")
    print(f"{report['frames']} frames composed, late {report['late']}, checked {len(frames)}; "
          f"resident MB {sizes}; exit {wall.returncode}")
    print(f"{len(versions)} states; frames that show something else: {len(bad)}")
    for i in bad[:12]:
        print(f"  frame {i}: {frames[i][:3]}")
    print(folder)
    sys.exit(1 if bad or driver.wrong or report["late"] or wall.returncode else 0)


if __name__ == "__main__":
    main()
