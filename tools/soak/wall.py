"""The wall under test: its file, its process and what that reports."""

import json
import os
import pathlib
import subprocess
import sys
import threading
import time

FRAME_RATE = 25
COLUMNS, ROWS = 3, 3
WINDOW = 320, 180    # pixels
CANVAS = COLUMNS * WINDOW[0], ROWS * WINDOW[1]
ALARM_AFTER = 2      # seconds that a fault lasts before it is an alarm


def write_wall(path, channels, recording, pipe):
    """channels: name and source of each; two outputs, a file and a pipe."""
    alarm = f"{{ after = {ALARM_AFTER}, clear_after = 1 }}"
    lines = ["[wall]", f"width = {CANVAS[0]}", f"height = {CANVAS[1]}", f"frame_rate = {FRAME_RATE}", "",
             "[defaults]", "hold = 3", "read_limit = 3", "alarm.loss = { after = 1, clear_after = 1 }",
             f"alarm.freeze = {alarm}", f"alarm.black = {alarm}", f"alarm.silence = {alarm}", ""]
    for i, (name, url) in enumerate(channels):
        left, top = i % COLUMNS * WINDOW[0], i // COLUMNS * WINDOW[1]
        lines += ["[[channel]]", f'name = "{name}"', f'source = "{url}"', 'label = ""',
                  f"window = [{left}, {top}, {WINDOW[0]}, {WINDOW[1]}]", ""]
    for url, container in ((recording, "matroska"), (pipe, "mpegts")):
        lines += ["[[output]]", f'url = "{url}"', f'format = "{container}"', 'preset = "ultrafast"', "quality = 30", ""]
    path.write_text("\n".join(lines))


class PipeReader:
    """Reads the wall's pipe and keeps the type, the stream and the time of each packet in a file."""

    def __init__(self, pipe, packets):
        os.mkfifo(pipe)
        with open(packets, "w") as file:
            self.process = subprocess.Popen(
                ["ffprobe", "-v", "quiet", "-f", "mpegts", "-i", pipe, "-of", "compact=p=0:nk=1",
                 "-show_entries", "packet=codec_type,stream_index,pts_time"],
                stdin=subprocess.DEVNULL, stdout=file, stderr=subprocess.DEVNULL)

    def end(self):
        """To be called after the wall ended."""
        try:
            self.process.wait(20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


class Wall:
    """The running wall: its process, its events and what it needs of the machine."""

    def __init__(self, command, log, events):
        self.events = events   # file that keeps every event with the second it came at
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=log, stdin=subprocess.DEVNULL,
                                        text=True)
        self.condition = threading.Condition()
        self.states = {}       # channel: (state, since when it is known)
        self.alarms = {}       # (channel, alarm): raised
        self.raised = {}       # alarm: how often
        self.statuses = []     # (time of its arrival, status)
        self.end_report = None
        self.samples = []      # (time, resident bytes, descriptors, threads)
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self):
        for line in self.process.stdout:
            now = time.monotonic()
            self.events.write(f"{now:.3f} {line}")
            try:
                event = json.loads(line)
            except ValueError:
                print("not JSON:", line.rstrip(), file=sys.stderr)
                continue
            with self.condition:
                if event["event"] == "channel":
                    self.states[event["channel"]] = (event["state"], now)
                elif event["event"] == "alarm":
                    self.alarms[event["channel"], event["alarm"]] = event["raised"]
                    if event["raised"]:
                        self.raised[event["alarm"]] = self.raised.get(event["alarm"], 0) + 1
                elif event["event"] == "status":
                    self.statuses.append((now, event))
                elif event["event"] == "end":
                    self.end_report = event
                self.condition.notify_all()

    def state(self, channel):
        with self.condition:
            return self.states.get(channel, ("opening", 0.0))

    def wait(self, condition, limit):
        with self.condition:
            return self.condition.wait_for(condition, max(0.0, limit))

    def measure(self):
        folder = f"/proc/{self.process.pid}"
        try:
            pages = int(pathlib.Path(folder, "statm").read_text().split()[1])
            descriptors = len(os.listdir(folder + "/fd"))
            threads = len(os.listdir(folder + "/task"))
        except OSError:
            return
        self.samples.append((time.monotonic(), pages * os.sysconf("SC_PAGE_SIZE"), descriptors, threads))
