// The wall's reports in words.

const kStates = {
  opening: "opening", live: "live", held: "last frame held", lost: "lost",
};
const kAudio = {
  unknown: "audio not known yet", off: "audio switched off", present: "audio present",
  silent: "audio silent", absent: "no audio in the source", no_track: "no such audio track",
  not_started: "audio announced, none came", undecodable: "audio cannot be decoded",
  stopped: "audio stopped",
};
const kAlarms = {
  loss: "no signal", black: "black", freeze: "frozen", silence: "silence", clipping: "clipping",
};
const kDecoding = {
  full: "", unreferenced_unfiltered: "decoded with less filtering",
  unfiltered: "decoded without filtering", referenced_only: "decoded in part",
  keyframes_only: "decodes keyframes only",
};

export const stateWord = (state) => kStates[state] || state || "not known yet";
export const audioWord = (state) => kAudio[state] || state || "audio not known yet";
export const alarmWord = (alarm) => kAlarms[alarm] || alarm;
export const decodingWord = (step) => (Object.hasOwn(kDecoding, step) ? kDecoding[step] : step || "");

export function labelOf(channel) {
  if (channel.label_service) {
    return "(name of the service)";
  }
  return channel.label_file ? `(from ${channel.label_file})` : channel.label || "";
}

// A name inside a sentence must not change the text direction of what follows it.
const withoutDirections = (text) => text.replace(/[\u202a-\u202e\u2066-\u2069]/g, "");

function keysOf(command) {
  return Object.keys(command).filter((key) => key !== "command" && key !== "channel");
}

export function describeCommand(command) {
  if (command === null || typeof command !== "object") {
    return "";
  }
  const channel = command.channel;
  switch (command.command) {
    case "add": return `Add ${command.name || command.source}`;
    case "remove": return `Remove ${channel}`;
    case "set":
      return "label" in command && keysOf(command).length === 1
          ? `Label of ${channel}: ${command.label || "none"}`
          : `Change ${keysOf(command).join(", ")} of ${channel}`;
    case "reconnect": return `Reconnect ${channel}`;
    case "select": return channel ? `Select ${channel}` : "Select none";
    case "order": return "Change the order";
    case "mute":
      return command.with === "off" ? `Unmute ${channel}` : `Mute ${channel}`;
    case "follow": return channel ? `Follow ${channel}` : "Follow none";
    case "acknowledge":
      return `Acknowledge ${command.alarm ? alarmWord(command.alarm) + " of " : ""}${channel}` +
          (command.who ? ` (${command.who})` : "") + (command.note ? `: ${command.note}` : "");
    case "mask":
      return command.for === 0 ? `Unmask ${channel}`
          : `Mask ${channel}` + (command.for ? ` for ${Math.round(command.for / 60)} min` : "");
    case "layout": return `Layout ${command.layout}`;
    case "solo": return `Full screen: ${channel}`;
    case "solo_off": return "Back to the layout";
    case "swap": return `Swap ${channel} and ${command.with}`;
    case "save_layout": return `Save the layout ${command.layout}`;
    case "delete_layout": return `Delete the layout ${command.layout}`;
    case "reload": return "Read the wall file again";
    case "save": return "Save to the wall file";
    default: return String(command.command);
  }
}

export function describeCommands(commands) {
  const list = Array.isArray(commands) ? commands : [commands];
  const texts = list.slice(0, 3).map(describeCommand).filter(Boolean);
  return withoutDirections(texts.join("; ")) + (list.length > 3 ? ` and ${list.length - 3} more` : "");
}

// An event of the history: its kind for the filter, a level for its colour, and its text.
export function describeEvent(event) {
  const described = describe(event);
  return {...described, text: withoutDirections(described.text)};
}

function describe(event) {
  const why = event.reason ? `: ${event.reason}` : "";
  switch (event.event) {
    case "channel":
      return {kind: "channel", level: event.state === "live" ? "good" : event.state === "lost" ? "bad" : "",
              text: `${event.channel} is ${stateWord(event.state)}${why}`};
    case "audio":
      return {kind: "channel", level: "", text: `${event.channel}: ${audioWord(event.state)}${why}`};
    case "decoding":
      return {kind: "channel", level: "",
              text: `${event.channel}: ${decodingWord(event.step) || "decoded fully"}${why}`};
    case "alarm":
      return {kind: "alarm", level: event.raised ? "bad" : "good",
              text: `${event.channel}: ${alarmWord(event.alarm)} ${event.raised ? "raised" : "over"}`};
    case "changed":
      return {kind: "change", level: "",
              text: `${describeCommands(event.commands || []) || "Changed"} — ${event.from || ""}`};
    case "refused":
      return {kind: "change", level: "bad", text: `Refused${why} — ${event.from || ""}`};
    default:
      return {kind: "", level: "", text: String(event.event)};
  }
}
