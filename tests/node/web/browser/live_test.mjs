// Tests the page's connection to the media node without a browser, with a clock of its own.
import assert from "node:assert/strict";
import test, {beforeEach} from "node:test";

import {Live} from "../../../../node/web/page/live.js";

let now;
let timers;    // Each with `at`, `run` and, if it comes again, `every`.
let sockets;   // All that were opened, the newest last.
let states;
let messages;
let answer;    // Of the node, to the question whether the session goes on.
let went_to;

function add_timer(run, ms, every) {
  const timer = {run, at: now + ms, every};
  timers.add(timer);
  return timer;
}

beforeEach(() => {
  [now, timers, sockets, states, messages] = [1000, new Set(), [], [], []];
  answer = () => Promise.reject(new Error("nobody is there"));
  went_to = null;
  class Socket {
    static OPEN = 1;
    readyState = 0;

    constructor(address) {
      this.address = String(address);
      sockets.push(this);
    }

    close() {
      this.readyState = 2;
    }
  }
  Object.assign(globalThis, {
    WebSocket: Socket,
    window: {addEventListener: () => {}},
    document: {addEventListener: () => {}},
    location: {href: "https://node.example/", protocol: "https:", assign: (to) => {
      went_to = to;
    }},
    fetch: () => answer(),
    setTimeout: (run, ms) => add_timer(run, ms),
    setInterval: (run, ms) => add_timer(run, ms, ms),
    clearTimeout: (timer) => timers.delete(timer),
  });
  Date.now = () => now;
  Math.random = () => 0.5;
});

function pass(ms) {
  const end = now + ms;
  for (;;) {
    const next = [...timers].filter(({at}) => at <= end).sort((one, two) => one.at - two.at)[0];
    if (next === undefined) {
      now = end;
      return;
    }
    now = next.at;
    next.at += next.every ?? 0;
    if (!next.every) {
      timers.delete(next);
    }
    next.run();
  }
}

function connect() {
  const live = new Live({on_message: (message) => messages.push(message), on_audio: () => {},
                         on_state: (state) => states.push(state)});
  live.connect();
  return live;
}

function open() {
  const socket = sockets.at(-1);
  socket.readyState = 1;
  socket.onopen();
  return socket;
}

const say = (socket, message) => socket.onmessage({data: JSON.stringify(message)});

// How long it takes until the next attempt, in milliseconds.
function pause() {
  const [before, number] = [now, sockets.length];
  while (sockets.length === number) {
    pass(100);
  }
  return now - before;
}

test("the pauses between attempts grow to 30 seconds, and begin anew when a node greets", () => {
  connect();
  const pauses = [];
  for (let i = 0; i < 8; ++i) {
    sockets.at(-1).onclose();
    pauses.push(pause());
  }
  assert.deepEqual(pauses, [500, 1000, 2000, 4000, 8000, 16000, 30000, 30000]);
  // A node that refuses opens the connection, too.
  open().onclose();
  assert.equal(pause(), 30000);
  const socket = open();
  say(socket, {type: "hello"});
  socket.onclose();
  assert.equal(pause(), 500);
});

test("a connection is given up after 15 seconds of silence", () => {
  connect();
  const socket = open();
  for (let i = 0; i < 5; ++i) {
    pass(10000);
    say(socket, {type: "levels", rows: []});
  }
  assert.equal(sockets.length, 1);
  pass(14000);
  assert.equal(states.at(-1).connected, true);
  pass(2000);
  assert.equal(states.at(-1).connected, false);
  assert.equal(socket.readyState, 2);
  // What it says later is not heard.
  say(socket, {type: "late"});
  assert.ok(messages.every(({type}) => type === "levels"));
  pass(1000);
  assert.equal(sockets.length, 2);
});

test("so is an attempt that nobody answers", () => {
  connect();
  pass(14000);
  assert.equal(sockets.length, 1);
  pass(3000);
  assert.equal(sockets.length, 2);
  assert.equal(sockets[0].readyState, 2);
});

test("a session that has ended leads to the login", async () => {
  connect();
  open().onclose();
  await new Promise(setImmediate);
  assert.equal(went_to, null, "the node is away");
  answer = () => Promise.resolve({status: 200});
  pause();
  open().onclose();
  await new Promise(setImmediate);
  assert.equal(went_to, null, "the session goes on");
  answer = () => Promise.resolve({status: 401});
  pause();
  sockets.at(-1).onclose();
  await new Promise(setImmediate);
  assert.equal(went_to, "/login");
});

test("what is not JSON is passed over", () => {
  connect();
  const socket = open();
  socket.onmessage({data: "{"});
  say(socket, {type: "hello"});
  assert.deepEqual(messages, [{type: "hello"}]);
  assert.equal(socket.address, "wss://node.example/api/live");
});
