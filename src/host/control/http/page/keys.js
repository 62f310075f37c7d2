// The keys, outside of fields and dialogs.

import {el, openDialog} from "./ui.js";

const kKeys = [
  ["Click, 1 … 9", "selects a window", true],
  ["Arrows", "select the window beside it; in full screen the next channel", true],
  ["Double click, Enter", "full screen", true],
  ["Esc", "back to the layout; then selects none", true],
  ["Drag, Shift + arrows", "swaps two windows", true],
  ["L", "listens to the chosen channel, or stops", false],
  ["M", "mutes it in the outputs", true],
  ["E", "edits its label", true],
  ["A", "acknowledges its alarms", true],
  ["?", "shows these keys", false],
];

const kArrows = {ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, -1], ArrowDown: [0, 1]};

export function showKeys(isOperator) {
  const rows = kKeys.filter(([, , needsHands]) => isOperator || !needsHands).map(
      ([keys, text]) => el("tr", {}, el("th", {scope: "row"}, keys), el("td", {}, text)));
  return openDialog({title: "Keys", body: [el("table", {class: "keys"}, el("tbody", {}, ...rows))]});
}

// Whether a key belongs to the wall: not to a field, a dialog, a tab or another button.
function isOurs(event) {
  if (event.ctrlKey || event.altKey || event.metaKey || document.querySelector("dialog[open]")) {
    return false;
  }
  const target = event.target;
  if (!(target instanceof Element) || target === document.body || target.closest(".boxes, #channel-list")) {
    return true;
  }
  const isControl = target.closest("input, select, textarea, button, [role=tab], a");
  return !isControl || (event.key === "Escape" && !target.closest("input, select, textarea"));
}

export function listenToKeys(wall, stage, hands) {
  document.addEventListener("keydown", (event) => {
    if (!isOurs(event)) {
      return;
    }
    const chosen = wall.chosen;
    const act = (action) => {
      event.preventDefault();
      action();
    };
    const go = (name) => {
      if (name !== null && name !== undefined) {
        hands.select(name);
        stage.focus(name);
      }
    };
    if (event.key in kArrows) {
      const [dx, dy] = kArrows[event.key];
      act(() => {
        if (wall.solo !== null && !event.shiftKey) {
          const names = wall.channels.map((channel) => channel.name);
          const at = (names.indexOf(wall.solo) + dx + dy + names.length) % names.length;
          hands.showAlone(names[at]);
          return;
        }
        const other = stage.neighbour(chosen, dx, dy);
        if (event.shiftKey && other !== null && chosen !== null) {
          hands.swap(chosen, other);
        } else {
          go(other);
        }
      });
    } else if (/^[1-9]$/.test(event.key)) {
      act(() => go(wall.channels[Number(event.key) - 1]?.name));
    } else if (event.key === "Enter") {
      act(() => chosen !== null && hands.solo(chosen));
    } else if (event.key === "Escape") {
      act(() => hands.back());
    } else if (event.key === "?") {
      act(() => showKeys(hands.isOperator()));
    } else if (chosen !== null && !event.repeat && "lmea".includes(event.key.toLowerCase()) && event.key.length === 1) {
      act(() => ({
        l: () => hands.toggleListen(chosen),
        m: () => hands.mute(chosen),
        e: () => hands.editLabel(),
        a: () => hands.acknowledge(chosen, null),
      })[event.key.toLowerCase()]());
    }
  });
}
