// The list of channels, which has everything that the picture shows, and the panel of the
// chosen channel.

import {byId, el, keyed, openDialog, setText, toggle} from "./ui.js";
import {alarmWord, audioWord, decodingWord, labelOf, stateWord} from "./words.js";
import {isMasked} from "./state.js";

export class ChannelList {
  #wall;
  #hands;
  #list = byId("channel-list");
  #heard = null;

  constructor(wall, hands) {
    this.#wall = wall;
    this.#hands = hands;
  }

  set heard(name) {
    this.#heard = name;
    this.render();
  }

  render() {
    setText(byId("channel-count"), String(this.#wall.channels.length));
    keyed(this.#list, this.#wall.channels, (channel) => channel.name, (channel) => this.#newRow(channel.name),
        (row, channel) => this.#update(row.firstElementChild, channel));
  }

  #newRow(name) {
    const parts = ["number", "name", "label", "state", "more", "badges"].map(
        (part) => el("span", {class: part}));
    return el("li", {}, el("button", {type: "button", class: "row",
        onclick: () => this.#hands.select(name), ondblclick: () => this.#hands.solo(name)}, ...parts));
  }

  #update(button, channel) {
    const live = channel.live || {};
    const [number, name, label, state, more, badges] = button.children;
    const index = this.#wall.channels.indexOf(channel) + 1;
    setText(number, index <= 9 ? String(index) : "");
    setText(name, channel.name);
    setText(label, labelOf(channel));
    label.dir = "auto";
    name.dir = "auto";
    setText(state, stateWord(live.state));
    state.dataset.state = live.state || "";
    setText(more, [
      live.reason,
      live.audio && live.audio.state !== "present" ? audioWord(live.audio.state) : "",
      live.audio?.reason, decodingWord(live.decoding?.step),
    ].filter(Boolean).join("; "));
    const signs = [];
    for (const {alarm, acknowledged, masked} of this.#wall.alarms.filter((one) => one.channel === channel)) {
      signs.push([alarmWord(alarm) + (acknowledged ? " (acknowledged)" : masked ? " (masked)" : ""),
                  acknowledged || masked ? "quiet" : "alarm"]);
    }
    if (channel.selected) {
      signs.push(["selected", "selected"]);
    }
    if (channel.name === this.#wall.solo) {
      signs.push(["full screen", ""]);
    } else if (!channel.shown) {
      signs.push([channel.enabled ? "not in this layout" : "switched off", "quiet"]);
    }
    if (channel.name === this.#heard) {
      signs.push(["heard", "heard"]);
    }
    if (channel.mute !== "off") {
      signs.push([channel.mute === "nothing" ? "muted, no packets" : "muted", "quiet"]);
    }
    if (isMasked(channel)) {
      signs.push(["masked", "quiet"]);
    }
    keyed(badges, signs, ([text]) => text, ([text, kind]) => el("span", {class: `badge ${kind}`}, text),
        (badge, [, kind]) => { badge.className = `badge ${kind}`; });
    const isChosen = channel.name === this.#wall.chosen;
    toggle(button, "data-chosen", isChosen);
    button.setAttribute("aria-current", isChosen ? "true" : "false");
  }
}

export class ChannelPanel {
  #wall;
  #hands;
  #panel = byId("channel-panel");
  #name = el("h2", {dir: "auto"});
  #state = el("span", {class: "state"});
  #label;
  #labelInput = el("input", {type: "text", "aria-label": "Label", maxlength: "200", dir: "auto"});
  #facts = el("dl");
  #mute = el("button", {type: "button"});
  #listen = el("button", {type: "button"});
  #solo = el("button", {type: "button"});
  #ack = el("button", {type: "button", class: "hands"}, "Acknowledge");
  #heard = null;
  #canListen = false;

  constructor(wall, hands) {
    this.#wall = wall;
    this.#hands = hands;
    const on = (button, act) => button.addEventListener("click", () => {
      if (this.#wall.chosen !== null) {
        act(this.#wall.chosen);
      }
    });
    const hand = (text, act, extra = "") => {
      const button = el("button", {type: "button", class: `hands ${extra}`}, text);
      on(button, act);
      return button;
    };
    this.#label = el("button", {type: "button", class: "label-edit", title: "Edit the label"});
    this.#label.addEventListener("click", () => this.editLabel());
    this.#labelInput.hidden = true;
    this.#labelInput.addEventListener("keydown", (event) => {
      event.stopPropagation();
      if (event.key === "Enter") {
        this.#endEdit(true);
      } else if (event.key === "Escape") {
        this.#endEdit(false);
      }
    });
    this.#labelInput.addEventListener("blur", () => this.#endEdit(true));
    this.#solo.className = "hands accent";
    this.#mute.className = "hands";
    on(this.#solo, (name) => hands.solo(name));
    on(this.#mute, (name) => hands.mute(name));
    on(this.#listen, (name) => hands.listen(name === this.#heard ? null : name));
    on(this.#ack, (name) => hands.acknowledge(name, null));
    this.#panel.append(
        el("div", {class: "who"},
            el("div", {class: "title"}, this.#name, this.#state),
            el("div", {class: "label-line"}, this.#label, this.#labelInput), this.#facts),
        el("div", {class: "buttons"}, this.#solo, this.#listen, this.#mute, this.#ack,
            hand("Mask …", (name) => hands.mask(name)),
            hand("Swap with …", (name) => this.#chooseSwap(name)),
            hand("Reconnect", (name) => hands.reconnect(name)),
            hand("Source …", (name) => hands.edit(name)),
            hand("Remove …", (name) => hands.remove(name), "danger")));
  }

  set heard(name) {
    this.#heard = name;
    this.render();
  }
  set canListen(can) {
    this.#canListen = can;
    this.render();
  }

  render() {
    const channel = this.#wall.chosenChannel;
    this.#panel.hidden = !channel;
    if (!channel) {
      return;
    }
    const live = channel.live || {};
    setText(this.#name, channel.name);
    setText(this.#state, stateWord(live.state));
    this.#state.dataset.state = live.state || "";
    const label = labelOf(channel);
    const isOperator = this.#hands.isOperator();
    setText(this.#label, label || (isOperator ? "Add a label" : "No label"));
    this.#label.setAttribute("aria-label", isOperator ? `Edit the label: ${label || "none"}` : `Label: ${label || "none"}`);
    this.#label.disabled = !isOperator;
    this.#label.dir = "auto";
    const masked = isMasked(channel);
    const facts = [
      ["Why", live.reason],
      ["Source", channel.source],
      ["Audio", live.audio ? audioWord(live.audio.state) + (live.audio.reason ? `: ${live.audio.reason}` : "") : ""],
      ["Decoding", live.decoding && live.decoding.step !== "full"
          ? decodingWord(live.decoding.step) + (live.decoding.reason ? `: ${live.decoding.reason}` : "") : ""],
      ["Rendition", live.rendition ? `${live.rendition.width}×${live.rendition.height}, ${live.rendition.reason}` : ""],
      ["Jitter", live.jitter !== undefined ? `${Math.round(live.jitter * 1000)} ms` : ""],
      ["Masked until", masked ? new Date(channel.masked_until).toLocaleString([], {hour12: false}) : ""],
    ].filter(([, text]) => text);
    keyed(this.#facts, facts, ([term]) => term,
        ([term]) => el("div", {}, el("dt", {}, term), el("dd", {dir: "auto"})),
        (line, [, text]) => setText(line.lastElementChild, text));
    const isSolo = this.#wall.solo === channel.name;
    setText(this.#solo, isSolo ? "Back to the layout" : "Full screen");
    const isHeard = this.#heard === channel.name;
    setText(this.#listen, isHeard ? "Stop listening" : "Listen");
    this.#listen.setAttribute("aria-pressed", String(isHeard));
    this.#listen.hidden = !this.#canListen;
    setText(this.#mute, channel.mute === "off" ? "Mute" : "Unmute");
    this.#ack.disabled = !this.#wall.openAlarms.some((alarm) => alarm.channel === channel);
  }

  editLabel() {
    const channel = this.#wall.chosenChannel;
    if (!channel || !this.#hands.isOperator()) {
      return;
    }
    this.#labelInput.value = channel.label || "";
    this.#labelInput.dataset.channel = channel.name;
    this.#labelInput.hidden = false;
    this.#label.hidden = true;
    this.#labelInput.focus();
    this.#labelInput.select();
  }

  #endEdit(keeps) {
    if (this.#labelInput.hidden) {
      return;
    }
    const name = this.#labelInput.dataset.channel;
    const text = this.#labelInput.value;
    const hadFocus = document.activeElement === this.#labelInput;
    this.#labelInput.hidden = true;
    this.#label.hidden = false;
    if (hadFocus) {
      this.#label.focus();
    }
    const channel = this.#wall.channel(name);
    if (keeps && channel && text !== (channel.label || "")) {
      this.#hands.label(name, text);
    }
  }

  async #chooseSwap(name) {
    const select = el("select", {"aria-label": "Channel"});
    for (const channel of this.#wall.channels) {
      if (channel.name !== name) {
        select.append(el("option", {value: channel.name}, channel.name));
      }
    }
    const isChosen = await openDialog({
      title: `Swap ${name} with`, body: [select], submitText: "Swap", submit: async () => null,
    });
    if (isChosen && select.value) {
      this.#hands.swap(name, select.value);
    }
  }
}
