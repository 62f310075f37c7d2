// The alarms that are raised, and the dialogs to acknowledge and to mask them.

import {ago, byId, el, field, keyed, openDialog, setText, timeOf} from "./ui.js";
import {alarmWord} from "./words.js";

const kWho = "tavrel.who";  // stores the name of the person who acknowledges from this browser

export class AlarmList {
  #wall;
  #hands;
  #list = byId("alarm-list");

  constructor(wall, hands) {
    this.#wall = wall;
    this.#hands = hands;
  }

  render() {
    // Those that nobody has acknowledged first, then the latest.
    const rank = (alarm) => (alarm.acknowledged || alarm.masked ? 1 : 0);
    const alarms = this.#wall.alarms.sort((a, b) => rank(a) - rank(b) || (b.at ?? 0) - (a.at ?? 0));
    const open = this.#wall.openAlarms.length;
    const count = byId("alarm-count");
    setText(count, open > 0 ? String(open) : "");
    count.toggleAttribute("data-alarm", open > 0);
    document.title = (open > 0 ? `(${open}) ` : "") + `Wall · ${location.host}`;
    byId("no-alarms").hidden = alarms.length > 0;
    keyed(this.#list, alarms, (one) => `${one.channel.name}\n${one.alarm}`, (one) => this.#newItem(one),
        (item, one) => {
          const [head, note] = item.children;
          const [kind, name, time] = head.children;
          setText(kind, alarmWord(one.alarm));
          setText(name, one.channel.name);
          setText(time, one.at === null ? "" : `since ${timeOf(one.at)}, ${ago(Date.now() - one.at)}`);
          item.className = one.acknowledged || one.masked ? "quiet" : "open";
          setText(note, one.acknowledged
              ? `acknowledged ${timeOf(one.acknowledged.at)}` +
                  (one.acknowledged.who ? ` by ${one.acknowledged.who}` : "") +
                  (one.acknowledged.note ? `: ${one.acknowledged.note}` : "")
              : one.masked ? `masked until ${timeOf(one.channel.masked_until)}` : "");
          item.querySelector(".ack").hidden = Boolean(one.acknowledged);
        });
  }

  #newItem({channel, alarm}) {
    const name = channel.name;
    return el("li", {},
        el("p", {class: "head"}, el("span", {class: "kind"}), el("button", {type: "button",
            class: "link", dir: "auto", onclick: () => this.#hands.select(name)}), el("span", {class: "time"})),
        el("p", {class: "note", dir: "auto"}),
        el("div", {class: "buttons hands"},
            el("button", {type: "button", class: "ack", "aria-label": `Acknowledge ${alarmWord(alarm)} of ${name}`,
                onclick: () => this.#hands.acknowledge(name, alarm)}, "Acknowledge"),
            el("button", {type: "button", "aria-label": `Mask the alarms of ${name}`,
                onclick: () => this.#hands.mask(name)}, "Mask …")));
  }
}

// submit(command): carries it out, and returns {result} or {problem}.
export function askAcknowledge(name, alarm, submit) {
  const who = field("Your name", el("input", {type: "text", maxlength: "100", autocomplete: "name"}));
  const note = field("Note", el("input", {type: "text", maxlength: "500"}), "For others, such as what is done about it");
  try {
    who.input.value = localStorage.getItem(kWho) || "";
  } catch {
    // A browser that stores nothing.
  }
  return openDialog({
    title: `Acknowledge ${alarm ? alarmWord(alarm) + " of " : "the alarms of "}${name}`,
    body: [who.element, note.element], submitText: "Acknowledge",
    submit: async () => {
      try {
        localStorage.setItem(kWho, who.input.value);
      } catch {
        // The same.
      }
      const command = {command: "acknowledge", channel: name, who: who.input.value.trim(),
                       note: note.input.value.trim()};
      const {problem} = await submit(alarm ? {...command, alarm} : command);
      return problem ? problem.detail : null;
    },
  });
}

export function askMask(channel, isMasked, submit) {
  const choice = field("For", el("select", {},
      ...[[600, "10 minutes"], [3600, "1 hour"], [8 * 3600, "8 hours"], [24 * 3600, "a day"]].map(
          ([seconds, text]) => el("option", {value: seconds}, text)),
      isMasked ? el("option", {value: 0}, "not any more") : null));
  return openDialog({
    title: `Mask the alarms of ${channel}`, body: [choice.element], submitText: "Mask",
    submit: async () => {
      const {problem} = await submit({command: "mask", channel, for: Number(choice.input.value)});
      return problem ? problem.detail : null;
    },
  });
}
