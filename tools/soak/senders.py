"""Senders of the channels' sources and the relays on their way to the wall."""

import random
import selectors
import signal
import socket
import struct
import subprocess
import threading
import time

from clips import CLIPS, KEEP_ORDER


class RtpPacketizer:
    """Puts datagrams of a transport stream into RTP packets whose timestamps are the time of sending.

    FFmpeg's muxer takes the timestamps of what it muxes instead, and fails when audio and video are far apart.
    """

    def __init__(self, generator):
        self.random = generator
        self.sender = None
        self.sequence = self.source = 0

    def packetize(self, data, sender):
        if data[0] != 0x47:
            return data  # it is one
        if sender != self.sender:
            self.sender = sender
            self.sequence, self.source = self.random.randrange(1 << 16), self.random.randrange(1 << 32)
        self.sequence = (self.sequence + 1) % (1 << 16)
        timestamp = int(time.monotonic() * 90000) % (1 << 32)
        return struct.pack(">BBHII", 0x80, 33, self.sequence, timestamp, self.source) + data


class Relay:
    """Passes datagrams from one port to another and back, dropping, damaging or holding back some.

    What damages a datagram on its way is found by its checksum, and it is dropped: what arrives damaged was so
    before it was sent. So the control packets of SRT and all headers stay whole.
    """

    HEADERS = {"udp": 0, "rtp": 12, "srt": 16}

    def __init__(self, listen, target, seed, protocol):
        self.random = random.Random(seed)
        self.header = self.HEADERS[protocol]
        self.has_control = protocol == "srt"
        self.packetizer = RtpPacketizer(self.random) if protocol == "rtp" else None
        self.socket = self.open_socket(listen)
        self.target = ("127.0.0.1", target)
        self.back = self.open_socket(0)
        self.peer = None
        self.loss = 0.0
        self.damage = 0.0
        self.lock = threading.Lock()
        self.waiting = False
        self.returned = threading.Event()
        self.returned_at = 0.0
        self.hold_until = 0.0
        self.held = []

    @staticmethod
    def open_socket(port):
        opened = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        opened.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 21)
        opened.bind(("127.0.0.1", port))
        opened.setblocking(False)
        return opened

    def expect_return(self):
        """`returned` is set with the next packet of media, and `returned_at` is its time."""
        with self.lock:
            self.returned.clear()
            self.waiting = True

    def hold(self, seconds):
        """What comes in the next seconds is passed on at their end, together."""
        self.hold_until = time.monotonic() + seconds

    def receive(self, forward):
        source = self.socket if forward else self.back
        for _ in range(64):
            try:
                data, sender = source.recvfrom(65536)
            except (BlockingIOError, ConnectionError):
                return
            if forward:
                self.peer = sender
            if len(data) > 600:  # media; connections and reports are smaller
                with self.lock:
                    if self.waiting:
                        self.waiting = False
                        self.returned_at = time.monotonic()
                        self.returned.set()
            if self.packetizer is not None:
                data = self.packetizer.packetize(data, sender)
            if self.random.random() < self.loss:
                continue
            control = self.has_control and data[0] & 0x80
            if self.random.random() < self.damage and not control and len(data) > self.header:
                data = bytearray(data)
                for _ in range(3):
                    data[self.random.randrange(self.header, len(data))] ^= 1 << self.random.randrange(8)
            if forward and (self.held or time.monotonic() < self.hold_until):
                self.held.append(data)
            else:
                self.send(forward, data)

    def release(self):
        if self.held and time.monotonic() >= self.hold_until:
            for data in self.held:
                self.send(True, data)
            self.held = []

    def send(self, forward, data):
        try:
            if forward:
                self.back.sendto(data, self.target)
            elif self.peer is not None:
                self.socket.sendto(data, self.peer)
        except (BlockingIOError, ConnectionError):
            pass


class Relays(threading.Thread):
    """All relays, on one thread."""

    def __init__(self, relays):
        super().__init__(daemon=True)
        self.relays = relays
        self.selector = selectors.DefaultSelector()
        self.ends = False
        for relay in relays:
            self.selector.register(relay.socket, selectors.EVENT_READ, (relay, True))
            self.selector.register(relay.back, selectors.EVENT_READ, (relay, False))

    def run(self):
        while not self.ends:
            for key, _ in self.selector.select(timeout=0.01):
                relay, forward = key.data
                relay.receive(forward)
            for relay in self.relays:
                relay.release()


class Sender(threading.Thread):
    """Keeps a sender running unless it is meant to be away."""

    def __init__(self, folder, url):
        super().__init__(daemon=True)
        self.folder, self.url = folder, url
        self.clip = "plain"
        self.lock = threading.Lock()
        self.process = None
        self.started_at = 0.0
        self.away = False
        self.ends = False

    def start_process(self):
        clip, url = CLIPS[self.clip], self.url
        if KEEP_ORDER in clip.sending and url.startswith("rtp:"):
            url = url.replace("rtp:", "udp:", 1)  # the relay makes RTP packets of it
        self.started_at = time.monotonic()
        self.process = subprocess.Popen(
            ["ffmpeg", "-v", "quiet", "-nostdin", "-re", "-stream_loop", "-1", "-i", self.folder / f"{self.clip}.ts",
             "-map", "0", "-c", "copy", *clip.sending.split(),
             "-f", "rtp_mpegts" if url.startswith("rtp:") else "mpegts", url],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def run(self):
        while not self.ends:
            with self.lock:
                gone = self.process is None or self.process.poll() is not None
                if gone and not self.away and not self.ends:
                    self.start_process()
            time.sleep(0.1)

    def kill(self):
        with self.lock:
            self.away = True
            if self.process is not None:
                self.process.kill()
                self.process.wait()

    def restart(self, clip):
        with self.lock:
            self.clip = clip
            self.away = False
            self.start_process()

    def pause(self):
        self.send_signal(signal.SIGSTOP)

    def resume(self):
        self.send_signal(signal.SIGCONT)

    def send_signal(self, number):
        with self.lock:
            if self.process.poll() is None:
                self.process.send_signal(number)

    def end(self):
        self.ends = True
        self.kill()


def connect(folder, seed, protocol, near, far):
    """The sender, the relay and the wall's source of one channel.

    protocol: "udp", "rtp", "listener" or "caller" (what the wall is, of SRT); near, far: ports of the sender's and
    of the wall's side of the relay.
    """
    if protocol in ("udp", "rtp"):
        return (Sender(folder, f"{protocol}://127.0.0.1:{near}?pkt_size=1316"), Relay(near, far, seed, protocol),
                f"{protocol}://127.0.0.1:{far}")
    if protocol == "listener":
        return (Sender(folder, f"srt://127.0.0.1:{near}?mode=caller&pkt_size=1316"), Relay(near, far, seed, "srt"),
                f"srt://127.0.0.1:{far}?mode=listener")
    return (Sender(folder, f"srt://127.0.0.1:{near}?mode=listener&pkt_size=1316"), Relay(far, near, seed, "srt"),
            f"srt://127.0.0.1:{far}?mode=caller")
