"""Walls and browsers for the tests of the operator's page."""
import json
import signal
import socket
import subprocess
import time
import urllib.error
import urllib.parse
import urllib.request
from pathlib import Path

from selenium import webdriver
from selenium.common.exceptions import NoSuchElementException, StaleElementReferenceException
from selenium.webdriver.chrome.service import Service

WIDTH, HEIGHT = 640, 360
OPERATE, VIEW = "operate-0123456789abcdef", "view-0123456789abcdef01"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def make_clip(file, colour, seconds=4, tone="sine=440"):
    """A flat colour that a box crosses, with audio: the tone, or silence."""
    subprocess.run(
        ["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", f"color={colour}:size=320x180:rate=25:duration={seconds}",
         "-f", "lavfi", "-i", "color=gray:size=16x16:rate=25", "-f", "lavfi", "-i", f"{tone}:duration={seconds}",
         "-filter_complex", "[0][1]overlay=x='mod(t*80,300)':y=4:shortest=1,format=yuv420p", "-c:v", "libx264", "-preset",
         "ultrafast", "-g", "25", "-c:a", "aac", "-ac", "2", "-ar", "48000", "-t", str(seconds), str(file)],
        check=True)


class WallProcess:
    """`tavrel run` of a wall file, served at a port of its own."""

    def __init__(self, program, folder, text, tokens=False, port=None):
        self.program, self.folder, self.port = program, Path(folder), port or free_port()
        http = f'[http]\nlisten = "127.0.0.1:{self.port}"\npreview = {{ size = "320x180" }}\n'
        if tokens:
            file = self.folder / "tokens"
            file.write_text(f"operate {OPERATE}\nview {VIEW}\n")
            file.chmod(0o600)
            http += f'token_file = "{file}"\n'
        self.tokens = tokens
        self.file = self.folder / "wall.toml"
        self.file.write_text(text + http)
        self.start()

    @property
    def url(self):
        return f"http://127.0.0.1:{self.port}"

    def start(self):
        self.process = subprocess.Popen([self.program, "run", str(self.file), "--socket", ""],
                                        stdout=subprocess.DEVNULL)
        wait_for(lambda: self.process.poll() is not None or self.get("/api/v1/wall"), "the wall serves its state", 30)
        assert self.process.poll() is None, "the wall did not start"

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGINT)
            self.process.wait(20)

    def request(self, path, method="GET", body=None):
        fields = {"Authorization": f"Bearer {OPERATE}"} if self.tokens else {}
        if body is not None:
            fields["Content-Type"] = "application/json"
        request = urllib.request.Request(self.url + path, method=method, headers=fields,
                                         data=None if body is None else json.dumps(body).encode())
        with urllib.request.urlopen(request, timeout=10) as answer:
            return answer.read()

    def get(self, path):
        """The answer as JSON; None when there is none."""
        try:
            return json.loads(self.request(path))
        except (OSError, urllib.error.HTTPError):
            return None

    def command(self, *commands):
        return json.loads(self.request("/api/v1/commands", "POST", list(commands)))

    def channel(self, name):
        return self.get("/api/v1/channels/" + urllib.parse.quote(name, safe=""))

    def picture(self):
        """The composed frame at this moment: rows of RGB pixels."""
        time.sleep(0.3)  # a picture of the last quarter of a second may be the same one
        jpeg = self.request("/snapshot.jpg")
        raw = subprocess.run(["ffmpeg", "-v", "error", "-i", "-", "-f", "rawvideo", "-pix_fmt", "rgb24", "-"], input=jpeg,
                             stdout=subprocess.PIPE, check=True).stdout
        assert len(raw) == WIDTH * HEIGHT * 3
        return Picture(raw)


class Picture:
    def __init__(self, raw):
        self.raw = raw

    def at(self, x, y):
        start = 3 * (int(y) * WIDTH + int(x))
        return tuple(self.raw[start:start + 3])

    def count(self, window, is_one):
        x, y, width, height = window
        return sum(is_one(*self.at(i, j)) for j in range(max(y, 0), min(y + height, HEIGHT))
                   for i in range(max(x, 0), min(x + width, WIDTH)))


def is_border_red(r, g, b):
    return r > 170 and g < 80 and b < 80


def centre(window):
    x, y, width, height = window
    return x + width // 2, y + height // 2


def wait_for(condition, what, limit=15):
    end = time.monotonic() + limit
    while True:
        try:
            value = condition()
        except (NoSuchElementException, StaleElementReferenceException):  # the page makes or replaces it
            value = None
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"not within {limit} s: {what}")
        time.sleep(0.1)


def open_browser(width=1440, height=900):
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--mute-audio", "--disable-dev-shm-usage",
                     "--autoplay-policy=no-user-gesture-required", "--disable-background-networking",
                     f"--window-size={width},{height}", "--hide-scrollbars"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)


def console_errors(browser):
    return [line["message"] for line in browser.get_log("browser") if line["level"] in ("SEVERE", "WARNING")]
