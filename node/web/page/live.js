// The connection to the media node: one websocket, opened again after each loss, with a pause that
// grows.

const FIRST_PAUSE_MS = 500;
const LONGEST_PAUSE_MS = 30000;
// A node that sends nothing for so long is not there. It sends something every five seconds.
const SILENCE_MS = 15000;

export class Live {
  // on_message(object), on_audio(ArrayBuffer), on_state({connected, retry_at}), by Date.now().
  constructor({on_message, on_audio, on_state}) {
    this.on_message = on_message;
    this.on_audio = on_audio;
    this.on_state = on_state;
    this.pause_ms = FIRST_PAUSE_MS;
    this.timer = null;
    this.socket = null;
    this.last_heard = 0;
    setInterval(() => this.drop_silent(), 1000);
    window.addEventListener("online", () => this.retry_now());
    document.addEventListener("visibilitychange", () => {
      if (!document.hidden) {
        this.retry_now();
      }
    });
  }

  get connected() {
    return this.socket !== null && this.socket.readyState === WebSocket.OPEN;
  }

  connect() {
    clearTimeout(this.timer);
    this.timer = null;
    const address = new URL("/api/live", location.href);
    address.protocol = location.protocol === "https:" ? "wss:" : "ws:";
    const socket = new WebSocket(address);
    socket.binaryType = "arraybuffer";
    this.socket = socket;
    this.last_heard = Date.now();
    socket.onopen = () => this.on_state({connected: true});
    socket.onmessage = ({data}) => this.receive(socket, data);
    socket.onclose = () => this.lost(socket);
  }

  receive(socket, data) {
    if (socket !== this.socket) {
      return;
    }
    this.last_heard = Date.now();
    if (typeof data !== "string") {
      this.on_audio(data);
      return;
    }
    let message;
    try {
      message = JSON.parse(data);
    } catch {
      console.warn("a message of the media node is not JSON");
      return;
    }
    // Only a node that greets counts as reached: a refused one closes at once.
    if (message.type === "hello") {
      this.pause_ms = FIRST_PAUSE_MS;
    }
    this.on_message(message);
  }

  lost(socket) {
    if (socket !== this.socket) {
      return;
    }
    this.socket = null;
    // Pages that lost the same node do not return in the same moment.
    const pause = this.pause_ms * (0.8 + 0.4 * Math.random());
    this.pause_ms = Math.min(this.pause_ms * 2, LONGEST_PAUSE_MS);
    this.timer = setTimeout(() => this.connect(), pause);
    this.on_state({connected: false, retry_at: Date.now() + pause});
    this.check_session();
  }

  // The websocket does not say why it was refused. A session that has ended leads to the login.
  async check_session() {
    try {
      const answer = await fetch("/api/calls", {method: "HEAD", cache: "no-store"});
      if (answer.status === 401) {
        location.assign("/login");
      }
    } catch {
      // The node is away; the next attempt follows.
    }
  }

  retry_now() {
    if (this.socket === null) {
      this.connect();
    }
  }

  drop_silent() {
    if (this.socket !== null && Date.now() - this.last_heard > SILENCE_MS) {
      const socket = this.socket;
      this.lost(socket);
      socket.close();
    }
  }

  send(message) {
    if (this.connected) {
      this.socket.send(JSON.stringify(message));
    }
  }
}
