"""What each channel shows in the recording while it has to show its frames, its audio and its meter."""

import bisect
import dataclasses
import statistics

import clips
import recording
from wall import FRAME_RATE

FRAME = 1 / FRAME_RATE    # seconds
SETTLE = 3.0              # seconds of a condition before it is checked
LEAST_JUDGED = 0.25       # of the time of all conditions
NEW_FRAMES = 0.98         # of the frames of a channel
IN_SYNC = 0.04 + FRAME    # seconds between audio and video, and what a frame leaves open
BEEPS_FOUND = 0.9        # of the seconds with audio
BEEP_SLACK = 0.02        # seconds that the length of a beep may be off
AUDIO_GAP = 0.1           # seconds
AUDIO_PACKET = 0.04       # seconds, of the longest
METER_LIT = 0.98          # of the frames with audio
METER_MOVES = 0.95        # of the beeps
MOVE = 0.15               # seconds that frames are skipped or repeated
MOVE_AROUND = 15          # frames before and after a beep
LOW_LIT, HIGH_LIT = 108, 140  # luma


@dataclasses.dataclass
class Tally:
    """What was seen in the conditions of one name, or of one channel."""
    seconds: float = 0
    seconds_left_out: float = 0
    frames: float = 0  # that have to be new
    new: int = 0
    unreadable: int = 0
    backwards: int = 0
    audio_seconds: float = 0
    meter_frames: int = 0
    meter_lit: int = 0
    beeps: int = 0
    beep_moves: int = 0
    offsets: list = dataclasses.field(default_factory=list)  # seconds that the audio is behind the video
    gaps: list = dataclasses.field(default_factory=list)     # seconds
    spots: list = dataclasses.field(default_factory=list)    # (seconds in the recording, what)

    def add(self, other):
        for field in dataclasses.fields(self):
            setattr(self, field.name, getattr(self, field.name) + getattr(other, field.name))

    def line(self):
        text = (f"{self.seconds:.0f} s ({self.seconds_left_out:.0f} s left out), new frames "
                f"{self.new / max(1, self.frames):.1%}, unreadable {self.unreadable}, backwards {self.backwards}")
        if self.audio_seconds:
            offsets = sorted(self.offsets) or [float("nan")]
            text += (f"; beeps found {self.beeps / self.audio_seconds:.1%}, audio behind video by "
                     f"{offsets[0]:.3f} to {offsets[-1]:.3f} s, {statistics.median(offsets):.3f} s in the middle; "
                     f"meter lit {self.meter_lit / max(1, self.meter_frames):.1%}, "
                     f"moves {self.beep_moves / max(1, self.beeps):.1%}; "
                     f"gaps {', '.join(f'{gap:.2f}' for gap in sorted(self.gaps)[-5:]) or 'none'}")
        return text

    def failures(self):
        failed = []
        if self.new < NEW_FRAMES * self.frames:
            failed.append(f"only {self.new / self.frames:.1%} new frames")
        if self.backwards:
            failed.append(f"{self.backwards} times an earlier frame after a later one")
        wrong = [offset for offset in self.offsets if abs(offset) > IN_SYNC]
        if wrong:
            failed.append(f"{len(wrong)} of {len(self.offsets)} beeps are not in sync, by up to "
                          f"{max(wrong, key=abs):.3f} s")
        if self.beeps < BEEPS_FOUND * self.audio_seconds - 1:
            failed.append(f"only {self.beeps} whole beeps in {self.audio_seconds:.0f} s of audio")
        if self.meter_lit < METER_LIT * self.meter_frames:
            failed.append(f"the meter is dark in {1 - self.meter_lit / self.meter_frames:.1%} of the frames")
        if self.beep_moves < METER_MOVES * self.beeps - 1:
            failed.append(f"the meter moves with {self.beep_moves} of {self.beeps} beeps only")
        if self.gaps:
            failed.append(f"{len(self.gaps)} gaps in its audio, up to {max(self.gaps):.2f} s")
        return failed


class Window:
    """What the recording has of one channel."""

    def __init__(self, times, codes, low, high, packets, beeps, missing):
        self.times, self.codes, self.low, self.high = times, codes, low, high
        self.beeps = beeps
        # Between the packets, and where they hold nothing.
        self.gaps = [(earlier, later - earlier) for earlier, later in zip(packets, packets[1:])
                     if later - earlier > AUDIO_GAP + AUDIO_PACKET]
        self.gaps += [(time, length) for time, length in missing if length > AUDIO_GAP and
                      not any(gap < time + length and gap + gap_length > time for gap, gap_length in self.gaps)]

    def look(self, begin, end, with_audio):
        tally = Tally(seconds=end - begin)
        first, last = bisect.bisect_left(self.times, begin), bisect.bisect_right(self.times, end)
        for i in range(first + 1, last):
            self.look_at_frame(i, tally)
        if with_audio:
            tally.audio_seconds = end - begin
            tally.meter_frames = last - first
            for i in range(first, last):
                if self.low[i] >= LOW_LIT:
                    tally.meter_lit += 1
                else:
                    tally.spots.append((self.times[i], "dark meter"))
            for time, length in self.gaps:
                if time < end and time + length > begin:
                    tally.gaps.append(length)
                    tally.spots.append((time, f"gap in the audio of {length:.2f} s"))
            for time, length in self.beeps:
                if begin <= time <= end:
                    self.look_at_beep(time, length, tally)
        return tally

    def look_at_frame(self, i, tally):
        before, code = self.codes[i - 1], self.codes[i]
        clip = clips.BY_NUMBER.get(code >> clips.FRAME_BITS)
        tally.frames += min(1, clip.rate / FRAME_RATE) if clip else 1
        if clip is None:
            tally.unreadable += 1
            tally.spots.append((self.times[i], "unreadable"))
        elif before >> clips.FRAME_BITS != code >> clips.FRAME_BITS:
            tally.new += 1
        else:
            count = clips.SECONDS * clip.rate
            step = (code - before) % count  # the clip is repeated
            if step == 0:
                tally.spots.append((self.times[i], "repeated frame"))
            elif step > count / 2:
                tally.backwards += 1
                tally.spots.append((self.times[i], f"back by {count - step} frames"))
            else:
                tally.new += 1

    def moves(self, i, clip):
        """Whether the wall moves the channel in time around that frame, which audio and video do not do at once."""
        first, last = max(0, i - MOVE_AROUND), min(len(self.times) - 1, i + MOVE_AROUND)
        shown = (self.codes[last] - self.codes[first]) % (clips.SECONDS * clip.rate) / clip.rate
        return abs(shown - (self.times[last] - self.times[first])) > MOVE

    def look_at_beep(self, time, length, tally):
        second = round(length / clips.BEEP) - 1
        i = bisect.bisect_right(self.times, time) - 1
        clip = clips.BY_NUMBER.get(self.codes[i] >> clips.FRAME_BITS)
        # A gap may shorten a long beep; it is a failure of its own.
        cut = any(time - 1 < gap < time + length + 1 for gap, _ in self.gaps)
        if cut or clip is not None and self.moves(i, clip):
            tally.audio_seconds -= 1
            return
        if clip is None or not 0 <= second < 4 or abs(length - (second + 1) * clips.BEEP) > BEEP_SLACK:
            tally.spots.append((time, f"beep of {length:.3f} s"))
            return
        tally.beeps += 1
        frame = self.codes[i] % (1 << clips.FRAME_BITS)
        shown = frame / clip.rate + time - self.times[i]  # seconds from the clip's start
        offset = (shown - second + 2) % 4 - 2
        tally.offsets.append(offset)
        if abs(offset) > IN_SYNC:
            tally.spots.append((time, f"audio behind video by {offset:.3f} s"))
        if (max(self.high[max(0, i - 1):i + 6]) >= HIGH_LIT and
                min(self.high[max(0, i - 8):i - 2], default=0) < HIGH_LIT):
            tally.beep_moves += 1
        else:
            tally.spots.append((time, "the meter does not move with a beep"))


def read(path, names, times, video):
    """The windows of the channels, by name, or None when not every frame can be decoded."""
    codes, low, high = recording.read_windows(path, len(names))
    if len(codes[0]) != len(times[video]):
        return None
    streams = recording.audio_streams(path)
    windows = {}
    for i, name in enumerate(names):
        beeps, missing = recording.read_audio(path, streams[name]) if name in streams else ([], [])
        packets = times.get(streams.get(name), ())
        windows[name] = Window(times[video], codes[i], low[i], high[i], packets, beeps, missing)
    return windows


def judge(conditions, windows, start, lateness, much_has_to_be_judged, spots):
    """Prints the figures by condition and by channel, and returns what failed.

    windows: by channel; start: monotonic time of the recording's first frame. What was wrong, and where, goes into
    the file `spots`.
    """
    by_name, by_channel, total = {}, {}, Tally()
    for condition in conditions:
        tally = Tally(seconds_left_out=max(0.0, condition.end - condition.begin - SETTLE))
        for begin, end in lateness.without(condition.begin + SETTLE, condition.end):
            tally.add(windows[condition.channel].look(begin - start, end - start, condition.audio))
        tally.seconds_left_out -= tally.seconds
        for time, what in sorted(tally.spots):
            spots.write(f"{time:.3f}\t{condition.channel}\t{condition.name}\t{what}\n")
        by_name.setdefault(condition.name, Tally()).add(tally)
        by_channel.setdefault(condition.channel, Tally()).add(tally)
        total.add(tally)
    failures = []
    for tallies in (by_name, by_channel):
        for name, tally in sorted(tallies.items()):
            print(f"  {name}: {tally.line()}")
            failures += [f"{name}: {failure}" for failure in tally.failures()]
    if much_has_to_be_judged and total.seconds < LEAST_JUDGED * (total.seconds + total.seconds_left_out):
        failures.append("frames were late so often that the channels could not be judged")
    return failures
