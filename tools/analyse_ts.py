#!/usr/bin/env python3
"""Checks an MPEG transport stream as the first and second priority of TR 101 290 do, and its decoder buffer.

Reads a file, the standard input ("-") or UDP ("udp://ADDRESS:PORT", unicast or multicast). Exit code 0 when nothing
was found, 1 when something was, 2 when the stream could not be read.

Times within the stream are those of its PCR, interpolated by bytes between two PCRs. Over UDP the arrival of each PCR
is compared with its value as well (PCR jitter).
"""

import argparse
import json
import select
import socket
import struct
import sys
import time

PACKET = 188
PCR_HZ = 27_000_000
PCR_WRAP = (1 << 33) * 300
NULL_PID = 0x1FFF
SO_RXQ_OVFL = 40  # Linux: the datagrams for which the socket had no room

LIMITS = {  # seconds
    "pat": 0.5,
    "pmt": 0.5,
    "pcr": 0.1,
    "pts": 0.7,
    "pid": 5.0,
    "ahead": 10.0,  # of a PTS before its PCR: no decoder buffers more
}


def crc32(data):
    crc = 0xFFFFFFFF
    for byte in data:
        crc ^= byte << 24
        for _ in range(8):
            crc = ((crc << 1) ^ 0x04C11DB7 if crc & 0x80000000 else crc << 1) & 0xFFFFFFFF
    return crc


def read_timestamp(data, at):
    return (
        (data[at] >> 1 & 7) << 30 | data[at + 1] << 22 | data[at + 2] >> 1 << 15 | data[at + 3] << 7 | data[at + 4] >> 1
    )


class Findings:
    """The errors by check: how many, and where the first ones were."""

    def __init__(self, log):
        self.counts = {}
        self.first = {}
        self.log = log

    def add(self, check, seconds, text):
        self.counts[check] = self.counts.get(check, 0) + 1
        examples = self.first.setdefault(check, [])
        if len(examples) < 5:
            examples.append(f"{seconds:.3f} s: {text}")
            if self.log:
                print(f"{check}: {examples[-1]}", file=sys.stderr, flush=True)


class Sections:
    """Puts the sections of one PID together; hands each whole one over."""

    def __init__(self):
        self.data = None

    def push(self, packet, payload, starts):
        sections = []
        if starts:
            pointer = packet[payload]
            if self.data is not None:
                self.data += packet[payload + 1 : payload + 1 + pointer]
                self.take(sections)
            self.data = bytearray(packet[payload + 1 + pointer :])
        elif self.data is not None:
            self.data += packet[payload:]
        self.take(sections)
        return sections

    def take(self, sections):
        while self.data is not None and len(self.data) >= 3:
            if self.data[0] == 0xFF:
                self.data = None
                return
            length = 3 + ((self.data[1] & 0x0F) << 8 | self.data[2])
            if len(self.data) < length:
                return
            sections.append(bytes(self.data[:length]))
            self.data = self.data[length:]


class Pid:
    def __init__(self):
        self.counter = None
        self.repeated = False
        self.packets = 0
        self.dts = None  # of the PES packet that is being received, 90 kHz
        self.pes = 0  # its number
        self.pts_at = None  # stream time of the latest PTS
        self.sections = Sections()


class Analyser:
    def __init__(self, findings, jitter_limit):
        self.findings = findings
        self.jitter_limit = jitter_limit
        self.pids = {}
        self.packets = 0
        self.pmt_pid = None
        self.pcr_pid = None
        self.streams = {}  # PID: stream type
        self.listed_at = {}  # PID: when it was listed or seen
        self.last_table = {}
        # From one PCR to the next: what happened at which packet.
        self.pcr = None
        self.pcr_packet = 0
        self.clock = 0  # ticks of the PCR since the first one, without wraps
        self.events = []
        self.last_of_pes = {}
        self.base = None  # PCR that the clock began with
        self.longest = {}
        self.shortest_lead = None
        # Of the arrival of the PCRs over UDP.
        self.offsets = []
        self.jitter = 0.0

    def seconds(self):
        return self.clock / PCR_HZ

    def error(self, check, text, at=None):
        self.findings.add(check, self.seconds() if at is None else at, text)

    def interval(self, name, key, at, limit, check):
        """An interval between two events of a kind; at: stream time in seconds."""
        last = self.last_table.get(key)
        self.last_table[key] = at
        if last is None:
            return
        self.longest[name] = max(self.longest.get(name, 0.0), at - last)
        if at - last > limit:
            self.error(check, f"{at - last:.3f} s between two of {name} {key[1]}", at)

    def push(self, packet, arrival=None):
        index = self.packets
        self.packets += 1
        if packet[0] != 0x47:
            self.error("1.2 sync_byte", f"0x{packet[0]:02x}")
            return
        pid = (packet[1] & 0x1F) << 8 | packet[2]
        if packet[1] & 0x80:
            self.error("2.1 transport_error", f"PID {pid}")
        if pid == NULL_PID:
            return
        state = self.pids.setdefault(pid, Pid())
        state.packets += 1
        starts = bool(packet[1] & 0x40)
        has_adaptation = packet[3] & 0x20
        has_payload = packet[3] & 0x10
        adaptation = packet[4] if has_adaptation else -1
        if adaptation > 183:
            self.error("1.2 sync_byte", f"PID {pid}: adaptation field of {adaptation} bytes")
            return
        flags = packet[5] if adaptation > 0 else 0
        discontinuity = bool(flags & 0x80)
        self.check_continuity(state, pid, packet[3] & 0x0F, has_payload, discontinuity)
        if flags & 0x10 and (self.pcr_pid is None or pid == self.pcr_pid):
            base = packet[6] << 25 | packet[7] << 17 | packet[8] << 9 | packet[9] << 1 | packet[10] >> 7
            self.on_pcr(base * 300 + ((packet[10] & 1) << 8 | packet[11]), index, discontinuity, arrival)
        if not has_payload:
            return
        payload = 5 + adaptation
        if pid == 0 or pid == self.pmt_pid:
            if packet[3] & 0xC0:
                self.error("1.3 PAT" if pid == 0 else "1.5 PMT", "scrambled")
                return
            for section in state.sections.push(packet, payload, starts):
                self.on_section(pid, section, index)
        elif pid in self.streams:
            self.listed_at[pid] = self.seconds()
            if starts:
                self.on_pes(state, pid, packet, payload, index)
            if state.dts is not None:
                self.last_of_pes[(pid, state.pes)] = (state.dts, index)

    def check_continuity(self, state, pid, counter, has_payload, discontinuity):
        if state.counter is not None and not discontinuity:
            wanted = (state.counter + 1) % 16 if has_payload else state.counter
            is_repeated = bool(has_payload) and counter == state.counter and not state.repeated
            if counter != wanted and not is_repeated:
                self.error("1.4 continuity_count", f"PID {pid}: {counter} instead of {wanted}")
            state.repeated = is_repeated
        state.counter = counter

    def on_section(self, pid, section, index):
        check = "1.3 PAT" if pid == 0 else "1.5 PMT"
        if crc32(section) != 0:
            self.error("2.2 CRC", f"PID {pid}")
            return
        if section[0] != (0 if pid == 0 else 2):
            self.error(check, f"table_id {section[0]} on PID {pid}")
            return
        self.events.append((index, "PAT" if pid == 0 else "PMT", check, pid))
        if pid == 0:
            for at in range(8, len(section) - 4, 4):
                number, mapped = struct.unpack_from(">HH", section, at)
                if number != 0 and self.pmt_pid is None:
                    self.pmt_pid = mapped & 0x1FFF
            return
        self.pcr_pid = (section[8] & 0x1F) << 8 | section[9]
        at = 12 + ((section[10] & 0x0F) << 8 | section[11])
        streams = {}
        while at + 5 <= len(section) - 4:
            listed = (section[at + 1] & 0x1F) << 8 | section[at + 2]
            streams[listed] = section[at]
            self.listed_at.setdefault(listed, self.seconds())
            at += 5 + ((section[at + 3] & 0x0F) << 8 | section[at + 4])
        self.streams = streams

    def on_pes(self, state, pid, packet, payload, index):
        if payload + 14 > PACKET or packet[payload : payload + 3] != b"\0\0\1":
            self.error("PES", f"PID {pid}: no header")
            return
        state.pes += 1
        flags = packet[payload + 7] >> 6
        if flags & 2:
            pts = read_timestamp(packet, payload + 9)
            state.dts = read_timestamp(packet, payload + 14) if flags == 3 and payload + 19 <= PACKET else pts
            self.events.append((index, "PTS", "2.5 PTS", pid))

    def on_pcr(self, pcr, index, discontinuity, arrival):
        if self.pcr is None or discontinuity:
            self.pcr = pcr
            self.base = pcr - self.clock
            self.pcr_packet = index
            self.events.clear()
            self.last_of_pes.clear()
        else:
            step = (pcr - self.pcr) % PCR_WRAP
            if step > PCR_WRAP // 2:
                self.error("2.3b PCR_discontinuity", f"{(step - PCR_WRAP) / PCR_HZ:.3f} s back")
                step = 0
            self.close_block(step, index)
            self.longest["PCR"] = max(self.longest.get("PCR", 0.0), step / PCR_HZ)
            if step > LIMITS["pcr"] * PCR_HZ:
                self.error("2.3a PCR_repetition", f"{step / PCR_HZ:.3f} s since the one before")
            self.clock += step
            self.pcr = pcr
            self.pcr_packet = index
        self.check_presence()
        if arrival is not None:
            self.on_arrival(arrival)

    def close_block(self, step, index):
        """What came since the latest PCR has its time now."""
        begin = self.pcr_packet
        scale = step / max(1, index - begin)
        for at, name, check, pid in self.events:
            seconds = (self.clock + (at - begin) * scale) / PCR_HZ
            limit = LIMITS["pts" if name == "PTS" else name.lower()]
            self.interval(name, (name, pid), seconds, limit, check)
        self.events.clear()
        for (pid, _), (dts, at) in self.last_of_pes.items():
            now = (self.pcr + (at - begin) * scale) / 300
            lead = ((dts - now + (1 << 32)) % (1 << 33) - (1 << 32)) / 90_000
            self.shortest_lead = lead if self.shortest_lead is None else min(lead, self.shortest_lead)
            if lead < 0:
                self.error("PTS before PCR", f"PID {pid}: its last byte comes {-lead:.3f} s after its time")
            elif lead > LIMITS["ahead"]:
                self.error("PTS far from PCR", f"PID {pid}: {lead:.3f} s ahead")
        self.last_of_pes.clear()

    def check_presence(self):
        now = self.seconds()
        for (name, pid), at in list(self.last_table.items()):
            if name != "PTS" and now - at > 5 * LIMITS[name.lower()]:
                self.error("1.3 PAT" if name == "PAT" else "1.5 PMT", f"no {name} for {now - at:.3f} s")
                self.last_table[(name, pid)] = now
        for pid in self.streams:
            if now - self.listed_at.get(pid, now) > LIMITS["pid"]:
                self.error("1.6 PID", f"PID {pid} is in the PMT and nothing comes")
                self.listed_at[pid] = now

    def on_arrival(self, arrival):
        # Ten seconds of it: a clock that runs slower or faster is no jitter.
        self.offsets.append((arrival, arrival - self.seconds()))
        while arrival - self.offsets[0][0] > 10:
            self.offsets.pop(0)
        spread = max(o for _, o in self.offsets) - min(o for _, o in self.offsets)
        self.jitter = max(self.jitter, spread)
        if spread > self.jitter_limit:
            self.error("PCR jitter", f"{spread * 1000:.1f} ms within ten seconds")
            self.offsets.clear()

    def finish(self):
        if self.pmt_pid is None:
            self.error("1.3 PAT", "none")
        elif not self.streams:
            self.error("1.5 PMT", "none")
        for pid in self.streams:
            if pid not in self.pids:
                self.error("1.6 PID", f"PID {pid} is in the PMT and nothing came")
        if self.pcr is None:
            self.error("2.3a PCR_repetition", "none")

    def report(self):
        return {
            "packets": self.packets,
            "seconds": round(self.seconds(), 3),
            "streams": len(self.streams),
            "longest_interval": {name: round(value, 4) for name, value in sorted(self.longest.items())},
            "shortest_lead": None if self.shortest_lead is None else round(self.shortest_lead, 4),
            "pcr_jitter": round(self.jitter, 4),
            "errors": self.findings.counts,
            "first": self.findings.first,
        }


def read_file(source, analyser, until):
    stream = sys.stdin.buffer if source == "-" else open(source, "rb")
    rest = b""
    while time.monotonic() < until:
        data = rest + stream.read(PACKET * 1000)
        whole = len(data) - len(data) % PACKET
        for at in range(0, whole, PACKET):
            analyser.push(data[at : at + PACKET])
        if whole == 0:
            if data:
                analyser.error("1.1 sync_loss", f"{len(data)} bytes at the end are no packet")
            return
        rest = data[whole:]


def open_socket(source):
    host, _, port = source.removeprefix("udp://").partition("?")[0].lstrip("@").rpartition(":")
    receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    receiver.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8 << 20)
    receiver.setsockopt(socket.SOL_SOCKET, SO_RXQ_OVFL, 1)
    receiver.bind((host, int(port)))
    if host and 224 <= int(socket.inet_aton(host)[0]) < 240:
        group = socket.inet_aton(host) + socket.inet_aton("0.0.0.0")
        receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, group)
    return receiver


def read_udp(source, analyser, until, silence):
    receiver = open_socket(source)
    lost = 0
    while time.monotonic() < until:
        if not select.select([receiver], [], [], min(silence, max(0.0, until - time.monotonic())))[0]:
            if time.monotonic() < until:
                analyser.error("1.1 sync_loss", f"nothing for {silence:.1f} s")
                return
            continue
        data, extra, _, _ = receiver.recvmsg(65536, 64)
        arrival = time.monotonic()
        for level, kind, value in extra:
            if level == socket.SOL_SOCKET and kind == SO_RXQ_OVFL:
                dropped = struct.unpack("I", value)[0]
                if dropped != lost:
                    analyser.error("receiver", f"its buffer had no room for {dropped - lost} datagrams")
                    lost = dropped
        if len(data) % PACKET:
            analyser.error("1.1 sync_loss", f"a datagram of {len(data)} bytes")
        for at in range(0, len(data) - PACKET + 1, PACKET):
            analyser.push(data[at : at + PACKET], arrival)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("source")
    parser.add_argument("--seconds", type=float, default=float("inf"), help="end after that time [the end of the stream]")
    parser.add_argument("--silence", type=float, default=10, help="over UDP: end after so long without data [10]")
    parser.add_argument("--jitter", type=float, default=0.1, help="over UDP: largest jitter of the PCR in seconds [0.1]")
    parser.add_argument("--json", action="store_true", help="one line for programs")
    arguments = parser.parse_args()
    findings = Findings(not arguments.json)
    analyser = Analyser(findings, arguments.jitter)
    until = time.monotonic() + arguments.seconds
    try:
        if arguments.source.startswith("udp://"):
            read_udp(arguments.source, analyser, until, arguments.silence)
        else:
            read_file(arguments.source, analyser, until)
    except OSError as error:
        print(f"analyse_ts: {arguments.source}: {error}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        pass
    analyser.finish()
    report = analyser.report()
    if arguments.json:
        print(json.dumps(report))
    else:
        for name, value in report.items():
            print(f"{name}: {value}")
    return 1 if findings.counts else 0


if __name__ == "__main__":
    sys.exit(main())
