"""Checks of the wall's reports and its outputs.

Each function prints its figures and returns what failed.
"""

from wall import ALARM_AFTER, FRAME_RATE

FRAMES_ON_THEIR_WAY = 5   # sent and not composed yet, or between two readings of a status
FRAME = 1 / FRAME_RATE    # seconds
ALARM_SLACK = 4.0         # seconds: for the return, and for the last good frames that are still on their way
LATE_AROUND = 1.0         # seconds before and after a late frame that count as late


def flat(samples, index, slack):
    """The greatest value of the second and of the last quarter, and whether they are alike."""
    quarter = max(1, len(samples) // 4)
    early = max(sample[index] for sample in samples[quarter:2 * quarter] or samples)
    late = max(sample[index] for sample in samples[-quarter:])
    return early, late, late <= early + slack(early)


def judge_clock(wall):
    # A machine that was suspended for some seconds counts missed frames when it continues: the
    # count may be off for a moment, but then agrees with the clock again.
    statuses = [status for _, status in wall.statuses]
    off = [abs(s["frames"] + s["late"] + s["no_free_buffer"] - s["clock"] * FRAME_RATE) for s in statuses]
    worst = max((min(off[i:i + 5]) for i in range(max(1, len(off) - 4))), default=float("inf")) if off else float("inf")
    worst = max(worst, off[-1]) if off else worst
    last = statuses[-1] if statuses else {}
    print(f"frames: {last.get('frames')} composed, {last.get('late')} late, {last.get('no_free_buffer')} without a free buffer in "
          f"{last.get('clock')} s; the count stays off the clock by {worst:.1f} frames at most")
    longest = max((s["longest_compose_ms"] for s in statuses), default=0)
    mean = sum(s["compose_ms"] for s in statuses) / max(1, len(statuses))
    print(f"composing: {mean:.2f} ms on average, {longest:.1f} ms at most")
    return ["frames are missing that were not counted as late"] if worst > FRAMES_ON_THEIR_WAY else []


class Lateness:
    """When frames were late: what the machine was too busy for is no failure of the wall."""

    def __init__(self, statuses):
        self.spans = []  # (begin, end, seconds of late frames), on the monotonic clock
        for (begin, before), (end, after) in zip(statuses, statuses[1:]):
            if late := sum(after[kind] - before[kind] for kind in ("late", "no_free_buffer", "dropped")):
                self.spans.append((begin - LATE_AROUND, end + LATE_AROUND, late * FRAME))

    def seconds(self, begin, end):
        """Of late frames in that time and around it."""
        return sum(late for late_begin, late_end, late in self.spans if late_begin < end and late_end > begin)

    def without(self, begin, end):
        """The parts of that time without late frames."""
        for late_begin, late_end, _ in self.spans:
            if late_begin < end and late_end > begin:
                if late_begin > begin:
                    yield begin, late_begin
                begin = late_end
        if end > begin:
            yield begin, end


def judge_returns(faults, lateness, limit):
    def took_too_long(fault):
        if fault.back_after == float("inf"):
            return True
        late = lateness.seconds(fault.since, fault.since + fault.back_after)
        return fault.back_after > limit + fault.keyframe_after + late

    slow = [fault for fault in faults if took_too_long(fault)]
    for kind in sorted({fault.kind for fault in faults}):
        after = sorted(fault.back_after for fault in faults if fault.kind == kind)
        print(f"{kind}: {len(after)} times, back after {after[len(after) // 2]:.2f} s in the middle, "
              f"{after[-1]:.2f} s at most")
    for fault in slow:
        print(f"  slow: {fault.channel} {fault.kind} of {fault.length:.1f} s with {fault.clip}: back after "
              f"{fault.back_after:.2f} s" + (f" ({fault.failure})" if fault.failure else ""))
    failures = [f"{len(slow)} of {len(faults)} returns took longer than {limit} s"] if slow else []
    return failures if faults else ["no fault was injected"]


def judge_alarms(faults, raised, lateness):
    alarms = [(fault, alarm) for fault in faults for alarm in fault.alarms]
    print(f"alarms raised: {dict(sorted(raised.items()))}; expected ones after "
          f"{max((alarm.after for _, alarm in alarms), default=0):.2f} s at most, {ALARM_AFTER} s set")
    failures = []
    for fault, alarm in alarms:
        late = lateness.seconds(alarm.since, alarm.since + min(alarm.after, ALARM_AFTER + ALARM_SLACK))
        if alarm.after > ALARM_AFTER + ALARM_SLACK + late:
            failures.append(f"{fault.channel} {fault.kind}: alarm of {alarm.name} after {alarm.after:.2f} s")
    if any(fault.kind == "away" for fault in faults) and not raised.get("loss"):
        failures.append("no alarm of loss")
    return failures


def judge_resources(samples, with_memory):
    failures = []
    if len(samples) < 8:
        return failures
    for index, what, scale, slack in ((1, "resident MB", 1 << 20, lambda early: early * 0.1 + (16 << 20)),
                                      (2, "descriptors", 1, lambda early: 8), (3, "threads", 1, lambda early: 8)):
        early, late, good = flat(samples, index, slack)
        print(f"{what}: {early / scale:.0f} early, {late / scale:.0f} late")
        if not good and (index != 1 or with_memory):
            failures.append(f"{what} grow")
    return failures


def judge_output(name, report, end, times, video):
    """Every composed frame is in the output or counted, and its timestamps have no other gaps."""
    failures = []
    stamps = sorted(times.get(video, []))
    ticks = [round(time * FRAME_RATE) for time in stamps]
    gaps = ticks[-1] - ticks[0] + 1 - len(ticks) if ticks else 0
    missed = end["late"] + end["no_free_buffer"] + report["dropped"]
    print(f"{name}: {len(stamps)} frames, {report['frames']} written, {report['dropped']} dropped of {end['frames']}; "
          f"{gaps} frames long gaps, {missed} counted; audio dropped "
          f"{sum(track['dropped'] for track in report['audio'])}, left out "
          f"{sum(track['left_out'] for track in report['audio'])} of "
          f"{sum(track['packets'] + track['dropped'] + track['left_out'] for track in report['audio'])} packets")
    if report["frames"] + report["dropped"] != end["frames"]:
        failures.append(f"{name}: written and dropped frames are not those that were composed")
    if len(stamps) != report["frames"]:
        failures.append(f"{name}: has {len(stamps)} frames, reported {report['frames']}")
    if gaps > missed:
        failures.append(f"{name}: {gaps} frames are missing among its timestamps, {missed} were counted")
    if any(later <= earlier for earlier, later in zip(ticks, ticks[1:])):
        failures.append(f"{name}: timestamps that do not grow by a frame")
    return failures


def judge_tracks(name, report, times, streams):
    """streams: number of the stream by channel."""
    failures = []
    for track in report["audio"]:
        written = len(times.get(streams.get(track["channel"]), ()))
        reported = track["packets"] + track["silence"]
        if written != reported:
            failures.append(f"{name}: {track['channel']} has {written} packets of audio, {reported} reported")
    return failures


def recording_start(wall, times):
    """The monotonic time of the first frame in the recording."""
    end = wall.end_report
    ticks = end["frames"] + end["late"] + end["no_free_buffer"]
    before = (ticks - round(times[-1] * FRAME_RATE) - 1) * FRAME  # until the recording began
    return min(arrival - status["clock"] for arrival, status in wall.statuses) + before
