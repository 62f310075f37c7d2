// The windows as boxes over the picture: pointer, double click, drag.

import {byId, el, keyed, setText, toggle} from "./ui.js";
import {alarmWord, audioWord, decodingWord, labelOf, stateWord} from "./words.js";
import {isMasked} from "./state.js";

const kDragFrom = 6;  // pixels

export class Stage {
  #wall;
  #hands;
  #stage = byId("stage");
  #boxes = byId("boxes");
  #heard = null;
  #drag = null;  // {from, x, y, active}

  // hands: {select(name), solo(name), swap(name, other)}; with the role "view" each does nothing.
  constructor(wall, hands) {
    this.#wall = wall;
    this.#hands = hands;
    this.#boxes.addEventListener("pointerdown", (event) => this.#down(event));
    this.#boxes.addEventListener("pointermove", (event) => this.#move(event));
    this.#boxes.addEventListener("pointerup", (event) => this.#up(event));
    this.#boxes.addEventListener("pointercancel", () => this.#endDrag());
    this.#boxes.addEventListener("dblclick", (event) => {
      const name = this.#nameAt(event.target);
      if (name !== null) {
        this.#hands.solo(name);
      }
    });
  }

  set heard(name) {
    this.#heard = name;
    this.render();
  }

  get shown() {
    return this.#wall.places.filter((channel) => channel.shown);
  }

  focus(name) {
    for (const box of this.#boxes.children) {
      if (box.dataset.key === name) {
        box.focus({preventScroll: true});
      }
    }
  }

  // The nearest shown channel in a direction; null when there is none.
  neighbour(name, dx, dy) {
    const from = this.shown.find((channel) => channel.name === name);
    if (!from) {
      return this.shown[0]?.name ?? null;
    }
    const centre = ({window: [x, y, width, height]}) => [x + width / 2, y + height / 2];
    const [x, y] = centre(from);
    let best = null;
    let least = Infinity;
    for (const channel of this.shown) {
      const [cx, cy] = centre(channel);
      const along = (cx - x) * dx + (cy - y) * dy;
      const across = Math.abs((cx - x) * dy) + Math.abs((cy - y) * dx);
      if (along > 1 && along + 2 * across < least) {
        least = along + 2 * across;
        best = channel.name;
      }
    }
    return best;
  }

  render() {
    const {canvas, solo} = this.#wall;
    this.#stage.style.setProperty("--width", canvas.width);
    this.#stage.style.setProperty("--height", canvas.height);
    toggle(this.#stage, "data-solo", Boolean(solo));
    keyed(this.#boxes, this.shown, (channel) => channel.name, () => this.#newBox(), (box, placed) => {
      const channel = this.#wall.channel(placed.name) || placed;
      const [x, y, width, height] = placed.window;
      box.style.left = `${100 * x / canvas.width}%`;
      box.style.top = `${100 * y / canvas.height}%`;
      box.style.width = `${100 * width / canvas.width}%`;
      box.style.height = `${100 * height / canvas.height}%`;
      const isChosen = channel.name === this.#wall.chosen;
      toggle(box, "data-chosen", isChosen);
      box.tabIndex = isChosen ? 0 : -1;
      const [name, signs] = box.children;
      setText(name, channel.name);
      setText(signs, this.#signsOf(channel));
      box.setAttribute("aria-label", this.#describe(channel));
      box.setAttribute("aria-pressed", channel.selected ? "true" : "false");
    });
    if (!this.#boxes.querySelector('[tabindex="0"]') && this.#boxes.firstElementChild) {
      this.#boxes.firstElementChild.tabIndex = 0;
    }
  }

  #newBox() {
    return el("button", {class: "box", type: "button"},
        el("span", {class: "name", "aria-hidden": "true"}),
        el("span", {class: "signs", "aria-hidden": "true"}));
  }

  #signsOf(channel) {
    const signs = [];
    if (channel.name === this.#heard) {
      signs.push("heard");
    }
    if (channel.mute !== "off") {
      signs.push("muted");
    }
    if (isMasked(channel)) {
      signs.push("masked");
    }
    return signs.join(" · ");
  }

  #describe(channel) {
    const live = channel.live || {};
    const alarms = (live.alarms || []).map(alarmWord);
    return [
      channel.name, labelOf(channel), stateWord(live.state), live.reason,
      live.audio ? audioWord(live.audio.state) : "",
      alarms.length > 0 ? `alarm: ${alarms.join(", ")}` : "",
      decodingWord(live.decoding?.step), this.#signsOf(channel),
    ].filter(Boolean).join(", ");
  }

  #nameAt(target) {
    const box = target instanceof Element ? target.closest(".box") : null;
    return box ? box.dataset.key : null;
  }

  #down(event) {
    const name = this.#nameAt(event.target);
    if (name === null || event.button !== 0) {
      return;
    }
    this.#drag = {from: name, x: event.clientX, y: event.clientY, active: false};
    this.#hands.select(name);
  }

  #move(event) {
    const drag = this.#drag;
    if (!drag || !this.#hands.canSwap()) {
      return;
    }
    if (!drag.active && Math.hypot(event.clientX - drag.x, event.clientY - drag.y) > kDragFrom) {
      drag.active = true;
      this.#boxes.setPointerCapture(event.pointerId);
      toggle(this.#boxes, "data-dragging", true);
    }
    if (drag.active) {
      const target = this.#boxUnder(event);
      for (const box of this.#boxes.children) {
        toggle(box, "data-target", box === target && box.dataset.key !== drag.from);
        toggle(box, "data-dragged", box.dataset.key === drag.from);
      }
    }
  }

  #up(event) {
    const drag = this.#drag;
    const target = drag && drag.active ? this.#boxUnder(event) : null;
    this.#endDrag();
    if (target && target.dataset.key !== drag.from) {
      this.#hands.swap(drag.from, target.dataset.key);
    }
  }

  #boxUnder(event) {
    for (const element of document.elementsFromPoint(event.clientX, event.clientY)) {
      if (element.classList.contains("box")) {
        return element;
      }
    }
    return null;
  }

  #endDrag() {
    this.#drag = null;
    toggle(this.#boxes, "data-dragging", false);
    for (const box of this.#boxes.children) {
      toggle(box, "data-target", false);
      toggle(box, "data-dragged", false);
    }
  }
}
