// Commands in progress: each is shown at once, then with the frame from which it is in effect, or
// with the reason why it is not.

import {byId, el, setText, timeOf} from "./ui.js";
import {describeCommands} from "./words.js";

const kMaxShown = 30;

export class Actions {
  #connection;
  #picture;
  #list = byId("action-list");
  #accepted = [];  // commands that the picture does not show yet: {frame, show}

  constructor(connection, picture) {
    this.#connection = connection;
    this.#picture = picture;
  }

  // Returns {result} or {problem}.
  async run(commands) {
    const status = el("span", {class: "status"}, "under way");
    const detail = el("span", {class: "detail"});
    const entry = el("li", {class: "busy"},
        el("span", {class: "what"}, describeCommands(commands)), status, detail);
    this.#list.prepend(entry);
    while (this.#list.childElementCount > kMaxShown) {
      this.#list.lastElementChild.remove();
    }
    const show = (kind, text, more = "") => {
      entry.className = kind;
      setText(status, text);
      setText(detail, more);
    };
    const reply = await this.#connection.ask({commands});
    const {result, problem} = reply;
    if (problem) {
      show("refused", "not done", problem.detail +
          (problem.nearest && !problem.detail.includes(problem.nearest)
              ? ` (did you mean “${problem.nearest}”?)` : ""));
    } else if (!result.changed) {
      show("done", "nothing to change", "");
    } else {
      const now = timeOf(new Date());
      const effect = () => show("done", "in effect", `since frame ${result.frame}, ${now}`);
      const shown = this.#picture.frame;
      if (shown === null || shown >= result.frame) {
        effect();
      } else {
        show("busy", "accepted", `from frame ${result.frame} on`);
        this.#accepted.push({frame: result.frame, effect, until: Date.now() + 10000});
      }
    }
    return reply;
  }

  // Called whenever the picture shows another frame, and at intervals without one.
  advanceTo(frame) {
    this.#accepted = this.#accepted.filter((one) => {
      if ((frame !== null && frame >= one.frame) || Date.now() > one.until) {
        one.effect();
        return false;
      }
      return true;
    });
  }
}
