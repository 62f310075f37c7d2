"""The faults that are injected into each channel, by a script with a seed of its own."""

import contextlib
import dataclasses
import random
import threading
import time

from clips import CLIPS, GAP_BEGINS, GAP_ENDS, MOVING

RETURN_TIMEOUT = 20.0  # seconds; a channel that is not back by then is counted as never back
SETTLED_AFTER = 1.5    # seconds that a channel stays live once it is back
ALARM_TIMEOUT = 20.0   # seconds; an alarm that is not raised by then is counted as never raised
SHOWN_AFTER = 1.5      # seconds from the source to the wall
AUDIO_MISSING = 1.0    # seconds until audio that stopped counts as silent


@dataclasses.dataclass
class Alarm:
    name: str
    since: float  # when its cause began
    after: float  # seconds until it was raised; infinite: never


@dataclasses.dataclass
class Fault:
    channel: str
    kind: str
    length: float
    since: float       # when the source was back
    back_after: float  # seconds until the channel was; infinite: never
    clip: str = ""
    keyframe_after: float = 0.0  # seconds that it may have to wait for a keyframe besides
    failure: str = ""
    alarms: list = dataclasses.field(default_factory=list)


@dataclasses.dataclass
class Condition:
    """A time in which a channel has to show its frames, and its audio if there is some."""
    channel: str
    name: str
    begin: float
    end: float
    audio: bool


class Script(threading.Thread):
    """Injects faults into the source of one channel."""

    KINDS = ["kill", "stall", "change", "loss", "damage", "still", "black", "away",
             "audio-goes", "audio-stops", "bursts", "audio-early", "audio-late", "sparse-keyframes"]
    LONGEST = 30.0  # seconds that a fault takes

    def __init__(self, name, seed, kinds, wall, sender, relay, until):
        super().__init__(daemon=True)
        self.channel, self.random, self.kinds = name, random.Random(f"{seed}/{name}"), kinds
        self.wall, self.sender, self.relay, self.until = wall, sender, relay, until
        self.faults, self.conditions = [], []
        self.back_since = None  # when the channel was back, until the next condition begins
        self.undecodable = 0.0  # seconds until the next keyframe after lost packets
        self.keyframe_after = 0.0

    def run(self):
        kinds = []
        while True:
            if not kinds:
                kinds = self.random.sample(self.kinds, len(self.kinds))
            pause = self.random.uniform(5, 12)
            if time.monotonic() + pause + self.LONGEST > self.until:
                return
            self.show("calm", pause)
            getattr(self, kinds.pop().replace("-", "_"))()

    @contextlib.contextmanager
    def condition(self, name, audio=True):
        begin = self.back_since if self.back_since is not None else time.monotonic() + SHOWN_AFTER
        begin += self.undecodable
        self.back_since, self.undecodable = None, 0.0
        yield
        self.conditions.append(Condition(self.channel, name, begin, time.monotonic(), audio))

    def show(self, name, seconds, audio=True):
        with self.condition(name, audio):
            time.sleep(seconds)

    def back(self, kind, length, since=None):
        """Waits for the source's first packet, then for the live channel."""
        if since is None:
            if not self.relay.returned.wait(RETURN_TIMEOUT):
                self.faults.append(Fault(self.channel, kind, length, time.monotonic(), float("inf"), self.sender.clip,
                                         failure="the source sent nothing"))
                return
            since = self.relay.returned_at
        live = lambda: self.wall.state(self.channel)[0] == "live"
        gone = lambda: not live()
        timeout = time.monotonic() + RETURN_TIMEOUT
        while True:
            if not self.wall.wait(live, timeout - time.monotonic()):
                after = float("inf")
                break
            became = self.wall.state(self.channel)[1]
            # A source that continues in another form is live until its old frames are used up.
            if not self.wall.wait(gone, max(became, since) + SETTLED_AFTER - time.monotonic()):
                self.back_since = max(became, since)
                # A sender whose connection broke was started again later.
                since = max(since, min(self.sender.started_at, became))
                after = max(0.0, became - since)
                break
        self.faults.append(Fault(self.channel, kind, length, since, after, self.sender.clip, self.keyframe_after))

    def expect_alarms(self, since, *alarms):
        for alarm in alarms:
            raised = lambda: self.wall.alarms.get((self.channel, alarm), False)
            in_time = self.wall.wait(raised, since + ALARM_TIMEOUT - time.monotonic())
            self.faults[-1].alarms.append(Alarm(alarm, since, time.monotonic() - since if in_time else float("inf")))

    def kill(self, kind="kill", length=None, clip=None):
        length = length if length is not None else self.random.uniform(0.5, 4)
        self.sender.kill()
        time.sleep(length)
        self.relay.expect_return()
        before, after = CLIPS[self.sender.clip], CLIPS[clip or self.sender.clip]
        # Other codecs are opened again, and the keyframe that showed them is over by then.
        self.keyframe_after = max(0.0, after.keyframe_interval - 1) if before.codecs != after.codecs else 0.0
        self.sender.restart(clip or self.sender.clip)
        self.back(kind, length)
        self.keyframe_after = 0.0

    def change(self):
        self.kill("change", 0, self.random.choice(MOVING))

    def away(self):
        # Longer than the read limit and the hold time: lost; and back with something else.
        self.kill("away", self.random.uniform(6, 9), self.random.choice(MOVING))

    def stall(self):
        length = self.random.uniform(0.5, 5)
        self.sender.pause()
        time.sleep(length)
        self.relay.expect_return()
        self.sender.resume()
        self.back("stall", length)

    def disturb(self, kind, loss, damage):
        length = self.random.uniform(2, 5)
        self.relay.loss, self.relay.damage = loss, damage
        time.sleep(length)
        self.relay.loss = self.relay.damage = 0
        self.back(kind, length, since=time.monotonic())
        self.undecodable = CLIPS[self.sender.clip].keyframe_interval

    def loss(self):
        self.disturb("loss", 0.1, 0)

    def damage(self):
        self.disturb("damage", 0, 0.1)

    def show_faulty(self, clip, *alarms):
        self.kill(clip, 0, clip)
        started = time.monotonic()
        self.expect_alarms(started, *alarms)
        time.sleep(max(0.0, started + 4 - time.monotonic()))
        self.kill("after " + clip, 0, "plain")

    def still(self):
        self.show_faulty("still", "freeze")

    def black(self):
        self.show_faulty("black", "black", "silence")  # the clip has neither light nor audio

    def show_for_a_while(self, kind, clip, audio=True):
        """A source of another kind, which is to be shown like every other, and then a plain one."""
        length = self.random.uniform(9, 14)
        self.kill(kind, 0, clip)
        self.show(kind, length, audio)
        self.kill("after " + kind, 0, "plain")

    def audio_goes(self):
        self.show_for_a_while("audio-goes", "mute", audio=False)

    def audio_early(self):
        self.show_for_a_while("audio-early", "early")

    def audio_late(self):
        self.show_for_a_while("audio-late", "late")

    def sparse_keyframes(self):
        self.show_for_a_while("sparse-keyframes", "sparse")

    def audio_stops(self):
        """The audio stops and begins again in the stream of a sender that stays."""
        self.kill("audio-stops", 0, "gap")
        started = self.faults[-1].since
        with self.condition("audio-stops", audio=False):
            time.sleep(max(0.0, started + GAP_BEGINS - time.monotonic()))
            self.expect_alarms(started + GAP_BEGINS + AUDIO_MISSING, "silence")
            time.sleep(max(0.0, started + GAP_ENDS + 0.5 - time.monotonic()))
        self.show("audio-stops", self.random.uniform(6, 10))
        self.kill("after audio-stops", 0, "plain")

    def bursts(self):
        """Packets that come together, with up to 0.6 s of silence between them."""
        udp = not self.sender.url.startswith("srt")
        end = time.monotonic() + self.random.uniform(9, 14)
        with self.condition("bursts"):
            while time.monotonic() < end:
                silence = self.random.uniform(0.2, 0.6)
                if udp:
                    self.relay.hold(silence)
                else:
                    self.sender.pause()  # what is due is sent together afterwards; SRT itself would even it out
                time.sleep(silence)
                if not udp:
                    self.sender.resume()
                time.sleep(self.random.uniform(0.02, 0.1))
        self.back("bursts", 0.6, since=time.monotonic())
