// The page's one WebSocket: events and pictures in, messages with their replies out.
//
// Events: "open", "closed" (detail: {retryAt}), "signed-out", "message" (detail: an event of the
// wall), "binary" (detail: an ArrayBuffer), "role" (detail: "view" or "operate").

const kFirstDelay = 500;  // milliseconds
const kMaxDelay = 8000;
const kCheckEvery = 5000;   // whether the wall is still there
const kCheckLimit = 5000;
const kReplyLimit = 15000;

export async function askSession() {
  const answer = await fetch("/api/v1/session", {
    cache: "no-store", signal: AbortSignal.timeout(kCheckLimit),
  });
  if (!answer.ok) {
    throw new Error(`the wall answers ${answer.status}`);
  }
  return answer.json();
}

export class Connection extends EventTarget {
  #socket = null;
  #waiting = new Map();  // id -> {resolve, timer}
  #nextId = 1;
  #delay = kFirstDelay;
  #retry = null;
  #role = null;
  #watch = null;

  get isOpen() {
    return this.#socket !== null && this.#socket.readyState === WebSocket.OPEN;
  }

  async start() {
    clearTimeout(this.#retry);
    this.#retry = null;
    let session;
    try {
      session = await askSession();
    } catch {
      this.#later();
      return;
    }
    if (!session.role) {
      this.#emit("signed-out");
      return;
    }
    this.#setRole(session.role);
    this.#open();
  }

  tryNow() {
    if (this.#retry !== null) {
      this.#delay = kFirstDelay;
      this.start();
    }
  }

  stop() {
    clearTimeout(this.#retry);
    this.#retry = null;
    const socket = this.#socket;
    this.#socket = null;
    clearInterval(this.#watch);
    if (socket) {
      socket.close();
    }
    this.#failAll();
  }

  // Returns {result} or {problem}; never throws.
  ask(message) {
    if (!this.isOpen) {
      return Promise.resolve({problem: {detail: "there is no connection to the wall"}});
    }
    const id = this.#nextId++;
    return new Promise((resolve) => {
      const timer = setTimeout(() => {
        this.#waiting.delete(id);
        resolve({problem: {detail: "the wall did not answer; it may still do it"}});
      }, kReplyLimit);
      this.#waiting.set(id, {resolve, timer});
      this.#socket.send(JSON.stringify({...message, id}));
    });
  }

  #open() {
    const scheme = location.protocol === "https:" ? "wss:" : "ws:";
    const socket = new WebSocket(`${scheme}//${location.host}/ws`);
    socket.binaryType = "arraybuffer";
    this.#socket = socket;
    const isCurrent = () => this.#socket === socket;
    socket.addEventListener("open", () => {
      if (isCurrent()) {
        this.#watch = setInterval(() => this.#check(), kCheckEvery);
        this.#emit("open");
      }
    });
    socket.addEventListener("message", ({data}) => {
      if (!isCurrent()) {
        return;
      }
      if (data instanceof ArrayBuffer) {
        this.#emit("binary", data);
        return;
      }
      this.#delay = kFirstDelay;
      const message = JSON.parse(data);
      if (message.event === "reply") {
        const waiting = this.#waiting.get(message.id);
        if (waiting) {
          this.#waiting.delete(message.id);
          clearTimeout(waiting.timer);
          waiting.resolve(message);
        }
      } else {
        this.#emit("message", message);
      }
    });
    socket.addEventListener("close", () => {
      if (isCurrent()) {
        this.#lost();
      }
    });
  }

  // A machine that was switched off closes no connection.
  async #check() {
    const socket = this.#socket;
    try {
      const session = await askSession();
      if (socket !== this.#socket) {
        return;
      }
      if (!session.role) {
        this.stop();
        this.#emit("signed-out");
      } else {
        this.#setRole(session.role);
      }
    } catch {
      if (socket !== null && socket === this.#socket) {
        this.#lost();
      }
    }
  }

  #lost() {
    this.stop();
    this.#later();
  }

  #later() {
    const delay = this.#delay * (0.75 + Math.random() / 2);
    this.#delay = Math.min(this.#delay * 2, kMaxDelay);
    this.#retry = setTimeout(() => this.start(), delay);
    this.#emit("closed", {retryAt: Date.now() + delay});
  }

  #failAll() {
    for (const {resolve, timer} of this.#waiting.values()) {
      clearTimeout(timer);
      resolve({problem: {detail: "the connection was lost; whether it took effect is not known"}});
    }
    this.#waiting.clear();
  }

  #setRole(role) {
    if (role !== this.#role) {
      this.#role = role;
      this.#emit("role", role);
    }
  }

  #emit(name, detail) {
    this.dispatchEvent(new CustomEvent(name, {detail}));
  }
}
