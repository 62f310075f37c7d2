// The history of the last day: from the wall's memory, then from its events.

import {byId, el, keyed, setText} from "./ui.js";
import {describeEvent} from "./words.js";

const kMaxKept = 3000;
const kMaxShown = 400;

export class History {
  #wall;
  #entries = [];  // newest first
  #list = byId("history-list");
  #filter = byId("history-filter");
  #older = byId("history-older");
  #shown = kMaxShown;

  constructor(wall) {
    this.#wall = wall;
    this.#filter.addEventListener("change", () => {
      this.#shown = kMaxShown;
      this.render();
    });
    this.#older.addEventListener("click", () => this.#loadOlder());
  }

  async load() {
    const entries = await this.#ask("");
    if (entries) {
      // Events may have come meanwhile; numbers of a wall that was started again begin again.
      this.#entries = entries;
      this.#learn(entries);
      this.render();
    }
  }

  add(event) {
    if (event.number !== undefined && this.#entries[0]?.number >= event.number) {
      return;
    }
    const entry = {...event};
    if (typeof entry.state === "object") {
      delete entry.state;  // of the whole wall
    }
    entry.time = entry.time || new Date().toISOString();
    this.#entries.unshift(entry);
    this.#entries.length = Math.min(this.#entries.length, kMaxKept);
    this.render();
  }

  render() {
    if (byId("history").hidden) {
      return;
    }
    const filter = this.#filter.value;
    const shown = [];
    for (const entry of this.#entries) {
      const {kind, level, text} = describeEvent(entry);
      if (!filter || kind === filter) {
        shown.push({entry, level, text});
      }
      if (shown.length === this.#shown) {
        break;
      }
    }
    keyed(this.#list, shown, ({entry}) => entry.number, () => el("li", {}, el("time"), el("span", {dir: "auto"})),
        (item, {entry, level, text}) => {
          const time = new Date(entry.time);
          item.firstElementChild.dateTime = entry.time;
          setText(item.firstElementChild, time.toLocaleTimeString([], {hour12: false}));
          item.firstElementChild.title = time.toLocaleString();
          setText(item.lastElementChild, text);
          item.dataset.level = level;
        });
  }

  // The state has the alarms that are raised, the history the time at which they were.
  #learn(entries) {
    for (const channel of this.#wall.channels) {
      for (const alarm of channel.live?.alarms || []) {
        const raised = entries.find((entry) => entry.event === "alarm" && entry.raised &&
            entry.channel === channel.name && entry.alarm === alarm);
        if (raised) {
          this.#wall.learnRaisedAt(channel.name, alarm, Date.parse(raised.time));
        }
      }
    }
  }

  async #ask(query) {
    try {
      const answer = await fetch(`/api/v1/history${query}`, {cache: "no-store"});
      return answer.ok ? await answer.json() : null;
    } catch {
      return null;
    }
  }

  async #loadOlder() {
    const last = this.#entries.at(-1);
    const entries = last ? await this.#ask(`?before=${last.number}`) : [];
    if (entries && entries.length > 0) {
      this.#entries = this.#entries.concat(entries).slice(0, kMaxKept);
      this.#shown += kMaxShown;
    } else if (entries) {
      this.#older.disabled = true;
      setText(this.#older, "There is nothing older");
    }
    this.render();
  }
}
