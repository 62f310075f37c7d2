"""Reads the wall's recording: its packets, the codes and meters in its frames, and the beeps in its audio.

Everything is streamed through FFmpeg's tools; what is kept are a few numbers for each frame.
"""

import array
import operator
import subprocess

import clips
import wall

SCALE = 2             # the frames are read at that fraction of their size
METER_ROWS = 8        # that are read of a column
CONTRAST = 40         # of a cell of the code and the one under it, in luma
UNREADABLE = -1
AUDIO_RATE = 8000     # the audio is read at that rate
BLOCK = 40            # samples, 5 ms
BEEP_LEVEL = 0.1     # of full scale; beeps are above, the quiet tone is below
PRESENT_LEVEL = 0.006  # the quiet tone is above


def read_packets(lines):
    """The presentation timestamps in seconds of each stream, and the number of its video stream."""
    times, video = {}, None
    for line in lines:
        if "|" not in line:
            continue  # of side data
        kind, stream, time = line.strip().split("|")[:3]
        if kind == "video":
            video = int(stream)
        if time != "N/A":
            times.setdefault(int(stream), array.array("d")).append(float(time))
    return times, video


def read_file_packets(path):
    with subprocess.Popen(["ffprobe", "-v", "error", "-of", "compact=p=0:nk=1", "-show_entries",
                           "packet=codec_type,stream_index,pts_time", path],
                          stdout=subprocess.PIPE, text=True) as process:
        return read_packets(process.stdout)


def audio_streams(path):
    """The numbers of the streams of audio by their titles, in the order of the file."""
    lines = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "a", "-of", "compact=p=0:nk=1",
                            "-show_entries", "stream=index:stream_tags=title", path],
                           stdout=subprocess.PIPE, text=True, check=True).stdout.split("\n")
    return {line.split("|")[1]: int(line.split("|")[0]) for line in lines if "|" in line}


class Window:
    """Where the code and the meter of one window are in a frame that is read."""

    def __init__(self, index):
        width, height = (side / SCALE for side in wall.WINDOW)
        left, top = index % wall.COLUMNS * width, index // wall.COLUMNS * height
        stride = wall.CANVAS[0] // SCALE

        def pixels(across, down):
            return [int(top + y * height) * stride + int(left + x * width) for y in down for x in across]

        cells = [clips.CODE_LEFT + clips.CODE_WIDTH * (i + 0.5) / clips.CELLS for i in range(clips.CELLS)]
        self.upper = operator.itemgetter(*pixels(cells, [clips.CODE_TOP + clips.CODE_HEIGHT / 4]))
        self.lower = operator.itemgetter(*pixels(cells, [clips.CODE_TOP + clips.CODE_HEIGHT * 3 / 4]))
        # The meter is a tenth of the window wide. Beeps light its bars where the quiet tone does not.
        self.low, self.high = (
            [operator.itemgetter(*pixels([x / 160], [top + 0.022 * i for i in range(METER_ROWS)]))
             for x in range(1, 15)] for top in (0.8, 0.4))

    def code(self, frame):
        code = 0
        for upper, lower in zip(self.upper(frame), self.lower(frame)):
            if abs(upper - lower) < CONTRAST:
                return UNREADABLE
            code = code << 1 | (upper > lower)
        return code

    def meter(self, frame):
        """Luma of the brightest column of the meter, where every tone and where only beeps light it."""
        return [max(sum(column(frame)) for column in columns) // METER_ROWS for columns in (self.low, self.high)]


def read_windows(path, count):
    """For each window the code of each frame and two arrays with the light of its meter."""
    width, height = (side // SCALE for side in wall.CANVAS)
    windows = [Window(i) for i in range(count)]
    codes, low, high = ([array.array("i") for _ in windows] for _ in range(3))
    command = ["ffmpeg", "-v", "error", "-nostdin", "-i", path, "-map", "0:v", "-vsync", "passthrough",
               "-vf", f"scale={width}:{height}:flags=area,format=gray", "-f", "rawvideo", "-"]
    with subprocess.Popen(command, stdout=subprocess.PIPE) as process:
        while len(frame := process.stdout.read(width * height)) == width * height:
            for i, window in enumerate(windows):
                codes[i].append(window.code(frame))
                for meters, light in zip((low, high), window.meter(frame)):
                    meters[i].append(light)
    return codes, low, high


def read_audio(path, stream):
    """The beeps of a track and the times at which even the quiet tone is missing: (time, length), in seconds."""
    # Packets that arrived damaged are in the recording as they are.
    command = ["ffmpeg", "-v", "fatal", "-nostdin", "-i", path, "-map", f"0:{stream}",
               "-af", f"aresample={AUDIO_RATE}:async=1:min_hard_comp=0.01:first_pts=0",
               "-ac", "1", "-f", "s16le", "-"]
    beeps, missing = Spans(), Spans()
    time = 0.0
    with subprocess.Popen(command, stdout=subprocess.PIPE) as process:
        while data := process.stdout.read(BLOCK * 2 * 1000):
            samples = array.array("h", data[:len(data) // 2 * 2])
            for i in range(0, len(samples), BLOCK):
                block = samples[i:i + BLOCK]
                peak = max(max(block), -min(block)) / 32768
                beeps.add(time, peak >= BEEP_LEVEL)
                missing.add(time, peak < PRESENT_LEVEL)
                time += BLOCK / AUDIO_RATE
    beeps.add(time, False)
    missing.add(time, False)
    return beeps.spans, missing.spans


class Spans:
    def __init__(self):
        self.spans, self.since = [], None

    def add(self, time, holds):
        if holds and self.since is None:
            self.since = time
        elif not holds and self.since is not None:
            self.spans.append((self.since, time - self.since))
            self.since = None
