// The wall as video, and the audio that is heard, through one MediaSource.

import {baseTimeOf, timeScaleOf} from "./mp4.js";

const kChaseEvery = 200;   // milliseconds
const kFaster = 1.05;      // playback rate that catches up
const kChaseFrom = 0.4;    // seconds behind the newest data
const kChaseTo = 0.25;
const kSeekFrom = 2;
const kAhead = 0.1;        // seconds that playback may be ahead of the newest data
const kKeep = 10;          // seconds before the playback position that stay in the buffers
const kMaxTimes = 1000;
const kMaxWaiting = 500;   // fragments that wait for a buffer
const kAudioLate = 3;      // seconds after which the picture no longer waits for audio

// The bytes that wait for a SourceBuffer, which takes one piece at a time.
class Track {
  #buffer;
  #queue = [];
  #failed;

  constructor(source, type, failed) {
    this.#buffer = source.addSourceBuffer(type);
    this.#failed = failed;
    this.#buffer.addEventListener("updateend", () => this.#next());
    this.#buffer.addEventListener("error", () => failed("the browser cannot read the stream"));
  }

  get end() {
    try {
      const {buffered} = this.#buffer;
      return buffered.length > 0 ? buffered.end(buffered.length - 1) : null;
    } catch {
      return null;  // no longer part of its source
    }
  }

  append(bytes) {
    this.#queue.push(bytes);
    if (this.#queue.length > kMaxWaiting) {
      this.#failed("the browser does not keep up with the stream");
      return;
    }
    this.#next();
  }

  dropBefore(time) {
    try {
      const {buffered, updating} = this.#buffer;
      if (!updating && buffered.length > 0 && buffered.start(0) < time - kKeep) {
        this.#buffer.remove(0, time);
      }
    } catch {
      // The same.
    }
  }

  #next() {
    if (this.#queue.length === 0) {
      return;
    }
    try {
      if (this.#buffer.updating) {
        return;
      }
      const size = this.#queue.reduce((sum, bytes) => sum + bytes.byteLength, 0);
      const all = new Uint8Array(size);
      let at = 0;
      for (const bytes of this.#queue) {
        all.set(bytes, at);
        at += bytes.byteLength;
      }
      this.#queue = [];
      this.#buffer.appendBuffer(all);
    } catch (error) {
      this.#failed(error.message);
    }
  }
}

// Events: "frame" when another frame is shown, "failed" (detail: why).
export class Video extends EventTarget {
  frame = null;     // number of the composed frame that is shown
  newest = null;    // number of the newest frame that has come
  #element;
  #source = null;
  #url = null;
  #tracks = {};     // video, audio
  #video = null;    // {codec, init, timeScale, fragments since the keyframe}
  #audio = null;    // {codec, init}
  #isAudioLate = false;
  #times = [];      // of the fragments that have come: {time, frame}
  #lastTime = -1;
  #lastEnd = 0;     // end of the buffered data at the last check
  #timer = null;

  constructor(element) {
    super();
    this.#element = element;
    if ("requestVideoFrameCallback" in element) {
      const shown = (now, {mediaTime}) => {
        this.#shows(mediaTime);
        element.requestVideoFrameCallback(shown);
      };
      element.requestVideoFrameCallback(shown);
    }
  }

  static canPlay(codec) {
    return "MediaSource" in window && MediaSource.isTypeSupported(`video/mp4; codecs="${codec}"`);
  }

  // Called before an init segment; codec: "avc1.42C01F".
  beginVideo(codec) {
    this.#video = {codec, init: null, timeScale: null, fragments: null};
  }
  beginAudio(codec) {
    this.#audio = {codec, init: null};
  }
  endAudio() {
    const had = this.#audio !== null;
    this.#audio = null;
    if (had && this.#source) {
      this.#open();
    }
  }

  // A binary message of the wall; see the page's protocol in docs/control.md.
  take(message) {
    const head = new DataView(message, 0, 16);
    const bytes = new Uint8Array(message, 16);
    const type = head.getUint8(0);
    if (type === 1) {
      this.#takeVideoInit(bytes);
    } else if (type === 2) {
      this.#takeFrame(bytes, (head.getUint8(1) & 1) === 1, Number(head.getBigUint64(8, true)));
    } else if (type === 3 && this.#audio) {
      this.#audio.init = bytes;
      this.#isAudioLate = false;
      this.#open();
    } else if (type === 4 && this.#audio?.init) {
      if (this.#isAudioLate) {
        this.#isAudioLate = false;
        this.#open();
      }
      this.#tracks.audio?.append(bytes);
    }
  }

  stop() {
    this.#close();
    this.#video = null;
    this.#audio = null;
    this.#times = [];
    this.frame = null;
    this.newest = null;
  }

  #takeVideoInit(bytes) {
    if (!this.#video) {
      return;
    }
    this.#video.init = bytes;
    this.#video.timeScale = timeScaleOf(bytes);
    this.#video.fragments = null;
    this.#open();
  }

  #takeFrame(bytes, isKeyframe, frame) {
    const video = this.#video;
    if (!video?.init) {
      return;
    }
    if (isKeyframe) {
      video.fragments = [];
    }
    if (video.fragments === null || video.fragments.length >= kMaxWaiting) {
      return;  // nothing can be decoded before a keyframe
    }
    video.fragments.push(bytes);
    const time = baseTimeOf(bytes);
    if (time !== null && video.timeScale) {
      this.#times.push({time: time / video.timeScale, frame});
      if (this.#times.length > kMaxTimes) {
        this.#times.splice(0, kMaxTimes / 2);
      }
    }
    this.newest = frame;
    this.#tracks.video?.append(bytes);
  }

  // A MediaSource accepts no further track once it plays: switching audio on or off needs another
  // one, which begins with the latest keyframe.
  #open() {
    this.#close();
    const video = this.#video;
    if (!video?.init) {
      return;
    }
    const source = new MediaSource();
    this.#source = source;
    this.#url = URL.createObjectURL(source);
    const isCurrent = () => this.#source === source;
    source.addEventListener("sourceopen", () => {
      if (!isCurrent()) {
        return;
      }
      const failed = (why) => isCurrent() && this.#fail(why);
      try {
        this.#tracks.video = new Track(source, `video/mp4; codecs="${video.codec}"`, failed);
        if (this.#audio?.init && !this.#isAudioLate) {
          this.#tracks.audio = new Track(source, `audio/mp4; codecs="${this.#audio.codec}"`, failed);
        }
        this.#tracks.video.append(video.init);
        this.#tracks.audio?.append(this.#audio.init);
        for (const fragment of video.fragments || []) {
          this.#tracks.video.append(fragment);
        }
      } catch (error) {
        failed(error.message);
      }
    }, {once: true});
    this.#element.onerror = () => isCurrent() && this.#fail(this.#element.error?.message || "the picture cannot be shown");
    this.#element.src = this.#url;
    this.#timer = setInterval(() => this.#chase(), kChaseEvery);
  }

  #close() {
    clearInterval(this.#timer);
    this.#tracks = {};
    this.#source = null;
    this.#element.onerror = null;
    if (this.#url) {
      URL.revokeObjectURL(this.#url);
      this.#url = null;
      this.#element.removeAttribute("src");
      this.#element.load();
    }
  }

  #fail(why) {
    this.#close();
    this.dispatchEvent(new CustomEvent("failed", {detail: why}));
  }

  // Stays close behind the newest data: plays a little faster while behind, jumps when far behind.
  #chase() {
    const element = this.#element;
    const {buffered} = element;
    if (this.#tracks.audio && this.#isAudioMissing()) {
      this.#isAudioLate = true;
      this.#open();
      return;
    }
    if (buffered.length === 0) {
      return;
    }
    const start = buffered.start(buffered.length - 1);
    const end = buffered.end(buffered.length - 1);
    const behind = end - element.currentTime;
    // If playback ran ahead of the data, everything would count as late.
    const isAhead = behind < -kAhead && end > this.#lastEnd;
    this.#lastEnd = end;
    if (element.currentTime < start || isAhead || behind > kSeekFrom) {
      element.currentTime = Math.max(start, end - kChaseTo);
    } else if (behind > kChaseFrom) {
      element.playbackRate = kFaster;
    } else if (behind < kChaseTo) {
      element.playbackRate = 1;
    }
    if (element.paused) {
      element.play().catch(() => {});
    }
    for (const track of Object.values(this.#tracks)) {
      track.dropBefore(element.currentTime - kKeep);
    }
    if (!("requestVideoFrameCallback" in element)) {
      this.#shows(element.currentTime);
    }
  }

  #isAudioMissing() {
    const video = this.#tracks.video?.end ?? null;
    const audio = this.#tracks.audio.end;
    if (video === null || !this.#video.fragments) {
      return false;
    }
    const from = audio ?? this.#audioFrom ?? (this.#audioFrom = video);
    if (audio !== null) {
      this.#audioFrom = null;
    }
    return video - from > kAudioLate;
  }
  #audioFrom = null;

  #shows(time) {
    if (time === this.#lastTime) {
      return;
    }
    this.#lastTime = time;
    let at = this.#times.length - 1;
    while (at > 0 && this.#times[at].time > time + 0.002) {
      --at;
    }
    const frame = this.#times[at]?.frame ?? null;
    if (frame !== this.frame) {
      this.frame = frame;
      this.dispatchEvent(new Event("frame"));
    }
  }
}
