// Listening to calls on the page: what the player puts out is held against what was sent.
import assert from "node:assert/strict";
import {after, afterEach, before, test} from "node:test";

import {DESKTOP, close, launch, open_call, open_page} from "./browser.mjs";
import {TAPPED, shown_delay, take, taps} from "./listening.mjs";
import {FRAME, MediaNode, ORIGINATOR, RATE, Switch, TERMINATOR, runs_of, sleep, unique,
        until, within_period}
  from "./media_node.mjs";

const LONG = RATE;   // A run that is no chance.
const SHORT = 32;    // A break of the player leaves no shorter run.
const MOST_DELAY_MS = 500;
const MOST_DIFFERENCE_MS = 120;

let browser;
let node;
let calls;
let page;

before(async () => {
  browser = await launch();
});
after(() => browser.close());
afterEach(async () => {
  calls?.close();
  await node?.stop();
  calls = node = page = null;
});

async function press(button) {
  const before = await taps(page);
  await page.locator(".listen_bar button", {hasText: button}).click();
  await until("the player has begun", async () => await taps(page) > before);
}

// Opens a call whose samples are all different, and listens.
async function listen(button, of_call = {}) {
  node = await MediaNode.start(process.env.PAGE_MEDIA_NODE, {
    options: ["--rate", String(RATE), "--no-sides"], events: true});
  calls = new Switch(node.port);
  page = await open_page(browser, node.url, {...DESKTOP, ...TAPPED});
  const call = calls.begin({reference: "heard", value: unique, ...of_call});
  await page.locator(".rows .row").waitFor();
  await open_call(page, "heard");
  await press(button);
  return call;
}

// Listens until enough was heard. Each value must be one of the side's, and follow the one before but
// for a few breaks, which a busy machine causes: the player then waits or skips.
async function hear(enough) {
  const heard = {left: [], right: [], times: [], rate: 0};
  await until("enough is heard", async () => {
    const {left, right, times, rate} = await take(page);
    heard.times.push(...times.map(([place, at]) => [place + heard.left.length, at]));
    heard.left.push(...left);
    heard.right.push(...right);
    heard.rate = rate;
    await sleep(100);
    return enough(heard);
  });
  return heard;
}

function check_runs(side, integers) {
  const runs = runs_of(side, integers);
  assert.ok(runs.every((run) => run.first !== null), "only what this side said is heard");
  const odd = runs.slice(1, -1).filter((run) => run.length < SHORT);
  assert.ok(odd.length <= runs.length / 10, JSON.stringify(odd));
  return runs;
}

const longest = (side, integers) =>
  runs_of(side, integers).reduce((most, run) => (run.length > most.length ? run : most), {length: 0});

test("both sides are heard to the bit, the originator left, aligned, and soon", async () => {
  const call = await listen("Both sides");
  // From the moment at which a sample was sent until it came out.
  const measure = ({left, times}) => {
    const run = longest(ORIGINATOR, left);
    if (run.length === 0) {
      return Infinity;
    }
    const [place, at] = times.filter(([begin]) => begin < run.place + run.length).at(-1);
    const due = (at - performance.timeOrigin - call.began) / 1000 * RATE;
    return within_period(due - (run.first + place - run.place)) / RATE * 1000;
  };
  const heard = await hear(({left, right, times}) => longest(ORIGINATOR, left).length > LONG &&
    longest(TERMINATOR, right).length > LONG && measure({left, times}) < MOST_DELAY_MS);
  assert.equal(heard.rate, RATE, "the player has the rate of the call");
  check_runs(ORIGINATOR, heard.left);
  check_runs(TERMINATOR, heard.right);
  // Runs that overlap have the same positions at the same place.
  const one = longest(ORIGINATOR, heard.left);
  const other = runs_of(TERMINATOR, heard.right).find((run) =>
    run.place < one.place + one.length && run.place + run.length > one.place);
  assert.equal(within_period(one.first - one.place), within_period(other.first - other.place));

  // The player may just be changing its reserve.
  await until("the delay that is shown is the measured one", async () => {
    const fresh = await take(page);
    await sleep(500);
    const shown = await shown_delay(page);
    return fresh.left.length > RATE / 10 && shown !== null &&
           Math.abs(measure(fresh) - shown) < MOST_DIFFERENCE_MS;
  });
  await close(page);
});

test("each side alone is heard on both ears, one after the other", async () => {
  await listen("Both sides");
  for (const [button, side] of [["Originator", ORIGINATOR], ["Terminator", TERMINATOR]]) {
    await press(button);
    const {left, right} = await hear((so_far) => longest(side, so_far.left).length > LONG);
    check_runs(side, left);
    assert.deepEqual(left, right);
  }
  await close(page);
});

test("lost packets are heard as silence of their length", async () => {
  // The last ten frames of each second of the originator.
  const lost = (n, side) => side === ORIGINATOR && n % 50 >= 40;
  await listen("Both sides", {loses: lost});
  // Those that follow each other in the right distance.
  const gaps = (left) => {
    const runs = runs_of(ORIGINATOR, left);
    return runs.slice(1).filter((run, i) => run.first % RATE === 0 &&
      within_period(runs[i].first + runs[i].length) % RATE === 40 * FRAME &&
      run.place - runs[i].place - runs[i].length === 10 * FRAME);
  };
  const {left, right} = await hear((so_far) => gaps(so_far.left).length >= 2);
  for (const run of check_runs(ORIGINATOR, left)) {
    const last = run.first + run.length - 1;
    assert.ok(!lost(Math.floor(run.first / FRAME), ORIGINATOR));
    assert.ok(!lost(Math.floor(last / FRAME), ORIGINATOR));
    assert.ok(run.length <= 40 * FRAME);
  }
  check_runs(TERMINATOR, right);
  await close(page);
});

test("a call of 16 kHz is played at 16 kHz", async () => {
  node = await MediaNode.start(process.env.PAGE_MEDIA_NODE, {options: ["--rate", "16000"]});
  calls = new Switch(node.port);
  page = await open_page(browser, node.url, {...DESKTOP, ...TAPPED});
  calls.begin({reference: "wide", value: unique, speed: 2});
  await page.locator(".rows .row .play").click();
  const {left, rate} = await hear((so_far) => longest(ORIGINATOR, so_far.left).length > LONG);
  assert.equal(rate, 16000);
  check_runs(ORIGINATOR, left);
  await close(page);
});

test("listening stops with the button, with Escape and with the call, and is logged", async () => {
  const call = await listen("Both sides");
  const player = page.locator("#player");
  await page.locator("#player_stop").click();
  await player.waitFor({state: "hidden"});
  await page.locator(".rows .row").first().focus();
  await page.keyboard.press("l");
  await player.waitFor();
  await page.keyboard.press("Escape");
  await player.waitFor({state: "hidden"});
  assert.ok(await page.locator("#opened").isVisible());
  await page.keyboard.press("l");
  await player.waitFor();
  calls.end(call);
  await page.locator("#player.over").waitFor();
  assert.match(await page.locator("#player_text").innerText(), /Listening has ended: the call is over/);
  const begins = () => node.events().filter(({event, call_uuid, ended}) =>
    event === "listen" && call_uuid === call.uuid && !ended);
  await until("each listening is reported", () => begins().length === 3);
  assert.ok(begins().every(({sides, from}) => sides === "both" && from.startsWith("127.0.0.1:")));
  await close(page);
});
