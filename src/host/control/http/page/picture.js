// The live picture of the wall: as video where browser and wall support it, otherwise as stills. A
// picture that stands still is never shown as if it were live.
//
// Events: "frame" when another frame is shown, "state" when anything of its state has changed,
// "listening" (detail: {channel, why}).

import {Video} from "./video.js";
import {byId} from "./ui.js";

const kCheckEvery = 250;      // milliseconds
const kStandsAfter = 1500;
const kStandsAfterStills = 4000;
const kStillEvery = 400;
const kStillLimit = 4000;
const kFirstFrameLimit = 4000;
const kUsualCodec = "avc1.42C01F";
const kMaxFailures = 3;       // of video within a minute, before stills replace it

export class Picture extends EventTarget {
  mode = "none";      // "video", "stills", "none"
  note = "";          // why it is not video
  heard = null;       // name of the channel whose audio is heard
  #connection;
  #element = byId("video");
  #canvas = byId("still");
  #video = new Video(this.#element);
  #shownAt = 0;       // when the latest frame was shown
  #hasFrame = false;  // since the present start
  #stands = false;
  #run = 0;           // number of the present start
  #failures = [];
  #analyser = null;
  #samples = null;

  constructor(connection) {
    super();
    this.#connection = connection;
    this.#video.addEventListener("frame", () => this.#hasShown());
    this.#video.addEventListener("failed", ({detail}) => this.#videoFailed(detail));
    connection.addEventListener("binary", ({detail}) => {
      if (this.mode === "video" && detail.byteLength > 16) {
        this.#video.take(detail);
      }
    });
    connection.addEventListener("open", () => this.#start());
    connection.addEventListener("closed", () => this.#stop());
    connection.addEventListener("signed-out", () => this.#stop());
    document.addEventListener("visibilitychange", () => {
      if (document.hidden) {
        this.#pauseUnlessHeard();
      } else if (connection.isOpen && this.mode === "none") {
        this.#start();
      }
    });
    setInterval(() => this.#check(), kCheckEvery);
  }

  // Number of the composed frame that is shown; null when that is not known.
  get frame() {
    return this.mode === "video" ? this.#video.frame : null;
  }
  get hasFrame() {
    return this.#hasFrame;
  }
  get stands() {
    return this.#stands;
  }
  get age() {
    return performance.now() - this.#shownAt;
  }
  get canListen() {
    return this.mode === "video";
  }

  // Handles messages of the wall about the picture; false for others.
  takeMessage(message) {
    if (message.event === "preview") {
      if (message.on !== false && this.mode === "video") {
        if (Video.canPlay(message.codec)) {
          this.#video.beginVideo(message.codec);
        } else {
          this.#toStills(`This browser does not play ${message.codec}.`);
        }
      }
      return true;
    }
    if (message.event === "listening") {
      if (message.channel === null) {
        this.#hears(null, message.why);
        this.#video.endAudio();
      } else {
        this.#video.beginAudio(message.codec);
        this.#hears(message.channel);
      }
      return true;
    }
    return false;
  }

  // Must be called for a click: browsers start audio for nothing else. Returns why it failed, or
  // null.
  async listen(name) {
    if (name !== null) {
      this.#prepareAudio();
    }
    const {problem} = await this.#connection.ask({listen: name});
    if (!problem && name === null) {
      this.#video.endAudio();
      this.#hears(null);
    }
    return problem ? problem.detail : null;
  }

  signOut() {
    this.#stop();
  }

  // Peak of the audio that is heard, in dBFS, at least -60.
  get level() {
    if (!this.#analyser || this.heard === null) {
      return -60;
    }
    this.#analyser.getFloatTimeDomainData(this.#samples);
    let peak = 0;
    for (const sample of this.#samples) {
      peak = Math.max(peak, Math.abs(sample));
    }
    return Math.max(-60, 20 * Math.log10(peak || 1e-9));
  }

  #prepareAudio() {
    if (!this.#analyser) {
      const context = new AudioContext();
      this.#analyser = context.createAnalyser();
      this.#analyser.fftSize = 2048;
      this.#samples = new Float32Array(this.#analyser.fftSize);
      context.createMediaElementSource(this.#element).connect(this.#analyser);
      this.#analyser.connect(context.destination);
    }
    this.#analyser.context.resume();
    this.#element.muted = false;
  }

  #hears(channel, why = "") {
    const former = this.heard;
    this.heard = channel;
    if (channel === null) {
      this.#element.muted = true;
    }
    if (channel === null && document.hidden) {
      this.#pauseUnlessHeard();
    }
    if (former !== channel || why) {
      this.dispatchEvent(new CustomEvent("listening", {detail: {channel, why}}));
    }
  }

  async #start() {
    if (document.hidden) {
      return;
    }
    const run = ++this.#run;
    this.#shownAt = performance.now();
    if (!Video.canPlay(kUsualCodec)) {
      this.#toStills("This browser does not play the video of the wall: pictures only, without audio.");
      return;
    }
    this.#setMode("video");
    setTimeout(() => {
      if (run === this.#run && this.#video.newest === null) {
        this.#connection.ask({preview: false});
        this.#toStills("The wall sends no video: pictures only, without audio.");
      }
    }, kFirstFrameLimit);
    const {problem} = await this.#connection.ask({preview: true});
    if (problem && run === this.#run && this.#connection.isOpen) {
      this.#toStills(`The wall sends no video: ${problem.detail}`);
    }
  }

  #stop() {
    ++this.#run;
    this.#video.stop();
    if (this.heard !== null) {
      this.#hears(null);
    }
    this.#setMode("none");
  }

  // In the background only audio that is heard continues; everything else is paused, at no cost to
  // the wall.
  #pauseUnlessHeard() {
    if (this.heard !== null) {
      return;
    }
    if (this.#connection.isOpen && this.mode === "video") {
      this.#connection.ask({preview: false});
    }
    this.#stop();
  }

  #toStills(why) {
    const run = ++this.#run;
    this.#video.stop();
    if (this.heard !== null) {
      this.#connection.ask({listen: null});
      this.#hears(null);
    }
    this.#setMode("stills", why);
    this.#drawStills(run);
  }

  #videoFailed(why) {
    const now = performance.now();
    this.#failures = [...this.#failures.filter((at) => now - at < 60000), now];
    if (this.#failures.length > kMaxFailures) {
      this.#connection.ask({preview: false});
      this.#toStills(`The video cannot be played: ${why}`);
    } else if (this.#connection.isOpen) {
      // Starts again with an init segment and a keyframe.
      this.#connection.ask({preview: false}).then(() => this.#start());
    }
  }

  async #drawStills(run) {
    const drawing = this.#canvas.getContext("2d", {alpha: false});
    while (run === this.#run) {
      const begun = performance.now();
      try {
        const answer = await fetch("/snapshot.jpg", {cache: "no-store", signal: AbortSignal.timeout(kStillLimit)});
        if (answer.ok && run === this.#run) {
          const image = await createImageBitmap(await answer.blob());
          if (this.#canvas.width !== image.width || this.#canvas.height !== image.height) {
            this.#canvas.width = image.width;
            this.#canvas.height = image.height;
          }
          drawing.drawImage(image, 0, 0);
          image.close();
          this.#hasShown();
        }
      } catch {
        // A picture that stands still is detected by its age.
      }
      await new Promise((resolve) => {
        setTimeout(resolve, Math.max(50, kStillEvery - (performance.now() - begun)));
      });
    }
  }

  #hasShown() {
    this.#shownAt = performance.now();
    const isFirst = !this.#hasFrame;
    this.#hasFrame = true;
    if (this.#stands || isFirst) {
      this.#check(isFirst);
    }
    this.dispatchEvent(new Event("frame"));
  }

  #check(isFirst = false) {
    const limit = this.mode === "stills" ? kStandsAfterStills : kStandsAfter;
    const stands = this.mode !== "none" && this.age > limit;
    if (isFirst || stands || stands !== this.#stands) {
      this.#stands = stands;
      this.dispatchEvent(new Event("state"));
    }
  }

  #setMode(mode, note = "") {
    this.mode = mode;
    this.note = note;
    this.#stands = false;
    this.#hasFrame = false;
    this.#shownAt = performance.now();
    this.#element.hidden = mode !== "video";
    this.#canvas.hidden = mode !== "stills";
    this.dispatchEvent(new Event("state"));
  }
}
