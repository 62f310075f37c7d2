#!/usr/bin/env python3
"""The wall on a virtual X display, which is read, clicked into and taken away."""
import array
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import time
import urllib.request

LIMIT = 60  # seconds for whatever is waited for
# A B over C D, each of one colour, on a grey canvas.
COLOURS = {"A": (200, 40, 40), "B": (40, 180, 40), "C": (40, 40, 200), "D": (200, 200, 40)}
WINDOWS = {"A": (10, 10), "B": (330, 10), "C": (10, 190), "D": (330, 190)}
SIZE = (300, 160)
TONES = {"A": 300, "B": 500, "C": 700, "D": 900}  # Hz
GREY = (90, 90, 90)
BORDER = (255, 0, 0)


def wait_until(what, is_so):
    end = time.monotonic() + LIMIT
    while time.monotonic() < end:
        found = is_so()
        if found:
            return found
        time.sleep(0.05)
    sys.exit(f"never so: {what}")


class Display:
    """Xvfb. A number is chosen by itself the first time, and used again afterwards."""

    def __init__(self, number=None):
        reader, writer = os.pipe()
        name = [] if number is None else [f":{number}"]
        self.process = subprocess.Popen(
            ["Xvfb", *name, "-displayfd", str(writer), "-screen", "0", "1280x760x24", "-nolisten",
             "tcp"], pass_fds=[writer], stderr=subprocess.DEVNULL)
        os.close(writer)
        with os.fdopen(reader) as lines:
            self.number = lines.readline().strip()
        if not self.number:
            sys.exit("Xvfb did not start")
        self.environment = {**os.environ, "DISPLAY": f":{self.number}",
                            "SDL_VIDEODRIVER": "x11", "SDL_RENDER_DRIVER": "software"}

    def end(self):
        self.process.kill()
        self.process.wait()

    def picture(self):
        """Width, height and RGB bytes of what is on the display."""
        ppm = subprocess.run(["import", "-silent", "-window", "root", "-depth", "8", "ppm:-"],
                             env=self.environment, capture_output=True, check=True).stdout
        magic, width, height, depth = ppm.split(maxsplit=4)[:4]
        assert magic == b"P6" and depth == b"255", ppm[:20]
        width, height = int(width), int(height)
        return width, height, ppm[-width * height * 3:]

    def do(self, *words):
        subprocess.run(["xdotool", *map(str, words)], env=self.environment, check=True)


class Wall:
    def __init__(self, program, folder, display):
        self.program = program
        self.socket = folder / "wall.sock"
        self.log = open(folder / "wall.log", "w+", encoding="utf-8")
        self.process = subprocess.Popen(
            [program, "run", folder / "wall.toml", "--socket", self.socket, "--json"],
            env={**display.environment, "SDL_AUDIODRIVER": "disk",
                 "SDL_DISKAUDIOFILE": str(folder / "heard.raw")}, stdout=open(folder / "wall.json", "w"), stderr=self.log)
        self.lines = folder / "wall.json"
        self.audio = folder / "heard.raw"

    def said(self, text):
        self.log.seek(0)
        return text in self.log.read()

    def state(self):
        answer = subprocess.run(
            [self.program, "ctl", "--socket", self.socket, "--json", "status"],
            capture_output=True, text=True)
        return json.loads(answer.stdout)["wall"]

    def tone(self):
        """Frequency of the last quarter of a second that was played, in Hz; 0 for silence."""
        samples = array.array("f")  # stereo, 48 kHz
        with open(self.audio, "rb") as file:
            frames = file.seek(0, os.SEEK_END) // 8
            file.seek(max(frames - 12000, 0) * 8)
            samples.frombytes(file.read(12000 * 8))
        left = samples[::2]
        return 4 * sum(a < 0 <= b for a, b in zip(left, left[1:]))

    def screen(self):
        """What the wall reports of its screen, once a second."""
        lines = self.lines.read_text(encoding="utf-8").splitlines()
        return json.loads(lines[-1])["outputs"][-1] if lines else {}


def is_near(pixel, colour, tolerance=12):
    return all(abs(a - b) <= tolerance for a, b in zip(pixel, colour))


class Shown:
    """A picture of the display, read by canvas pixels: full screen, the aspect kept."""

    def __init__(self, display):
        self.width, self.height, self.rgb = display.picture()
        self.scale = 2  # 640x360 in 1280x760
        self.top = (self.height - 720) // 2

    def at(self, x, y):
        position = ((self.top + y * self.scale) * self.width + x * self.scale) * 3
        return tuple(self.rgb[position:position + 3])

    def row(self, y):
        return {tuple(self.rgb[i:i + 3])
                for i in range(y * self.width * 3, (y + 1) * self.width * 3, 3)}

    def wrong(self):
        """What differs from the composed frame, without borders."""
        mistakes = []
        for name, (x, y) in WINDOWS.items():
            for dx, dy in ((8, 8), (SIZE[0] - 9, 8), (8, SIZE[1] - 9), (150, 80)):
                pixel = self.at(x + dx, y + dy)
                if not is_near(pixel, COLOURS[name]):
                    mistakes.append(f"{name} at {dx},{dy} is {pixel}")
        for x, y in ((2, 2), (320, 90), (637, 357), (100, 180)):
            if not is_near(self.at(x, y), GREY):
                mistakes.append(f"the canvas at {x},{y} is {self.at(x, y)}")
        for y in (0, 19, self.height - 20, self.height - 1):
            if self.row(y) != {(0, 0, 0)}:
                mistakes.append(f"row {y} beside the canvas is not black")
        return mistakes

    def bordered(self):
        """Names of the windows with a selection border."""
        return [name for name, (x, y) in WINDOWS.items()
                if is_near(self.at(x + 150, y + 1), BORDER, 40)]


def write_wall(folder):
    text = '[wall]\nwidth = 640\nheight = 360\nbackground = "#5A5A5A"\ndelay = 0.2\n'
    for name, (red, green, blue) in COLOURS.items():
        subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i",
                        f"color=0x{red:02x}{green:02x}{blue:02x}:size=300x160:rate=25", "-f", "lavfi",
                        "-i", f"sine={TONES[name]}:sample_rate=48000", "-t", "20", "-c:v", "ffv1",
                        "-pix_fmt", "yuv420p", folder / f"{name}.mkv"], check=True)
        x, y = WINDOWS[name]
        text += (f'[[channel]]\nname = "{name}"\nsource = "{name}.mkv"\nlabel = ""\n'
                 f"window = [{x}, {y}, {SIZE[0]}, {SIZE[1]}]\n"
                 "alarm = { freeze = false, silence = false, loss = false }\n"
                 "audio = { meter = false }\n")
    text += '[[output]]\nurl = "screen:"\naudio = true\n'
    (folder / "wall.toml").write_text(text, encoding="utf-8")


def main(program, picture=None):
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        write_wall(folder)
        render = subprocess.run([program, "render", folder / "wall.toml"], capture_output=True,
                                text=True)
        assert render.returncode == 64 and "a screen shows a wall that runs live" in render.stderr
        display = Display()
        wall = Wall(program, folder, display)
        try:
            # The display shows the composed frame.
            mistakes = ["nothing yet"]

            def is_right():
                nonlocal mistakes
                mistakes = Shown(display).wrong()
                return not mistakes or wall.process.poll() is not None
            end = time.monotonic() + LIMIT
            while not is_right() and time.monotonic() < end:
                time.sleep(0.1)
            assert not mistakes, mistakes
            wait_until("the state of the output", lambda: [
                one["state"] for one in wall.state()["live"]["outputs"]] == ["open"])
            assert wall.tone() == 0, "nothing is selected"

            # A click selects, a key selects, a double click shows one alone, Escape all again.
            def click(name, count=1):
                x, y = WINDOWS[name]
                display.do("mousemove", 2 * (x + 150), 20 + 2 * (y + 80), "click", "--repeat",
                           count, "--delay", 40, 1)
            click("B")
            wait_until("a border around B", lambda: Shown(display).bordered() == ["B"])
            display.do("key", "3")
            wait_until("a border around C", lambda: Shown(display).bordered() == ["C"])
            display.do("key", "Right")
            wait_until("D is selected", lambda: [
                c["name"] for c in wall.state()["channels"] if c["selected"]] == ["D"])
            wait_until("D is heard", lambda: abs(wall.tone() - TONES["D"]) <= 8)
            click("A", 2)
            wait_until("A alone", lambda: is_near(Shown(display).at(500, 300), COLOURS["A"]))
            if picture:
                subprocess.run(["import", "-window", "root", picture], env=display.environment)
            display.do("key", "Escape")
            wait_until("all again", lambda: not [
                m for m in Shown(display).wrong() if not m.startswith("A")])

            # Without its display the wall continues; the screen comes back with it.
            before = wall.screen()["frames"]
            display.end()
            wait_until("a reason", lambda: wall.said("the connection to its display was lost"))
            wait_until("further attempts", lambda: wall.said("there is no display"))
            wait_until("the state", lambda: wall.screen()["state"] == "failed")
            assert wall.process.poll() is None, "the wall has ended with its display"
            display = Display(display.number)
            wait_until("open again", lambda: wall.said("output screen:0: open again"))
            wait_until("the picture again", lambda: not [
                m for m in Shown(display).wrong() if not m.startswith("A")])
            wait_until("frames", lambda: wall.screen()["frames"] > before)

            # The operator closes the window: it stays closed, and the wall continues.
            window = subprocess.run(["xdotool", "search", "--name", "wall"], check=True, text=True,
                                    env=display.environment, capture_output=True).stdout.split()[0]
            close_window(display, window)
            wait_until("closed", lambda: wall.screen()["state"] == "closed")
            assert wall.said("its window was closed")
            assert wall.process.poll() is None, "the wall has ended with its window"
        except BaseException:
            wall.log.seek(0)
            print(wall.log.read(), file=sys.stderr)
            raise
        finally:
            wall.process.terminate()
            wall.process.wait(LIMIT)
            display.end()
        last = json.loads(wall.lines.read_text(encoding="utf-8").splitlines()[-1])
        assert last["event"] == "end" and last["outputs"][0]["state"] == "closed", last["outputs"]
        print(json.dumps(last["outputs"]), "late", last["late"])


def close_window(display, window):
    """As a window manager does: xdotool would end the client's connection instead."""
    script = f"""
import ctypes
x = ctypes.CDLL("libX11.so.6")
x.XOpenDisplay.restype = ctypes.c_void_p
x.XInternAtom.restype = ctypes.c_ulong
x.XInternAtom.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int]
x.XSendEvent.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_int, ctypes.c_long, ctypes.c_void_p]
x.XSync.argtypes = [ctypes.c_void_p, ctypes.c_int]
display = x.XOpenDisplay(None)
class Message(ctypes.Structure):
    _fields_ = [("type", ctypes.c_int), ("serial", ctypes.c_ulong), ("sent", ctypes.c_int),
                ("display", ctypes.c_void_p), ("window", ctypes.c_ulong), ("kind", ctypes.c_ulong),
                ("format", ctypes.c_int), ("data", ctypes.c_long * 5), ("pad", ctypes.c_long * 24)]
message = Message(33, 0, 1, display, {window}, x.XInternAtom(display, b"WM_PROTOCOLS", 0), 32)
message.data[0] = x.XInternAtom(display, b"WM_DELETE_WINDOW", 0)
x.XSendEvent(display, {window}, 0, 0, ctypes.byref(message))
x.XSync(display, 0)
"""
    subprocess.run([sys.executable, "-c", script], env=display.environment, check=True)


if __name__ == "__main__":
    main(*sys.argv[1:])
