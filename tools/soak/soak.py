#!/usr/bin/env python3
"""A wall of nine live channels into whose sources faults are injected.

Senders of FFmpeg's tools send small clips over loopback (UDP, RTP, and SRT from both sides) through relays to
`tavrel run`, whose status and events are read, as are its two outputs: a recording and a pipe. A seeded script for
each channel injects the faults. The verdict:

  frames    every tick of the wall's clock gave a frame or was counted as late or as without a free buffer; every
            frame is in each output or counted as dropped, and the timestamps have no other gaps
  return    each channel is live again within the limit after the first packet of its source
  alarms    a lost, a frozen, a black and a silent channel raised their alarms in time
  channels  from three seconds after a fault on, and under the faults that a wall is to absorb (bursts, audio muxed
            earlier or later than its video, rare keyframes, and for its frames audio that is missing): at least
            98 % of the frames are new ones and none is earlier than the one before, audio and video are in sync,
            the audio has no gap, and the meter moves with it
  memory    and descriptors of the wall's process do not grow
  end       the wall ends in good order, without a sanitizer's report; no thread of the soak itself died

Delays of a busy machine are no failure of the wall: frames that it counts as late extend the limits, and channels are
not checked around them.
"""

import argparse
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import traceback

import channels
import clips
import faults
import recording
import senders
import verdicts
import wall as walls

PROTOCOLS = ["udp"] * 3 + ["rtp"] * 2 + ["listener"] * 2 + ["caller"] * 2
RETURN_LIMIT = 2.0  # seconds
START_LIMIT = 60.0  # seconds until all channels are live


def kinds(text):
    chosen = text.split(",")
    unknown = set(chosen) - set(faults.Script.KINDS)
    if unknown:
        raise argparse.ArgumentTypeError(f"unknown: {', '.join(sorted(unknown))}; there are "
                                         f"{', '.join(faults.Script.KINDS)}")
    return chosen


def read_arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--program", default="build/release/bin/tavrel", help="the program under test")
    parser.add_argument("--minutes", type=float, default=5)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--only", type=kinds, default=faults.Script.KINDS, metavar="KIND[,KIND...]",
                        help="kinds of faults: " + ", ".join(faults.Script.KINDS))
    parser.add_argument("--return-limit", type=float, default=RETURN_LIMIT, help="seconds")
    parser.add_argument("--do-not-judge-memory", action="store_true",
                        help="resident memory is printed only: it is mostly not the program's own")
    parser.add_argument("--may-be-late", action="store_true",
                        help="frames may be late so often that little of the channels can be judged")
    parser.add_argument("--keep", type=pathlib.Path,
                        help="folder that keeps the recording, the messages and the events")
    return parser.parse_args()


class Run:
    """One run of the wall, its files in a folder of its own."""

    def __init__(self, folder):
        self.recording, self.pipe, self.pipe_packets = folder / "wall.mkv", folder / "pipe", folder / "pipe.packets"
        self.messages, self.events = folder / "messages.log", folder / "events.log"
        self.samples, self.spots = folder / "samples.tsv", folder / "spots.tsv"
        self.folder, self.wall_file = folder, folder / "wall.toml"
        self.names, self.scripts = [], []
        self.wall, self.code, self.died = None, None, False
        self.dead_threads = []
        threading.excepthook = self.note_dead_thread

    def note_dead_thread(self, death):
        """Fails the run: channels that no script disturbs any more would pass."""
        traceback.print_exception(death.exc_type, death.exc_value, death.exc_traceback)
        name = type(death.thread).__name__ if death.thread else "a thread"
        self.dead_threads.append(f"{name} of the soak died: {death.exc_type.__name__}: {death.exc_value}")

    def run(self, program, seed, chosen, minutes):
        sources = []
        base = 20000 + seed % 1000 * 20
        for i, protocol in enumerate(PROTOCOLS):
            sources.append(senders.connect(self.folder, seed * 100 + i, protocol, base + 2 * i, base + 2 * i + 1))
            self.names.append(f"{protocol}-{i + 1}")
        walls.write_wall(self.wall_file, [(name, url) for name, (_, _, url) in zip(self.names, sources)],
                         self.recording, self.pipe)
        relays = senders.Relays([relay for _, relay, _ in sources])
        relays.start()
        reader = walls.PipeReader(self.pipe, self.pipe_packets)
        with open(self.messages, "w") as messages, open(self.events, "w") as events:
            self.wall = walls.Wall([program, "run", str(self.wall_file), "--json", "--events"], messages, events)
            for sender, _, _ in sources:
                sender.start()
            all_live = lambda: all(self.wall.states.get(name, ("",))[0] == "live" for name in self.names)
            if not self.wall.wait(all_live, START_LIMIT):
                print("not all channels came up:", {name: self.wall.state(name)[0] for name in self.names})
            until = time.monotonic() + minutes * 60
            self.scripts = [faults.Script(name, seed, chosen, self.wall, sender, relay, until)
                            for name, (sender, relay, _) in zip(self.names, sources)]
            for script in self.scripts:
                script.start()
            while (any(script.is_alive() for script in self.scripts) and self.wall.process.poll() is None
                   and not self.dead_threads):
                self.wall.measure()
                time.sleep(2)
            self.end_wall()
            for sender, _, _ in sources:
                sender.end()
            relays.ends = True
            reader.end()

    def end_wall(self):
        self.died = self.wall.process.poll() is not None
        if not self.died:
            self.wall.process.send_signal(signal.SIGTERM)
        try:
            self.code = self.wall.process.wait(60)
        except subprocess.TimeoutExpired:
            self.wall.process.kill()
            self.code = "none: it did not end within a minute"
        self.wall.reader.join(10)

    def judge(self, arguments):
        lateness = verdicts.Lateness(self.wall.statuses)
        injected = [fault for script in self.scripts for fault in script.faults]
        failures = verdicts.judge_clock(self.wall)
        failures += verdicts.judge_returns(injected, lateness, arguments.return_limit)
        failures += verdicts.judge_alarms(injected, self.wall.raised, lateness)
        failures += verdicts.judge_resources(self.wall.samples, not arguments.do_not_judge_memory)
        failures += self.judge_end()
        if self.wall.end_report is not None and self.wall.statuses:
            failures += self.judge_outputs(lateness, not arguments.may_be_late)
        return failures

    def judge_end(self):
        failures = list(self.dead_threads)
        if self.died:
            failures.append(f"the wall ended by itself with {self.code}")
        elif self.code != 0:
            failures.append(f"the wall's exit code is {self.code}")
        if self.wall.end_report is None:
            failures.append("there is no report at the end")
        if re.search(r"ERROR: \w+Sanitizer|WARNING: ThreadSanitizer|runtime error:",
                     self.messages.read_text(errors="replace")):
            failures.append("a sanitizer has something to report")
        return failures

    def judge_outputs(self, lateness, much_has_to_be_judged):
        end = self.wall.end_report
        with open(self.pipe_packets) as lines:
            failures = verdicts.judge_output("pipe", end["outputs"][1], end, *recording.read_packets(lines))
        times, video = recording.read_file_packets(self.recording)
        failures += verdicts.judge_output("recording", end["outputs"][0], end, times, video)
        streams = recording.audio_streams(self.recording)
        failures += verdicts.judge_tracks("recording", end["outputs"][0], times, streams)
        windows = channels.read(self.recording, self.names, times, video) if times.get(video) else None
        if windows is None:
            return failures + ["the recording cannot be decoded completely"]
        conditions = [condition for script in self.scripts for condition in script.conditions]
        with open(self.spots, "w") as spots:
            return failures + channels.judge(conditions, windows, verdicts.recording_start(self.wall, times[video]),
                                             lateness, much_has_to_be_judged, spots)

    def keep(self, folder):
        folder.mkdir(parents=True, exist_ok=True)
        with open(self.events, "a") as events:
            for script in self.scripts:
                events.writelines(f"{fault.since:.3f} {fault}\n" for fault in script.faults)
                events.writelines(f"{condition.begin:.3f} {condition}\n" for condition in script.conditions)
        self.samples.write_text("".join("\t".join(map(str, sample)) + "\n" for sample in self.wall.samples))
        for path in (self.recording, self.messages, self.events, self.samples, self.spots, self.wall_file):
            if path.exists():
                shutil.move(path, folder / path.name)
        print("the recording, what is wrong in it, messages, events and the wall file are in", folder)


def main():
    arguments = read_arguments()
    folder = pathlib.Path(tempfile.mkdtemp(prefix="tavrel-soak-"))
    try:
        clips.make(folder)
        run = Run(folder)
        run.run(arguments.program, arguments.seed, arguments.only, arguments.minutes)
        failures = run.judge(arguments)
        for failure in failures:
            print("FAILED:", failure)
        if failures or arguments.keep:
            run.keep(arguments.keep or pathlib.Path("out/soak"))
    finally:
        shutil.rmtree(folder, ignore_errors=True)
    count = sum(len(script.faults) for script in run.scripts)
    print("soak:", "FAILED" if failures else "passed", f"(seed {arguments.seed}, {count} faults injected)")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
