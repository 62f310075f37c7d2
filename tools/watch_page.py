#!/usr/bin/env python3
"""Watches a wall through its page: how old the shown frame is, and how viewers affect the wall.

A source draws the number of each of its frames as blocks, which are read back from the page's video
element. Then many viewers come, some of which never read; a browser is stopped (SIGSTOP); a tab reloads every
second; and all leave. Meanwhile the wall records; afterwards no frame of the recording may be missing.

    tools/watch_page.py --tavrel build/release/bin/tavrel --seconds 60 --viewers 30
"""
import argparse
import base64
import json
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request
from pathlib import Path

from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests" / "page"))
from walls import free_port, open_browser, wait_for  # noqa: E402

WIDTH, HEIGHT, RATE, BITS = 640, 360, 25, 12
# Records for each frame that the video element shows: wall clock, number of the composed frame, blocks.
SAMPLER = r"""
const video = document.getElementById("video"), stage = document.getElementById("stage");
const canvas = document.createElement("canvas");
[canvas.width, canvas.height] = [arguments[0], 2];
const drawing = canvas.getContext("2d", {willReadFrequently: true});
const samples = window.samples = [];
const take = () => {
  if (samples !== window.samples) {
    return;  // another measurement has begun
  }
  drawing.drawImage(video, 0, video.videoHeight * 0.5, video.videoWidth, 4, 0, 0, canvas.width, 2);
  const row = drawing.getImageData(0, 1, canvas.width, 1).data;
  let number = 0;
  for (let bit = 0; bit < canvas.width / 10; ++bit) {
    number += row[4 * (bit * 10 + 5)] > 128 ? 2 ** bit : 0;
  }
  samples.push([Date.now(), Number(stage.dataset.frame), number]);
  video.requestVideoFrameCallback(take);
};
video.requestVideoFrameCallback(take);
"""


class Viewer(threading.Thread):
    """A WebSocket client that asks for the preview; one that does not read only asks."""

    def __init__(self, port, reads):
        super().__init__(daemon=True)
        self.reads, self.bytes = reads, 0
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=10)
        key = base64.b64encode(os.urandom(16)).decode()
        self.socket.sendall(f"GET /ws HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                            f"Sec-WebSocket-Key: {key}\r\nSec-WebSocket-Version: 13\r\n\r\n".encode())
        answer = b""
        while b"\r\n\r\n" not in answer:
            answer += self.socket.recv(1024)
        text = b'{"preview":true,"id":1}'
        mask = os.urandom(4)
        self.socket.sendall(bytes([0x81, 0x80 | len(text)]) + mask + bytes(c ^ mask[i % 4] for i, c in enumerate(text)))
        self.start()

    def run(self):
        try:
            while self.reads:
                data = self.socket.recv(65536)
                self.bytes += len(data)
                if not data:
                    return
        except OSError:
            pass

    def close(self):
        self.socket.close()


class Wall:
    def __init__(self, program, folder):
        self.port, self.composed = free_port(), []
        clip, self.recording = f"{folder}/numbers.mkv", f"{folder}/wall.mkv"
        subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i",
                        f"nullsrc=size=320x180:rate={RATE}:duration={2 ** BITS / RATE},format=gray,"
                        f"geq=lum='16+219*mod(floor(N/pow(2,floor(X*{BITS}/W))),2)',format=yuv420p",
                        "-c:v", "libx264", "-preset", "veryfast", "-g", "25", clip], check=True)
        Path(folder, "wall.toml").write_text(
            f'[wall]\nwidth = {WIDTH}\nheight = {HEIGHT}\nframe_rate = {RATE}\ngap = 0\nmargin = 0\nlabel_room = 0\n'
            f'[http]\nlisten = "127.0.0.1:{self.port}"\n'
            f'[defaults]\ndecode = "full"\naudio = false\nalarm = {{ freeze = false }}\n'
            f'[[channel]]\nname = "Numbers"\nsource = "{clip}"\nlabel = ""\n'
            f'[[output]]\nurl = "{self.recording}"\npreset = "ultrafast"\noverwrite = true\n')
        self.process = subprocess.Popen([program, "run", f"{folder}/wall.toml", "--json", "--socket", ""],
                                        stdout=subprocess.PIPE, text=True)
        threading.Thread(target=self.read, daemon=True).start()
        wait_for(lambda: self.live(), "the wall serves its state", 60)

    def read(self):
        for line in self.process.stdout:
            status = json.loads(line)
            status["at"] = time.time()
            self.composed.append(status)

    def composed_at(self, now):
        """Frames that were composed by then, from the wall's own count, a line of which comes each second."""
        before = [status for status in self.composed if status.get("event") == "status" and status["at"] <= now]
        return before[-1]["frames"] + (now - before[-1]["at"]) * RATE if before else None

    def live(self):
        try:
            with urllib.request.urlopen(f"http://127.0.0.1:{self.port}/api/v1/wall", timeout=5) as answer:
                return json.load(answer).get("live", {})
        except OSError:
            return None

    def channel(self):
        with urllib.request.urlopen(f"http://127.0.0.1:{self.port}/api/v1/channels/Numbers", timeout=5) as answer:
            return json.load(answer)

    def preview(self):
        return (self.live() or {}).get("preview", {})


def descendants(pid):
    children = {}
    for entry in Path("/proc").glob("[0-9]*/stat"):
        try:
            fields = entry.read_text().rsplit(")", 1)[1].split()
        except OSError:
            continue
        children.setdefault(int(fields[1]), []).append(int(entry.parent.name))
    found, waiting = [], [pid]
    while waiting:
        own = children.get(waiting.pop(), [])
        found += own
        waiting += own
    return found


def measure(browser, wall, seconds):
    browser.execute_script(SAMPLER, BITS * 10)
    time.sleep(seconds)
    samples = browser.execute_script("return window.samples")[5:]
    ages, steps, offsets = [], [], set()
    for now, frame, number in samples:
        composed = wall.composed_at(now / 1000)
        if composed is not None:
            ages.append((composed - frame) / RATE)
        offsets.add((frame - number) % 2 ** BITS)
    for (earlier, _, _), (later, _, _) in zip(samples, samples[1:]):
        steps.append((later - earlier) / 1000)
    frames = [frame for _, frame, _ in samples]
    ages.sort()
    return {"shown": len(samples), "of": frames[-1] - frames[0] + 1 if frames else 0,
            "goes_back": sum(b < a for a, b in zip(frames, frames[1:])),
            "longest_stop_s": round(max(steps, default=0), 2), "offsets_of_the_source": len(offsets),
            "age_median_s": round(ages[len(ages) // 2], 2) if ages else None,
            "age_95_s": round(ages[int(len(ages) * 0.95)], 2) if ages else None,
            "age_max_s": round(ages[-1], 2) if ages else None}


def click(browser, wall, times):
    """Seconds from a click to the composed frame that has the selection border."""
    delays = []
    for _ in range(times):
        ActionChains(browser).send_keys(Keys.ESCAPE).perform()
        wait_for(lambda: not wall.channel()["selected"], "nothing is selected")
        time.sleep(0.5)  # until the page has received that, too
        done = len(browser.find_elements(By.CSS_SELECTOR, "#action-list .done"))
        box = browser.find_element(By.CSS_SELECTOR, ".box")
        # As the page has it, because the driver takes its time.
        browser.execute_script("arguments[0].addEventListener('pointerdown', () => { window.clicked = Date.now(); })", box)
        box.click()
        wait_for(lambda: len(browser.find_elements(By.CSS_SELECTOR, "#action-list .done")) > done, "it is in effect")
        text = browser.find_element(By.CSS_SELECTOR, "#action-list .done .detail").text
        frame = int(re.search(r"frame (\d+)", text).group(1))
        delays.append((frame - wall.composed_at(browser.execute_script("return window.clicked") / 1000)) / RATE)
    return [round(delay, 2) for delay in sorted(delays)]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--tavrel", default="build/release/bin/tavrel")
    parser.add_argument("--seconds", type=int, default=60, help="of measuring the age")
    parser.add_argument("--viewers", type=int, default=30)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        wall = Wall(options.tavrel, folder)
        url = f"http://127.0.0.1:{wall.port}/"
        browser = open_browser()
        browser.get(url)
        wait_for(lambda: browser.execute_script("return document.getElementById('stage').dataset.frame"), "video", 30)
        print("one viewer:", json.dumps(measure(browser, wall, options.seconds)), flush=True)

        print("from clicks to the border, s:", click(browser, wall, 10), flush=True)

        viewers = [Viewer(wall.port, reads=number % 10 != 0) for number in range(options.viewers)]
        print(f"with {options.viewers} more:", json.dumps(measure(browser, wall, 20)), wall.preview(), flush=True)
        for viewer in viewers:
            viewer.close()

        stopped = descendants(browser.service.process.pid)
        for pid in stopped:
            os.kill(pid, signal.SIGSTOP)
        time.sleep(15)
        print("browser stopped:", wall.preview(), flush=True)
        for pid in stopped:
            os.kill(pid, signal.SIGCONT)
        time.sleep(5)
        print("continued:", json.dumps(measure(browser, wall, 10)), flush=True)
        for _ in range(20):
            browser.refresh()
            time.sleep(1)
        print("reloaded 20 times:", wall.preview(), flush=True)
        browser.quit()
        time.sleep(5)
        print("5 s after the last one left:", wall.preview(), flush=True)

        wall.process.send_signal(signal.SIGINT)
        wall.process.wait(30)
        time.sleep(0.5)
        end = wall.composed[-1]
        written = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v", "-count_packets", "-show_entries",
                                  "stream=nb_read_packets", "-of", "csv=p=0", wall.recording], stdout=subprocess.PIPE, text=True,
                                 check=True).stdout.strip()
        print("the wall:", {key: end[key] for key in ("frames", "late", "no_free_buffer")}, "written", written,
              "dropped", end["outputs"][0]["dropped"], flush=True)


if __name__ == "__main__":
    main()
