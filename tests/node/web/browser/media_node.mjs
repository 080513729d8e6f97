// A media node with its page, and calls that are sent to it: what the tests of the page begin with.
import {spawn} from "node:child_process";
import {randomUUID} from "node:crypto";
import dgram from "node:dgram";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";

export const RATE = 8000;
export const FRAME = 160;  // 20 ms.
export const ORIGINATOR = 0;
export const TERMINATOR = 1;
const PATIENCE_MS = 30000;

export const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

// Waits until `happened()` is true, or a promise of true.
export async function until(what, happened) {
  const begin = Date.now();
  while (!(await happened())) {
    if (Date.now() - begin > PATIENCE_MS) {
      throw new Error("waited in vain until " + what);
    }
    await sleep(20);
  }
}

export class MediaNode {
  // Starts the program with further options. `http` is the address of the page.
  static async start(program, {options = [], http = "127.0.0.1:0", events = false} = {}) {
    const node = new MediaNode();
    node.folder = fs.mkdtempSync(path.join(os.tmpdir(), "quorvane-page-"));
    node.events_file = path.join(node.folder, "events.jsonl");
    node.log = "";
    node.process = spawn(program, [
      "--listen", "127.0.0.1:0", "--http", http, "--output", node.folder,
      ...(events ? ["--events", node.events_file] : []), ...options,
    ], {stdio: ["ignore", "pipe", "pipe"]});
    for (const stream of [node.process.stdout, node.process.stderr]) {
      stream.on("data", (text) => {
        node.log += text;
      });
    }
    node.over = new Promise((resolve) => node.process.on("close", resolve));
    let over = false;
    node.over.then(() => {
      over = true;
    });
    await until("the media node has its ports", () => {
      if (over) {
        throw new Error("the media node ended: " + node.log);
      }
      node.url = node.log.match(/(https?:\/\/127\.0\.0\.1:\d+\/)(?!metrics)/)?.[1];
      node.port = Number(node.log.match(/ 127\.0\.0\.1:(\d+)/)?.[1]);
      return node.url && node.port;
    });
    return node;
  }

  // The events so far, if it was started with `events`.
  events() {
    return fs.readFileSync(this.events_file, "utf8").split("\n").filter((line) => line.endsWith("}"))
      .map((line) => JSON.parse(line));
  }

  async stop(signal = "SIGTERM") {
    this.process.kill(signal);
    await this.over;
    fs.rmSync(this.folder, {recursive: true});
  }
}

// The packets, as docs/protocol.md describes them.

const START = 0x81;
const TERMINATE = 0x82;
const DATA = 0x83;
const SIDE_WORDS = [0x0000, 0x8001];  // Of an inbound call.
const RULE_ID_GIVEN = 0x8000;

function call_key(uuid) {
  let key = 0n;
  for (const byte of uuid) {
    key ^= BigInt(byte) << 56n;
    for (let bit = 0; bit < 8; ++bit) {
      key = key & 0x8000000000000000n ? (key << 1n) ^ 0x142f0e1eba9ea3693n : key << 1n;
    }
  }
  return key;
}

const micros = () => process.hrtime.bigint() / 1000n;

class Call {
  constructor(port, socket, {uuid = randomUUID(), reference = "call@example", features = 0xfc}) {
    this.port = port;
    this.socket = socket;
    this.uuid = uuid;
    this.bytes = Buffer.from(uuid.replaceAll("-", ""), "hex");
    this.key = call_key(this.bytes);
    this.sequence = [0, 0];
    this.reference = reference;
    this.features = features;
  }

  send(type, word, body) {
    const packet = Buffer.alloc(40);
    packet.writeUInt32LE(0x00ff00ff, 0);
    packet.writeUInt8(type, 4);
    packet.writeUInt8(1, 5);
    packet.writeUInt16LE(word, 6);
    packet.writeBigUInt64LE(this.key, 8);
    this.bytes.copy(packet, 16);
    packet.writeBigInt64LE(micros(), 32);
    this.socket.send(Buffer.concat([packet, body]), this.port, "127.0.0.1");
  }

  start() {
    const text = Buffer.concat([Buffer.from(this.reference), Buffer.alloc(1)]);
    const body = Buffer.alloc(42);
    const now = BigInt(Date.now()) * 1000n;
    body.writeBigUInt64LE(now, 0);
    body.writeBigUInt64LE(now, 8);
    body.writeBigInt64LE(micros(), 16);
    body.writeBigUInt64LE(7n, 24);  // The rule id.
    body.writeUInt8(this.features, 38);
    body.writeUInt8(this.features, 39);
    body.writeUInt16LE(text.length, 40);
    this.send(START, RULE_ID_GIVEN, Buffer.concat([body, text]));
  }

  // Sends the samples of a side at a position, or only counts them if the frame is to be lost.
  data(side, position, samples, lost = false) {
    this.sequence[side] += 1;
    if (lost) {
      return;
    }
    const head = Buffer.alloc(10);
    head.writeUInt32LE(this.sequence[side], 0);
    head.writeUInt32LE(position, 4);
    head.writeUInt16LE(samples.length, 8);
    this.send(DATA, SIDE_WORDS[side], Buffer.concat([head, Buffer.from(samples.buffer)]));
  }

  end() {
    this.send(TERMINATE, 0, Buffer.alloc(0));
  }
}

// Sends calls in real time.
export class Switch {
  constructor(port) {
    this.port = port;
    this.socket = dgram.createSocket("udp4");
    this.calls = new Set();
  }

  // A call whose sides say value(side, position). `loses(n, side)` says which frames are lost, and
  // `pauses(n, side)` in which the switch sends nothing. `speed` says by how much the clock is fast. A
  // call without `started` has no start packet.
  begin({value = speech, loses = () => false, pauses = () => false, speed = 1,
         sides = [ORIGINATOR, TERMINATOR], started = true, ...rest} = {}) {
    const call = new Call(this.port, this.socket, rest);
    Object.assign(call, {value, loses, pauses, speed, sides, frames: 0, positions: [0, 0],
                         began: performance.now()});
    if (started) {
      call.start();
    }
    this.calls.add(call);
    this.timer ??= setInterval(() => this.send_due(), 10);
    this.send_due();
    return call;
  }

  send_due() {
    const now = performance.now();
    for (const call of this.calls) {
      while (call.began + call.frames * 20 / call.speed <= now) {
        for (const side of call.sides.filter((one) => !call.pauses(call.frames, one))) {
          const position = call.positions[side];
          call.data(side, position, Int16Array.from(
            {length: FRAME}, (_, i) => call.value(side, position + i)), call.loses(call.frames, side));
          call.positions[side] += FRAME;
        }
        call.frames += 1;
      }
    }
  }

  end(call) {
    this.calls.delete(call);
    call.end();
  }

  close() {
    clearInterval(this.timer);
    for (const call of this.calls) {
      this.end(call);
    }
    // Later than what was sent.
    setTimeout(() => this.socket.close(), 100);
  }
}

// Sounds: something that looks like speech, in which the sides take turns, and values that are
// different at all positions that are near each other.

export function speech(side, position) {
  const seconds = position / RATE;
  const turn = Math.sin(seconds * 0.9) > 0 ? ORIGINATOR : TERMINATOR;
  if (turn !== side) {
    return 0;
  }
  const syllable = Math.max(0, Math.sin(seconds * 19)) * (0.6 + 0.4 * Math.sin(seconds * 2.3));
  const pitch = side === ORIGINATOR ? 120 : 190;
  let sum = 0;
  for (let harmonic = 1; harmonic < 8; ++harmonic) {
    sum += Math.sin(2 * Math.PI * pitch * harmonic * seconds) / harmonic;
  }
  return Math.round(7000 * syllable * sum);
}

// A sound that is known to the media node: a melody with a voice-like envelope, for some seconds.
export const ANNOUNCEMENT_S = 2.5;

export function announcement(position) {
  const seconds = position / RATE;
  const note = Math.floor(seconds * 7);
  const pitch = 180 + ((note * note * 37 + 5 * note) % 23) * 22;
  let sum = 0;
  for (let harmonic = 1; harmonic < 6; ++harmonic) {
    sum += Math.sin(2 * Math.PI * pitch * harmonic * seconds + note) / harmonic;
  }
  return Math.round(4500 * sum * Math.sin(Math.PI * (seconds * 7 - note)));
}

// A WAV file of 16-bit samples.
export function wav(samples) {
  const head = Buffer.alloc(44);
  head.write("RIFF", 0);
  head.writeUInt32LE(36 + 2 * samples.length, 4);
  head.write("WAVEfmt ", 8);
  head.writeUInt32LE(16, 16);
  head.writeUInt16LE(1, 20);
  head.writeUInt16LE(1, 22);
  head.writeUInt32LE(RATE, 24);
  head.writeUInt32LE(2 * RATE, 28);
  head.writeUInt16LE(2, 32);
  head.writeUInt16LE(16, 34);
  head.write("data", 36);
  head.writeUInt32LE(2 * samples.length, 40);
  return Buffer.concat([head, Buffer.from(samples.buffer)]);
}

const PERIOD = 24000;  // Samples, which is 150 frames.

// The originator says even values and the terminator odd ones; nobody says 0.
export function unique(side, position) {
  const place = (position * 7919) % PERIOD;
  const half = PERIOD / 2;
  return place < half ? -2 * place - 2 - side : 2 * (place - half) + 2 + side;
}

const POSITIONS = [ORIGINATOR, TERMINATOR].map((side) => new Map(
  Array.from({length: PERIOD}, (_, position) => [unique(side, position), position])));

// What was played of `unique`, as runs of positions without a break: {first, length, place}, where
// place is that of the first sample within `integers`. Zeros are silence. Values that the side never
// said are runs with the position null.
export function runs_of(side, integers) {
  const runs = [];
  for (const [place, value] of integers.entries()) {
    const last = runs.at(-1);
    if (last && place === last.place + last.length && last.first !== null &&
        value === unique(side, last.first + last.length)) {
      last.length += 1;
    } else if (value !== 0) {
      runs.push({first: POSITIONS[side].get(value) ?? null, length: 1, place});
    }
  }
  return runs;
}

// The remainder of a number of samples by the period of `unique`.
export const within_period = (samples) => ((samples % PERIOD) + PERIOD) % PERIOD;
