// The dialogs that add, change and remove a source. Errors of the wall are shown at their fields.

import {el, field, openDialog} from "./ui.js";

function sourceFields(channel) {
  return {
    source: field("Source", el("input", {type: "text", spellcheck: "false", autocapitalize: "off", autocomplete: "off",
        placeholder: channel ? channel.source : "udp://239.1.1.1:5000", maxlength: "4096"}),
        channel ? "Empty: it stays as it is" : "A file or an address"),
    name: field("Name", el("input", {type: "text", maxlength: "200"}), channel ? null : "Empty: the wall gives one"),
    label: field("Label", el("input", {type: "text", maxlength: "200", dir: "auto"})),
  };
}

// Shows the wall's message at the field to which it points, and returns true; returns the message
// when it points to none.
function showProblem(problem, fields) {
  const key = (problem.pointer || "").split("/")[1];
  if (Object.hasOwn(fields, key)) {
    fields[key].fail(problem.detail);
    return true;
  }
  return problem.detail + (problem.pointer ? ` (${problem.pointer})` : "");
}

async function submitWith(fields, command, run) {
  for (const one of Object.values(fields)) {
    one.fail("");
  }
  const {problem} = await run(command);
  return problem ? showProblem(problem, fields) : null;
}

export function askAdd(wall, run) {
  const fields = sourceFields(null);
  const free = el("p", {class: "hint"}, wall.spare === 1 ? "One more can be added." : `${wall.spare} more can be added.`);
  return openDialog({
    title: "Add a source", body: [free, ...Object.values(fields).map((one) => one.element)], submitText: "Add",
    submit: async () => {
      const command = {command: "add"};
      for (const [key, one] of Object.entries(fields)) {
        if (one.input.value.trim() || key === "source") {
          command[key] = one.input.value.trim();
        }
      }
      return submitWith(fields, command, run);
    },
  });
}

export function askChange(channel, run) {
  const fields = sourceFields(channel);
  fields.name.input.value = channel.name;
  fields.label.input.value = channel.label || "";
  return openDialog({
    title: `Source of ${channel.name}`, body: Object.values(fields).map((one) => one.element), submitText: "Change",
    submit: async () => {
      const command = {command: "set", channel: channel.name};
      const take = (key, before) => {
        const text = fields[key].input.value.trim();
        if (text !== before) {
          command[key] = text;
        }
      };
      take("source", "");
      take("name", channel.name);
      take("label", channel.label || "");
      return Object.keys(command).length === 2 ? null : submitWith(fields, command, run);
    },
  });
}

export function askRemove(name, run) {
  return openDialog({
    title: `Remove ${name}?`, body: [el("p", {}, "Its window and its audio leave the wall. The wall file stays as it is.")],
    submitText: "Remove", danger: true,
    submit: async () => {
      const {problem} = await run({command: "remove", channel: name});
      return problem ? problem.detail : null;
    },
  });
}
