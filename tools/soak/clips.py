"""The clips that the senders send: moving test pictures that can be recognised in the wall's recording.

Every clip but the black and the still one carries a code: two rows of cells in each frame, black or white,
the lower row the complement of the upper one. The cells hold the number of the clip (4 bits) and of the frame in it
(12 bits), the highest bit first. Its audio is a quiet tone with a loud beep at every second; the length of the
beep gives the second modulo 4.
"""

import dataclasses
import subprocess

SECONDS = 40         # length of a clip, a multiple of four; the senders repeat it
CELLS = 16           # in a row of the code
CLIP_BITS = 4
FRAME_BITS = CELLS - CLIP_BITS
# Of the code in the frame, as fractions of its width and height: clear of the meter and of
# captions.
CODE_LEFT, CODE_WIDTH = 1 / 8, 3 / 4
CODE_TOP, CODE_HEIGHT = 1 / 5, 1 / 6
CHANNELS = {"mono": 1, "stereo": 2, "4.0": 4}
BEEP = 0.06         # seconds, of the shortest; the beep of second n lasts (1 + n mod 4) times as long
# Seconds between audio and video of the same time in the clips that are muxed so. FFmpeg puts audio about 0.13 s before
# its video by itself, so 0.9 s come out, which the order of the packets in `ffprobe` shows.
EARLY, LATE = 0.78, 1.08

X264 = "-c:v libx264 -preset ultrafast -tune zerolatency -pix_fmt yuv420p -sc_threshold 0 -g "
AAC = " -c:a aac"
ONE_BY_ONE = " -pes_payload_size 0"  # a packet of audio is not kept until others fill it up
# Sent at once and in the order in which the packets are read, whatever their timestamps.
KEEP_ORDER = " -max_interleave_delta 1" + ONE_BY_ONE


@dataclasses.dataclass(frozen=True)
class Clip:
    number: int               # in its code; 0: it has none
    size: str
    rate: int                 # frames per second
    encoding: str             # FFmpeg's options
    layout: str = "stereo"    # of its audio, the same in every channel
    keyframe_interval: float = 1.0
    sample_aspect: str = "1"
    audio_delay: float = 0.0  # seconds by which the audio in the clip lies behind; the sender takes them out again
    sending: str = ""         # FFmpeg's options
    video: str = "testsrc2"
    beeps: bool = True

    @property
    def codecs(self):
        options = self.encoding.split()
        return [options[options.index(option) + 1] for option in ("-c:v", "-c:a")]


PLAIN = Clip(1, "320x180", 25, X264 + "25" + AAC)
CLIPS = {
    "plain": PLAIN,
    "large": Clip(2, "640x360", 30, X264 + "30" + AAC, layout="mono"),
    "mpeg2": Clip(3, "352x288", 25, "-c:v mpeg2video -g 12 -b:v 1M -c:a mp2", sample_aspect="16/11"),
    "hevc": Clip(4, "256x144", 25,
                 "-c:v libx265 -preset ultrafast -tune zerolatency -x265-params log-level=none:keyint=25 "
                 "-c:a ac3", layout="4.0"),
    "fast": Clip(5, "160x90", 100, X264 + "100 -c:a mp2"),
    "sparse": Clip(6, "320x180", 25, X264 + "250" + AAC, keyframe_interval=10),
    # Audio that is muxed beside video of another time. With timestamps that fit, it would be put in their order;
    # so audio and video are encoded as far apart as they are to be muxed, and the sender corrects the timestamps.
    "early": Clip(7, "320x180", 25, X264 + "25" + AAC + ONE_BY_ONE, audio_delay=-EARLY,
                  sending=f"-bsf:a setts=ts=TS+{EARLY}/TB" + KEEP_ORDER),
    "late": Clip(8, "320x180", 25, X264 + "25" + AAC + ONE_BY_ONE, audio_delay=LATE,
                 sending=f"-bsf:v setts=ts=TS+{LATE}/TB" + KEEP_ORDER),
    "mute": dataclasses.replace(PLAIN, number=9, sending="-an"),
    # 46.875 packets a second: audio for three seconds, none for six, and audio again.
    "gap": dataclasses.replace(PLAIN, number=10, sending=r"-bsf:a noise=drop=between(n\,140\,420)" + KEEP_ORDER),
    "still": Clip(0, "320x180", 25, X264 + "25" + AAC, video="smptebars"),
    "black": Clip(0, "320x180", 25, X264 + "25" + AAC, video="color=black", beeps=False),
}
GAP_BEGINS, GAP_ENDS = 140 / 46.875, 420 / 46.875  # seconds from its first packet
MOVING = ["plain", "large", "mpeg2", "hevc", "fast", "sparse"]
BY_NUMBER = {clip.number: clip for clip in CLIPS.values() if clip.number}


def make(folder):
    for name, clip in CLIPS.items():
        separator = ":" if "=" in clip.video else "="
        code = (f"color=black:s={CELLS}x2:r={clip.rate},format=gray,geq=lum='255*mod(Y+floor("
                f"({clip.number << FRAME_BITS}+N)/pow(2,{CELLS - 1}-X)),2)'")
        second = f"floor(t-({clip.audio_delay})+{SECONDS})"
        loudness = (f"if(lt(mod(t-({clip.audio_delay})+{SECONDS},1),{BEEP}*(1+mod({second},4))),0.5,0.03)"
                    if clip.beeps else "0")
        filters = ("[1][0]scale2ref=w='main_w*0+iw*%g':h='ih*%g':flags=neighbor[code][video];[video][code]overlay="
                   "x=W*%g:y=H*%g," % (CODE_WIDTH, CODE_HEIGHT, CODE_LEFT, CODE_TOP) if clip.number else "[0]")
        command = ["ffmpeg", "-v", "error", "-y",
                   "-f", "lavfi", "-i", f"{clip.video}{separator}s={clip.size}:r={clip.rate}",
                   "-f", "lavfi", "-i", code,
                   "-f", "lavfi", "-i",
                   "aevalsrc='" + "|".join([f"sin(2*PI*440*t)*{loudness}"] * CHANNELS[clip.layout]) +
                   f"':c={clip.layout}:s=48000",
                   "-filter_complex", f"{filters}setsar={clip.sample_aspect}[picture]",
                   "-map", "[picture]", "-map", "2", "-t", str(SECONDS),
                   *clip.encoding.split(), folder / f"{name}.ts"]
        subprocess.run(command, check=True)
