// The menu of layouts: apply, save, delete.

import {byId, el, field, openDialog} from "./ui.js";

const kSvg = "http://www.w3.org/2000/svg";

// Windows in rows, one for each channel, for layouts whose places depend on the channels.
function rows(count, canvas) {
  const columns = Math.ceil(Math.sqrt(count));
  const width = canvas.width / columns;
  const height = canvas.height / columns;
  const top = (canvas.height - Math.ceil(count / columns) * height) / 2;
  return Array.from({length: count}, (_, at) => ({window: [
    (at % columns) * width + width / 20, top + Math.floor(at / columns) * height + height / 20,
    width * 0.9, height * 0.9]}));
}

function drawing(layout, canvas) {
  const svg = document.createElementNS(kSvg, "svg");
  svg.setAttribute("viewBox", `0 0 ${canvas.width} ${canvas.height}`);
  svg.setAttribute("aria-hidden", "true");
  for (const place of layout.places) {
    const [x, y, width, height] = place.window;
    const rectangle = document.createElementNS(kSvg, "rect");
    for (const [key, value] of Object.entries({x, y, width, height, rx: canvas.width / 100})) {
      rectangle.setAttribute(key, value);
    }
    svg.append(rectangle);
  }
  return svg;
}

// run(command): carries it out, and returns {result} or {problem}.
export async function openLayouts(wall, run) {
  const list = el("ul", {class: "layouts"});
  const error = el("p", {class: "error", role: "alert"});
  const name = field("Save the places of the windows as", el("input", {type: "text", maxlength: "64"}));
  const byName = el("input", {type: "checkbox", id: "by-name"});
  const fill = async () => {
    let layouts = [];
    try {
      const answer = await fetch("/api/v1/layouts", {cache: "no-store"});
      layouts = answer.ok ? await answer.json() : [];
    } catch {
      error.textContent = "The layouts could not be read from the wall.";
    }
    for (const layout of layouts) {
      if (["auto", "file"].includes(layout.name) && layout.places.length === 0) {
        layout.places = rows(wall.channels.length, wall.canvas);
      }
    }
    // A layout without places does not fit on the canvas.
    const usable = layouts.filter((layout) => layout.places.length > 0);
    list.replaceChildren(...usable.map((layout) => {
      const apply = el("button", {type: "button", class: "layout",
          autofocus: layout.name === wall.layout,
          "aria-current": layout.name === wall.layout ? "true" : null}, drawing(layout, wall.canvas),
          el("span", {dir: "auto"}, layout.name));
      apply.addEventListener("click", async () => {
        const {problem} = await run({command: "layout", layout: layout.name});
        error.textContent = problem ? problem.detail : "";
        if (!problem) {
          apply.closest("dialog").close();
        }
      });
      const remove = layout.saved ? el("button", {type: "button", class: "link",
          "aria-label": `Delete the layout ${layout.name}`}, "Delete") : null;
      remove?.addEventListener("click", async () => {
        const {problem} = await run({command: "delete_layout", layout: layout.name});
        error.textContent = problem ? problem.detail : "";
        await fill();
      });
      return el("li", {}, apply, remove);
    }));
  };
  await fill();
  await openDialog({
    title: "Layouts",
    body: [list, error, el("h3", {}, "Save"), name.element,
           el("div", {class: "check"}, byName, el("label", {for: "by-name"}, "Each place keeps its channel"))],
    submitText: "Save",
    submit: async () => {
      name.fail("");
      const layout = name.input.value.trim();
      if (!layout) {
        name.fail("Give it a name.");
        return true;
      }
      const {problem} = await run({command: "save_layout", layout, by_name: byName.checked});
      if (problem) {
        name.fail(problem.detail);
        return true;
      }
      name.input.value = "";
      await fill();
      return true;  // the menu stays open
    },
  });
  byId("layout-button").focus();
}
