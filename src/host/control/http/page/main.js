// The operator's page: puts the other modules together.

import {Actions} from "./actions.js";
import {AlarmList, askAcknowledge, askMask} from "./alarms.js";
import {ChannelList, ChannelPanel} from "./channels.js";
import {askSession, Connection} from "./connection.js";
import {History} from "./history.js";
import {listenToKeys, showKeys} from "./keys.js";
import {openLayouts} from "./layouts.js";
import {Picture} from "./picture.js";
import {askAdd, askChange, askRemove} from "./sources.js";
import {Stage} from "./stage.js";
import {isMasked, Wall} from "./state.js";
import {ago, byId, setText, toggle} from "./ui.js";

const kLevelEvery = 100;  // milliseconds
const kTickEvery = 1000;

const connection = new Connection();
const wall = new Wall();
const picture = new Picture(connection);
const actions = new Actions(connection, picture);
let role = null;
let retryAt = null;
let selecting = null;  // what is being selected

const mayChange = () => role === "operate";
const run = (commands) => actions.run(commands);
const ifMay = (action) => (...parameters) => (mayChange() ? action(...parameters) : undefined);

// The operator's actions; with the role "view" only those that change nothing.
const hands = {
  isOperator: mayChange,
  canSwap: mayChange,
  async select(name) {
    wall.choose(name);
    if (mayChange() && selecting !== name && (wall.selected.length !== 1 || wall.selected[0] !== name)) {
      selecting = name;
      await run({command: "select", channel: name});
      selecting = selecting === name ? null : selecting;
    }
  },
  solo: ifMay((name) => run(wall.solo === name ? {command: "solo_off"} : {command: "solo", channel: name})),
  showAlone: ifMay((name) => {
    wall.choose(name);
    run([{command: "select", channel: name}, {command: "solo", channel: name}]);
  }),
  back: ifMay(() => {
    if (wall.solo !== null) {
      run({command: "solo_off"});
    } else if (wall.selected.length > 0) {
      run({command: "select"});
    }
  }),
  swap: ifMay((name, other) => run({command: "swap", channel: name, with: other})),
  label: ifMay((name, label) => run({command: "set", channel: name, label})),
  editLabel: ifMay(() => panel.editLabel()),
  mute: ifMay((name) => run({command: "mute", channel: name,
                             with: wall.channel(name)?.mute === "off" ? "silence" : "off"})),
  reconnect: ifMay((name) => run({command: "reconnect", channel: name})),
  acknowledge: ifMay((name, alarm) => {
    if (alarm !== null || wall.openAlarms.some((one) => one.channel.name === name)) {
      askAcknowledge(name, alarm, run);
    }
  }),
  mask: ifMay((name) => askMask(name, isMasked(wall.channel(name) || {}), run)),
  edit: ifMay((name) => askChange(wall.channel(name), run)),
  remove: ifMay((name) => askRemove(name, run)),
  async listen(name) {
    const why = await picture.listen(name);
    if (why) {
      say(`Cannot listen to ${name}: ${why}`);
    }
  },
  toggleListen(name) {
    if (picture.canListen) {
      hands.listen(picture.heard === name ? null : name);
    }
  },
};

const stage = new Stage(wall, hands);
const list = new ChannelList(wall, hands);
const panel = new ChannelPanel(wall, hands);
const alarms = new AlarmList(wall, hands);
const history = new History(wall);
const tabs = [...document.querySelectorAll('[role="tab"]')];

function say(text) {
  setText(byId("banner-text"), text);
  byId("banner").hidden = text === "";
  byId("banner-now").hidden = retryAt === null;
}

function show(id) {
  for (const one of ["main", "sign-in", "starting"]) {
    byId(one).hidden = one !== id;
  }
  document.body.dataset.view = id;
}

function render() {
  setText(byId("wall-size"), `${wall.canvas.width}×${wall.canvas.height}`);
  setText(byId("layout-name"), wall.layout);
  byId("solo-off").hidden = wall.solo === null;
  byId("add-button").disabled = wall.spare === 0;
  byId("add-button").title = wall.spare === 0 ? "The wall keeps no spare channel: \"spare\" in its file" : "";
  stage.render();
  list.render();
  panel.render();
  alarms.render();
}

function renderPicture() {
  const veil = byId("veil");
  const state = byId("picture-state");
  let text = {video: "Live", stills: "Live, as stills", none: "No picture"}[picture.mode];
  let over = "";
  if (!connection.isOpen) {
    over = "No connection to the wall";
    text = "Not connected";
  } else if (picture.mode !== "none" && !picture.hasFrame) {
    over = picture.age > 1000 ? `No picture yet, for ${ago(picture.age)}` : "";
    text = "Waiting";
  } else if (picture.stands) {
    over = `The picture stands still: ${ago(picture.age)} old`;
    text = "Stands still";
  } else if (picture.mode === "none") {
    text = "Paused";
  }
  setText(state, text);
  state.title = picture.note;
  state.dataset.state = over ? "bad" : picture.mode === "video" && picture.hasFrame ? "good" : "fair";
  setText(byId("veil-text"), over);
  veil.hidden = over === "";
  toggle(byId("stage"), "data-old", over !== "");
  panel.canListen = picture.canListen && connection.isOpen;
}

function renderHeard() {
  const name = picture.heard;
  byId("heard").hidden = name === null;
  setText(byId("heard-name"), name ?? "");
  stage.heard = name;
  list.heard = name;
  panel.heard = name;
}

function openTab(tab, focuses) {
  for (const one of tabs) {
    const isOpen = one === tab;
    one.setAttribute("aria-selected", String(isOpen));
    one.tabIndex = isOpen ? 0 : -1;
    byId(one.getAttribute("aria-controls")).hidden = !isOpen;
  }
  if (focuses) {
    tab.focus();
  }
  history.render();
}

function retryText() {
  const seconds = Math.max(0, Math.ceil((retryAt - Date.now()) / 1000));
  return "The connection to the wall is lost. What you see is not live. " +
      (seconds > 0 ? `Tried again in ${seconds} s.` : "Trying …");
}

async function completeState() {
  try {
    const answer = await fetch("/api/v1/wall", {cache: "no-store"});
    if (answer.ok) {
      wall.mergeLive(await answer.json());
    }
  } catch {
    // The connection detects the failure.
  }
}

connection.addEventListener("open", () => {
  retryAt = null;
  say("");
  renderPicture();
});
connection.addEventListener("closed", ({detail}) => {
  retryAt = detail.retryAt;
  if (wall.isKnown) {
    say(retryText());
  }
  renderPicture();
});
connection.addEventListener("signed-out", () => {
  retryAt = null;
  say("");
  show("sign-in");
  byId("token").focus();
});
connection.addEventListener("role", ({detail}) => {
  role = detail;
  document.body.toggleAttribute("data-view-only", !mayChange());
  byId("view-only").hidden = mayChange();
  render();
});
connection.addEventListener("message", ({detail}) => {
  if (picture.takeMessage(detail)) {
    return;
  }
  if (detail.event === "snapshot") {
    wall.snapshot(detail.wall);
    show("main");
    history.load();
  } else {
    wall.event(detail);
  }
});

wall.addEventListener("change", render);
wall.addEventListener("event", ({detail}) => history.add(detail));
wall.addEventListener("incomplete", completeState);
picture.addEventListener("frame", () => {
  const {frame} = picture;
  wall.advanceTo(frame);
  actions.advanceTo(frame);
  byId("stage").dataset.frame = frame ?? "";
});
picture.addEventListener("state", renderPicture);
picture.addEventListener("listening", ({detail}) => {
  renderHeard();
  if (detail.why) {
    say(`Nothing is heard any more: ${detail.why}`);
  }
});

for (const tab of tabs) {
  tab.addEventListener("click", () => openTab(tab, false));
  tab.addEventListener("keydown", (event) => {
    const step = {ArrowLeft: -1, ArrowRight: 1}[event.key];
    if (step) {
      event.preventDefault();
      openTab(tabs[(tabs.indexOf(tab) + step + tabs.length) % tabs.length], true);
    }
  });
}
byId("layout-button").addEventListener("click", () => openLayouts(wall, run));
byId("add-button").addEventListener("click", () => askAdd(wall, run));
byId("solo-off").addEventListener("click", () => hands.back());
byId("help-button").addEventListener("click", () => showKeys(mayChange()));
byId("heard-off").addEventListener("click", () => hands.listen(null));
byId("banner-now").addEventListener("click", () => connection.tryNow());
listenToKeys(wall, stage, hands);

byId("sign-in-form").addEventListener("submit", async (event) => {
  event.preventDefault();
  const error = byId("token-error");
  setText(error, "");
  try {
    const answer = await fetch("/api/v1/session", {
      method: "POST", headers: {"Content-Type": "application/json"},
      body: JSON.stringify({token: byId("token").value}),
    });
    const session = await answer.json();
    if (!answer.ok) {
      setText(error, session.detail || "The wall refuses it.");
      return;
    }
    byId("token").value = "";
    byId("sign-out").hidden = !session.asks_for_token;
    show("starting");
    connection.start();
  } catch {
    setText(error, "The wall cannot be reached.");
  }
});
byId("sign-out").addEventListener("click", async () => {
  connection.stop();
  picture.signOut();
  await fetch("/api/v1/session", {method: "DELETE"}).catch(() => {});
  connection.start();
});

setInterval(() => {
  if (retryAt !== null && wall.isKnown) {
    say(retryText());
  }
  wall.advanceTo(picture.frame);
  actions.advanceTo(picture.frame);
  alarms.render();
}, kTickEvery);
setInterval(() => {
  if (picture.heard !== null) {
    const level = Math.round(picture.level);
    byId("heard-level").value = level;
    byId("heard-level").title = `${level} dBFS`;
  }
}, kLevelEvery);

askSession().then((session) => {
  byId("sign-out").hidden = !session.asks_for_token;
}).catch(() => {});
connection.start();
