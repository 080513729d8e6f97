// Tests the player of the page without a browser: its head, its buffer and its resampler.
import assert from "node:assert/strict";
import test from "node:test";

import {Player} from "../../../../node/web/page/player.js";

const RATE = 8000;
const BLOCK = 128;  // Samples that the browser asks for at once.
const FRAME = 160;  // 20 ms.
const ORIGINATOR = 0;
const TERMINATOR = 1;

// A value that no other position near it has.
const sample_at = (side, position) => ((position * 7919 + side * 12345) % 60000) - 30000;

function frame(side, position, length = FRAME, value = sample_at) {
  return Int16Array.from({length}, (_, i) => value(side, position + i));
}

// Sends frames and plays blocks by a clock of its own.
class Desk {
  constructor({rate = RATE, both = true, value = sample_at, recorded = true} = {}) {
    this.recorded = recorded;
    this.player = new Player(rate, both);
    this.rate = rate;
    this.value = value;
    this.left = [];
    this.right = [];
    this.now_ms = 0;
    this.played_ms = 0;
    this.reserves = [];
  }

  send(side, position, length = FRAME) {
    this.player.put(side, RATE, position, frame(side, position, length, this.value));
  }

  // Plays what falls due until then. `speed` is that of the player's clock.
  play_until(ms, speed = 1) {
    const block_ms = BLOCK / this.rate * 1000 / speed;
    while (this.played_ms + block_ms <= ms) {
      const left = new Float32Array(BLOCK);
      const right = new Float32Array(BLOCK);
      this.player.play(left, right);
      if (this.recorded) {
        this.left.push(...left);
        this.right.push(...right);
      }
      this.played_ms += block_ms;
      this.reserves.push(this.player.reserve_ms());
    }
  }

  // Both sides speak in real time; `keep(frame, side)` says which frames arrive.
  run(seconds, {speed = 1, keep = () => true, late_ms = () => 0} = {}) {
    const due = [];
    const from = this.frames ?? 0;
    this.frames = from + Math.round(seconds * 50);
    for (let n = from; n < this.frames; ++n) {
      for (const side of [ORIGINATOR, TERMINATOR]) {
        if (keep(n, side)) {
          due.push({side, n, at: n * 20 + 20 + late_ms(n, side)});
        }
      }
    }
    due.sort((one, two) => one.at - two.at || one.n - two.n);
    for (const {side, n, at} of due) {
      this.play_until(at, speed);
      this.send(side, n * FRAME);
    }
  }
}

const to_integers = (floats) => floats.map((value) => value * 32768);

const places = [ORIGINATOR, TERMINATOR].map((side) =>
  new Map(Array.from({length: 60000}, (_, position) => [sample_at(side, position), position])));

// The runs of positions that were played without a break: [first position, length].
function runs(side, integers) {
  const place = places[side];
  const found = [];
  for (const value of integers) {
    const position = place.get(value);
    const last = found.at(-1);
    if (last && position === last[0] + last[1]) {
      last[1] += 1;
    } else if (position !== undefined && value !== 0) {
      found.push([position, 1]);
    }
  }
  return found;
}

test("samples leave the player as they came, the originator on the left", () => {
  const desk = new Desk();
  desk.run(3);
  for (const [side, channel] of [[ORIGINATOR, desk.left], [TERMINATOR, desk.right]]) {
    const [first, ...others] = runs(side, to_integers(channel));
    assert.equal(first[0], 0);
    assert.ok(first[1] > 2.5 * RATE);
    assert.deepEqual(others, []);
  }
});

test("both sides begin with 100 ms in reserve", () => {
  const desk = new Desk();
  desk.run(1);
  const first = desk.left.findIndex((value) => value !== 0);
  assert.ok(first >= 0.09 * RATE && first <= 0.14 * RATE, String(first));
});

test("one side alone is on both channels", () => {
  const desk = new Desk({both: false});
  desk.run(1, {keep: (_, side) => side === TERMINATOR});
  assert.deepEqual(desk.left, desk.right);
  assert.ok(runs(TERMINATOR, to_integers(desk.left))[0][1] > RATE / 2);
});

test("lost packets are silence of their length, at their position", () => {
  const desk = new Desk();
  desk.run(2, {keep: (n, side) => side === TERMINATOR || n < 40 || n >= 43});
  const left = to_integers(desk.left);
  assert.deepEqual(runs(ORIGINATOR, left).map(([first]) => first), [0, 43 * FRAME]);
  const begin = left.findIndex((value) => value !== 0);
  const lost = left.slice(begin + 40 * FRAME, begin + 43 * FRAME);
  assert.equal(lost.length, 3 * FRAME);
  assert.ok(lost.every((value) => value === 0));
  assert.equal(runs(TERMINATOR, to_integers(desk.right)).length, 1);
});

test("sides stay aligned by their positions, to the sample", () => {
  const desk = new Desk();
  for (let n = 0; n < 100; ++n) {
    desk.play_until(n * 20);
    desk.send(ORIGINATOR, n * FRAME);
    // The other side comes two frames later.
    if (n >= 2) {
      desk.send(TERMINATOR, (n - 2) * FRAME);
    }
  }
  const place = (side, channel) =>
    to_integers(channel).findIndex((value) => value === sample_at(side, 1000));
  assert.ok(place(ORIGINATOR, desk.left) > 0);
  assert.equal(place(TERMINATOR, desk.right), place(ORIGINATOR, desk.left));
});

test("sides that seem far apart are put beside each other", () => {
  const desk = new Desk();
  for (let n = 0; n < 100; ++n) {
    desk.play_until(n * 20);
    desk.send(ORIGINATOR, (n + 1000) * FRAME);
    desk.send(TERMINATOR, n * FRAME);
  }
  assert.equal(desk.player.figures.aligned, 1);
  assert.ok(desk.reserves.every((reserve) => reserve < 250));
  assert.ok(runs(TERMINATOR, to_integers(desk.right))[0][1] > RATE);
});

// The positions of a side that pauses go on with the call, or from where they stopped.
for (const [name, position] of [["with", (n) => n], ["without", (n) => n - 100]]) {
  test(`a side that paused goes on in time, ${name} the pause in its positions`, () => {
    const desk = new Desk();
    for (let n = 0; n < 250; ++n) {
      desk.play_until(n * 20);
      desk.send(ORIGINATOR, n * FRAME);
      if (n < 50) {
        desk.send(TERMINATOR, n * FRAME);
      } else if (n >= 150) {
        desk.send(TERMINATOR, position(n) * FRAME);
      }
    }
    const right = to_integers(desk.right);
    const before = right.indexOf(sample_at(TERMINATOR, 50 * FRAME - 1));
    const after = right.indexOf(sample_at(TERMINATOR, position(151) * FRAME));
    assert.ok(Math.abs(after - before - FRAME - 2 * RATE) < 0.1 * RATE, String(after - before));
    assert.equal(runs(ORIGINATOR, to_integers(desk.left)).length, 1);
  });
}

test("a pause of both sides does not delay what follows", () => {
  const desk = new Desk();
  desk.run(1);
  desk.play_until(4000);
  desk.frames = 200;
  desk.run(1);
  assert.ok(desk.player.reserve_ms() < 250, String(desk.player.reserve_ms()));
  assert.ok(runs(TERMINATOR, to_integers(desk.right)).at(-1)[1] > RATE / 2);
});

test("frames that come in bursts are played whole after a moment", () => {
  const desk = new Desk();
  // Every eighth frame brings those before it.
  desk.run(7, {late_ms: (n) => (7 - n % 8) * 20});
  const found = runs(ORIGINATOR, to_integers(desk.left)).filter(([, length]) => length > 1);
  assert.ok(found.at(-1)[1] > 5 * RATE, JSON.stringify(found));
  assert.ok(desk.reserves.every((reserve) => reserve < 450));
});

// After a loss, the media node waits for 200 ms before it passes on what follows.
test("a side that is held back after each loss is soon heard whole", () => {
  const desk = new Desk();
  const lost = (n, side) => side === ORIGINATOR && n % 50 === 49;
  const held_ms = (n, side) => (side === ORIGINATOR && n >= 50 ? Math.max(0, 200 - n % 50 * 20) : 0);
  desk.run(7, {keep: (n, side) => !lost(n, side), late_ms: held_ms});
  const whole = runs(ORIGINATOR, to_integers(desk.left)).filter(([, length]) =>
    length === 49 * FRAME);
  assert.ok(whole.length >= 4, JSON.stringify(runs(ORIGINATOR, to_integers(desk.left))));
  assert.ok(desk.reserves.every((reserve) => reserve < 400));
  assert.ok(desk.player.figures.late <= 2, JSON.stringify(desk.player.figures));
});

test("a burst after the computer slept does not delay what follows", () => {
  const desk = new Desk();
  desk.run(1);
  for (let n = 50; n < 150; ++n) {
    desk.send(ORIGINATOR, n * FRAME);
  }
  desk.play_until(1100);
  assert.ok(desk.player.reserve_ms() < 200, String(desk.player.reserve_ms()));
});

// Speech and pauses of half a second, so that there are moments at which skipping is not heard.
const spoken = (side, position) =>
  Math.floor(position / 4000) % 2 ? 0 : sample_at(side, position);

for (const [name, speed] of [["slower", 0.9995], ["faster", 1.0005]]) {
  test(`ten minutes with a ${name} clock stay below 170 ms and are hardly disturbed`, () => {
    const desk = new Desk({value: spoken, recorded: false});
    desk.run(600, {speed, late_ms: (n) => (n * 37) % 15});
    const settled = desk.reserves.slice(1000);
    assert.ok(Math.max(...settled) < 170, String(Math.max(...settled)));
    assert.ok(desk.player.figures.dry <= 1, JSON.stringify(desk.player.figures));
    // 500 ppm of ten minutes are 0.3 s. Steering must not add much to that.
    const steered = desk.player.figures.skipped + desk.player.figures.waited;
    assert.ok(steered < 0.5 * RATE, String(steered));
  });
}

test("sound without any pause is steered as well", () => {
  const desk = new Desk();
  desk.run(120, {speed: 0.998});
  assert.ok(Math.max(...desk.reserves) < 350, String(Math.max(...desk.reserves)));
});

test("a context with another rate gets the same tone", () => {
  const tone = (_, position) => Math.round(16000 * Math.sin(2 * Math.PI * 440 * position / RATE));
  const desk = new Desk({rate: 48000, value: tone});
  desk.run(2);
  const begin = desk.left.findIndex((value) => Math.abs(value) > 0.01) + 4800;
  const part = desk.left.slice(begin, begin + 48000);
  // Its amplitude at 440 Hz, and what is left beside it.
  const wave = (turn) => part.reduce((sum, value, i) =>
    sum + value * Math.sin(2 * Math.PI * 440 * i / 48000 + turn), 0) * 2 / part.length;
  const [sine, cosine] = [wave(0), wave(Math.PI / 2)];
  assert.ok(Math.abs(Math.hypot(sine, cosine) - 16000 / 32768) < 0.002);
  const rest = Math.max(...part.map((value, i) => Math.abs(
    value - sine * Math.sin(2 * Math.PI * 440 * i / 48000)
          - cosine * Math.cos(2 * Math.PI * 440 * i / 48000))));
  assert.ok(rest < 0.003, String(rest));
});

test("a side whose rate rises after a pause is heard at once", () => {
  const desk = new Desk({rate: 16000, both: false});
  desk.run(4, {keep: (_, side) => side === ORIGINATOR});
  desk.play_until(5000);
  // Positions count samples, so by the new rate this is two seconds earlier.
  for (let n = 0; n < 25; ++n) {
    desk.player.put(ORIGINATOR, 16000, 32000 + n * 320, frame(ORIGINATOR, n * 320, 320));
    desk.play_until(5000 + n * 20);
  }
  assert.ok(desk.left.slice(-1600).some((value) => value !== 0));
});

test("a side whose rate changes goes on", () => {
  const desk = new Desk({both: false});
  desk.run(1, {keep: (_, side) => side === ORIGINATOR});
  for (let n = 0; n < 50; ++n) {
    desk.player.put(ORIGINATOR, 16000, 8000 + n * 320, frame(ORIGINATOR, n * 320, 320));
    desk.play_until(1000 + n * 20);
  }
  assert.ok(desk.left.slice(-4000).some((value) => value !== 0));
  assert.ok(desk.player.reserve_ms() < 300);
});
