// The wall as the page knows it: from a snapshot and the events after it.
//
// Events: "change", at most once for each frame of the screen; "event" (detail: one that belongs in
// the history).

const kMaxPending = 64;
const kPlacesLimit = 5000;       // milliseconds until places take effect without a frame that shows them
const kPlacesLimitBlind = 1500;  // the same for a picture whose frames have no number

const placesOf = (channels) => JSON.stringify(
    channels.map((channel) => [channel.name, channel.shown, channel.window]));

export class Wall extends EventTarget {
  version = 0;
  canvas = {width: 16, height: 9, frame_rate: 25};
  layout = "";
  layouts = [];
  solo = null;
  spare = 0;
  channels = [];
  live = {};
  isKnown = false;
  // The channels with the places that the picture shows at this moment.
  places = [];
  // The channel chosen on this page; the wall's own selection is in the channels.
  chosen = null;
  #pending = [];  // places that take effect with a later frame: {frame, at, channels}
  #raisedAt = new Map();  // "channel\nalarm" -> when it was raised, where that is known
  #scheduled = false;

  channel(name) {
    return this.channels.find((channel) => channel.name === name);
  }

  get selected() {
    return this.channels.filter((channel) => channel.selected).map((channel) => channel.name);
  }

  get chosenChannel() {
    return this.channel(this.chosen);
  }

  choose(name) {
    if (this.chosen !== name) {
      this.chosen = name;
      this.#changed();
    }
  }

  snapshot(wall) {
    Object.assign(this, this.#stateOf(wall), {live: wall.live || {}, isKnown: true});
    this.places = this.channels;
    this.#pending = [];
    this.#keepChosen();
    this.#changed();
  }

  // Takes `live` of the channels, which is requested separately.
  mergeLive(wall) {
    const live = new Map(wall.channels.map((channel) => [channel.name, channel.live]));
    for (const channel of this.channels) {
      channel.live = live.get(channel.name) || channel.live;
    }
    this.live = wall.live || this.live;
    this.#changed();
  }

  event(event) {
    const channel = event.channel === undefined ? null : this.channel(event.channel);
    switch (event.event) {
      case "changed":
        this.#change(event);
        break;
      case "channel":
        if (channel) {
          channel.live = {...channel.live, state: event.state, reason: event.reason,
                          since: event.since};
        }
        break;
      case "audio":
        if (channel) {
          channel.live = {...channel.live, audio: {state: event.state, reason: event.reason}};
        }
        break;
      case "decoding":
        if (channel) {
          channel.live = {...channel.live, decoding: {step: event.step, reason: event.reason}};
        }
        break;
      case "alarm":
        this.#alarm(channel, event);
        break;
      case "refused":
        break;
      default:
        return;
    }
    this.dispatchEvent(new CustomEvent("event", {detail: event}));
    this.#changed();
  }

  // frame: number of the frame that the picture shows; null when that is not known.
  advanceTo(frame) {
    const now = Date.now();
    let changed = false;
    while (this.#pending.length > 0) {
      const next = this.#pending[0];
      const isDue = frame === null ? now - next.at >= kPlacesLimitBlind
                                   : frame >= next.frame || now - next.at >= kPlacesLimit;
      if (!isDue) {
        break;
      }
      this.places = next.channels;
      this.#pending.shift();
      changed = true;
    }
    if (changed) {
      this.#changed();
    }
  }

  // When an alarm was raised, in milliseconds, or null.
  raisedAt(channel, alarm) {
    return this.#raisedAt.get(`${channel}\n${alarm}`) ?? null;
  }
  learnRaisedAt(channel, alarm, time) {
    const key = `${channel}\n${alarm}`;
    if (!this.#raisedAt.has(key)) {
      this.#raisedAt.set(key, time);
      this.#changed();
    }
  }

  // All raised alarms: {channel, alarm, at, acknowledged, masked}.
  get alarms() {
    const all = [];
    for (const channel of this.channels) {
      const masked = isMasked(channel);
      for (const alarm of channel.live?.alarms || []) {
        const at = this.raisedAt(channel.name, alarm);
        const one = channel.acknowledged?.[alarm];
        // An alarm that was raised again is no longer acknowledged.
        const acknowledged = one && (at === null || Date.parse(one.at) >= at) ? one : null;
        all.push({channel, alarm, at, acknowledged, masked});
      }
    }
    return all;
  }
  get openAlarms() {
    return this.alarms.filter((alarm) => !alarm.acknowledged && !alarm.masked);
  }

  #stateOf(state) {
    const {version, canvas, layout, layouts, solo, follow, spare, channels} = state;
    return {version, canvas, layout, layouts, solo, follow, spare, channels};
  }

  #change(event) {
    if (event.version <= this.version) {
      return;  // already in the snapshot
    }
    const before = new Map(this.channels.map((channel) => [channel.name, channel.live]));
    const state = this.#stateOf(event.state);
    let isNew = false;
    for (const channel of state.channels) {
      isNew = isNew || !before.has(channel.name);
      channel.live = before.get(channel.name);
    }
    Object.assign(this, state);
    this.#keepChosen();
    const last = this.#pending.length > 0 ? this.#pending.at(-1).channels : this.places;
    if (placesOf(last) !== placesOf(this.channels) && this.#pending.length < kMaxPending) {
      this.#pending.push({frame: event.frame, at: Date.now(), channels: this.channels});
    } else if (this.#pending.length === 0) {
      this.places = this.channels;
    }
    if (isNew) {
      this.dispatchEvent(new Event("incomplete"));
    }
  }

  #alarm(channel, event) {
    const key = `${event.channel}\n${event.alarm}`;
    if (event.raised) {
      this.#raisedAt.set(key, Date.parse(event.time));
    } else {
      this.#raisedAt.delete(key);
    }
    if (channel) {
      const others = (channel.live?.alarms || []).filter((alarm) => alarm !== event.alarm);
      channel.live = {...channel.live, alarms: event.raised ? [...others, event.alarm] : others};
    }
  }

  #keepChosen() {
    if (!this.chosenChannel) {
      this.chosen = this.selected[0] ?? this.channels[0]?.name ?? null;
    }
  }

  #changed() {
    if (!this.#scheduled) {
      this.#scheduled = true;
      queueMicrotask(() => {
        this.#scheduled = false;
        this.dispatchEvent(new Event("change"));
      });
    }
  }
}

export function isMasked(channel) {
  return channel.masked_until !== undefined && Date.parse(channel.masked_until) > Date.now();
}
