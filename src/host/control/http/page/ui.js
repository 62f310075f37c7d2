// Elements, texts and dialogs. What comes from the wall becomes text here, never markup.

// el("button", {class: "x", onclick: f, "aria-label": "y"}, "text", child, ...)
export function el(tag, properties = {}, ...children) {
  const element = document.createElement(tag);
  for (const [key, value] of Object.entries(properties)) {
    if (key.startsWith("on")) {
      element.addEventListener(key.slice(2), value);
    } else if (value === true) {
      element.setAttribute(key, "");
    } else if (value !== false && value !== null && value !== undefined) {
      element.setAttribute(key, value);
    }
  }
  element.append(...children.filter((child) => child !== null && child !== undefined));
  return element;
}

export const byId = (id) => document.getElementById(id);

// Changes a text only when it differs, so that screen readers read nothing twice.
export function setText(element, text) {
  if (element.textContent !== text) {
    element.textContent = text;
  }
}

export function toggle(element, attribute, on) {
  if (element.hasAttribute(attribute) !== on) {
    element.toggleAttribute(attribute, on);
  }
}

// Updates the children of a container from a list: one for each key, in order; those that stay are
// the same elements, so that the focus is kept.
export function keyed(container, items, keyOf, create, update) {
  const known = new Map();
  for (const child of container.children) {
    known.set(child.dataset.key, child);
  }
  let at = container.firstElementChild;
  for (const item of items) {
    const key = String(keyOf(item));
    let child = known.get(key);
    known.delete(key);
    if (!child) {
      child = create(item);
      child.dataset.key = key;
    }
    if (child === at) {
      at = at.nextElementSibling;
    } else {
      container.insertBefore(child, at);
    }
    update(child, item);
  }
  for (const child of known.values()) {
    child.remove();
  }
}

// A modal dialog with a form. body: elements; submit(): returns a promise; the dialog closes when
// that resolves to null, and stays open with a text, which it shows, or true. Returns a promise of
// whether it was submitted.
export function openDialog({title, body, submitText, submit, danger = false}) {
  return new Promise((resolve) => {
    let done = false;
    const before = document.activeElement;
    const error = el("p", {class: "error", role: "alert"});
    const submitButton = submitText
        ? el("button", {type: "submit", class: danger ? "danger" : "accent"}, submitText) : null;
    const form = el("form", {novalidate: true},
        el("h2", {id: "dialog-title"}, title), ...body, error,
        el("div", {class: "buttons"},
            el("button", {type: "button", onclick: () => dialog.close()},
                submitText ? "Cancel" : "Close"),
            submitButton));
    const dialog = el("dialog", {"aria-labelledby": "dialog-title"}, form);
    form.addEventListener("submit", async (event) => {
      event.preventDefault();
      if (!submit || submitButton.disabled) {
        return;
      }
      submitButton.disabled = true;
      error.textContent = "";
      const why = await submit();
      submitButton.disabled = false;
      if (why) {
        error.textContent = why === true ? "" : why;
      } else {
        done = true;
        dialog.close();
      }
    });
    dialog.addEventListener("close", () => {
      dialog.remove();
      if (before && before.isConnected) {
        before.focus();
      }
      resolve(done);
    });
    byId("dialogs").append(dialog);
    dialog.showModal();
    const first = form.querySelector("[autofocus], input, select, textarea");
    if (first) {
      first.focus();
    }
  });
}

let fieldNumber = 0;
// A labelled field that can show what is wrong with it. field.input, field.fail(text).
export function field(label, input, hint) {
  const id = `field-${++fieldNumber}`;
  input.id = id;
  const error = el("p", {class: "error", id: `${id}-error`});
  const about = hint ? el("p", {class: "hint", id: `${id}-hint`}, hint) : null;
  input.setAttribute("aria-describedby", `${id}-error` + (hint ? ` ${id}-hint` : ""));
  const element = el("div", {class: "field"}, el("label", {for: id}, label), input, about, error);
  const fail = (text) => {
    error.textContent = text || "";
    input.setAttribute("aria-invalid", text ? "true" : "false");
    if (text) {
      input.focus();
    }
  };
  return {element, input, fail};
}

export function timeOf(text) {
  const time = new Date(text);
  return Number.isNaN(time.getTime()) ? "" : time.toLocaleTimeString([], {hour12: false});
}

export function ago(milliseconds) {
  const seconds = Math.round(milliseconds / 1000);
  if (seconds < 100) {
    return `${seconds} s`;
  }
  const minutes = Math.round(seconds / 60);
  return minutes < 100 ? `${minutes} min` : `${Math.round(minutes / 60)} h`;
}
