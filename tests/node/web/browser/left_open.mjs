// Leaves the page open and listens, for the time of --minutes: says how far the audio is behind,
// whether it falls behind more and more, and whether the page needs more and more memory. Fails if most of the time the delay is 500 ms or more,
// or if the memory grows.
//
//   run.sh FOLDER QUORVANE_NODE left_open.mjs [--minutes 10] [--ppm 200]
//
// --ppm is by how much the sender's clock is fast, in millionths.
import assert from "node:assert/strict";
import {parseArgs} from "node:util";

import {DESKTOP, close, launch, open_call, open_page} from "./browser.mjs";
import {TAPPED, shown_delay, take} from "./listening.mjs";
import {MediaNode, ORIGINATOR, RATE, Switch, TERMINATOR, runs_of, sleep, unique, within_period}
  from "./media_node.mjs";

const MOST_DELAY_MS = 500;
const MOST_GROWTH = 1.5e6;  // Bytes.
const OTHER_CALLS = 20;     // That begin and end meanwhile.

const {values} = parseArgs({options: {minutes: {type: "string", default: "10"},
                                      ppm: {type: "string", default: "200"}}});
const seconds = Number(values.minutes) * 60;

const browser = await launch();
const node = await MediaNode.start(process.env.PAGE_MEDIA_NODE, {
  options: ["--rate", String(RATE), "--no-sides"]});
const calls = new Switch(node.port);
const page = await open_page(browser, node.url, {...DESKTOP, ...TAPPED});
const inspector = await page.context().newCDPSession(page);

async function memory() {
  await inspector.send("HeapProfiler.enable");
  await inspector.send("HeapProfiler.collectGarbage");
  return (await inspector.send("Runtime.getHeapUsage")).usedSize;
}

const heard_call = calls.begin({reference: "heard", value: unique,
                                speed: 1 + Number(values.ppm) / 1e6});
await page.locator(".rows .row").waitFor();
await open_call(page, "heard");
await page.locator(".listen_bar button", {hasText: "Both sides"}).click();

const delays = [];
const measured = [];
const measured_at = [];  // Minutes.
const sizes = [];
const others = [];
let broken = 0;
let samples = 0;
const warm_up = Math.min(30, seconds / 2);
const begin = performance.now();
const passed = () => (performance.now() - begin) / 1000;
while (passed() < seconds) {
  others.push(calls.begin({reference: `other-${others.length}`}));
  if (others.length > OTHER_CALLS) {
    calls.end(others.at(-OTHER_CALLS - 1));
  }
  await sleep(1000);
  const {left, right, times} = await take(page);
  for (const [side, integers] of [[ORIGINATOR, left], [TERMINATOR, right]]) {
    const runs = runs_of(side, integers);
    samples += integers.length;
    broken += Math.max(0, runs.length - 1);
    const run = runs.at(-1);
    const time = times.findLast(([place]) => run && place >= run.place &&
                                             place < run.place + run.length);
    if (side === ORIGINATOR && time) {
      measured.push(delay_of(run, time));
      measured_at.push(passed() / 60);
    }
  }
  const delay = await shown_delay(page);
  if (delay !== null) {
    delays.push(delay);
  }
  if (passed() > warm_up) {
    sizes.push(await memory());
  }
}

// From the moment at which a sample was sent until it came out.
function delay_of(run, [place, at]) {
  const due = (at - performance.timeOrigin - heard_call.began) / 1000 * RATE * heard_call.speed;
  return within_period(due - (run.first + place - run.place)) / RATE * 1000;
}

const range = (numbers) => `${Math.min(...numbers).toFixed(0)} to ${Math.max(...numbers).toFixed(0)}`;
// A single value may hold what is on its way; a leak raises the least of many.
const part = Math.ceil(sizes.length / 4);
const [first, last] = [sizes.slice(0, part), sizes.slice(-part)].map((some) => Math.min(...some));
const growth = last - first;
const median = (numbers) => [...numbers].sort((one, other) => one - other)[numbers.length >> 1];
// The slope of the line that fits best, by which clocks that are apart would show.
function trend(times, numbers) {
  const mean = (some) => some.reduce((sum, one) => sum + one, 0) / some.length;
  const middle = mean(times);
  return mean(times.map((time, i) => (time - middle) * numbers[i])) /
         mean(times.map((time) => (time - middle) ** 2));
}

console.log(`${passed().toFixed(0)} s, the sender's clock ${values.ppm} ppm fast`);
console.log(`delay: median ${median(measured).toFixed(0)} ms, ${range(measured)} ms measured; ` +
            `median ${median(delays)} ms, ${range(delays)} ms shown`);
const by_minute = Array.from({length: Math.ceil(passed() / 60)}, (_, minute) =>
  median(measured.filter((_, i) => Math.floor(measured_at[i]) === minute)));
console.log(`trend: ${trend(measured_at, measured).toFixed(1)} ms per minute; ` +
            `medians by minute: ${by_minute.map((one) => one?.toFixed(0)).join(" ")} ms`);
console.log(`breaks: ${broken} in ${samples} samples of both sides`);
console.log(`memory: ${(first / 1e6).toFixed(2)} MB after ${warm_up.toFixed(0)} s, ` +
            `${(last / 1e6).toFixed(2)} MB at the end; ${others.length} calls began`);
// A machine that is too busy may make the player wait for a moment, so single values are not held
// against the limit.
assert.ok(median(delays) < MOST_DELAY_MS);
assert.ok(median(measured) < MOST_DELAY_MS);
assert.ok(samples > RATE * seconds / 2);
assert.ok(growth < MOST_GROWTH, `the memory grew by ${growth} bytes`);

await close(page);
calls.close();
await node.stop();
await browser.close();
