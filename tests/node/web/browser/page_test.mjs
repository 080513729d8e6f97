// The page of the media node in a real browser, with calls over the network.
import assert from "node:assert/strict";
import fs from "node:fs";
import http from "node:http";
import path from "node:path";
import {after, afterEach, before, test} from "node:test";

import {DESKTOP, TELEPHONE, check_accessibility, check_width, close, column, ended_references,
        launch, number_of, open_call, open_page, references} from "./browser.mjs";
import {ANNOUNCEMENT_S, MediaNode, ORIGINATOR, RATE, Switch, TERMINATOR, announcement, sleep, speech,
        until, wav} from "./media_node.mjs";

const PROGRAM = process.env.PAGE_MEDIA_NODE;
// For a person to look at.
const PICTURES = process.env.PAGE_PICTURES;

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

async function begin({options = [], http, ...of_page} = {}) {
  node = await MediaNode.start(PROGRAM, {options, http});
  calls = new Switch(node.port);
  page = await open_page(browser, node.url, {...DESKTOP, ...of_page});
  await page.locator("#connection[data-state=connected]").waitFor();
}

const shown = (wanted) => until(`the calls ${wanted} are shown`, async () =>
  (await references(page)).join() === wanted.join());

test("calls appear, and end with their files and their picture", async () => {
  await begin({options: ["--timeline", "--stereo"]});
  const call = calls.begin({reference: "order-4711"});
  await shown(["order-4711"]);
  await open_call(page, "order-4711");
  await sleep(500);
  calls.end(call);
  await shown([]);
  await page.locator(".ended_state").waitFor();
  assert.match(await page.locator(".ended_state").innerText(), /Ended at .*terminated/);

  const picture = page.locator("img.timeline");
  await until("the timeline is loaded", () => picture.evaluate((image) => image.naturalWidth > 0));
  assert.equal(await page.locator(".files audio").count(), 3);
  const audio = page.locator(".files audio").first();
  await audio.evaluate((element) => element.load());
  await audio.evaluate((element) => {
    element.preload = "auto";
  });
  await until("the browser has the audio", () => audio.evaluate((element) => element.duration > 0.3));
  const [download] = await Promise.all([
    page.waitForEvent("download"), page.locator("a.download").first().click()]);
  assert.equal(fs.readFileSync(await download.path()).toString("latin1", 0, 4), "RIFF");
  assert.deepEqual(await ended_references(page), ["order-4711"]);
  await close(page);
});

test("the table sorts by each column and says so", async () => {
  await begin();
  const begun = [];
  for (const [reference, options] of [
    ["b-quiet", {value: () => 3}], ["c-loud", {value: (_, n) => (n % 2 ? 16000 : -16000)}],
    ["a-lossy", {loses: (n) => n % 10 === 9}]]) {
    begun.push(calls.begin({reference, ...options}));
    await sleep(200);  // A busy machine notices them late, and the table sorts by their length.
  }
  await until("there are three calls with a loss", async () =>
    (await column(page, "lost")).length === 3 &&
    (await column(page, "lost")).some((text) => text !== "0"));
  await page.locator("#trouble_first").uncheck();
  const sorted = async (name, wanted) => {
    const head = page.locator(`.head button[data-column=${name}]`);
    await head.click();
    await until(`${wanted} are sorted by ${name}`, async () =>
      (await references(page)).join(" ") === wanted);
    assert.match(await head.locator("..").getAttribute("aria-sort"), /^(ascending|descending)$/);
  };
  await sorted("call", "a-lossy b-quiet c-loud");
  await sorted("call", "c-loud b-quiet a-lossy");
  await sorted("lost", "a-lossy b-quiet c-loud");
  await sorted("length", "b-quiet c-loud a-lossy");
  await sorted("length", "a-lossy c-loud b-quiet");
  await page.locator(".head button[data-column=originator]").click();
  await until("the loudest is first", async () => (await references(page))[0] === "c-loud");
  assert.equal(await page.locator("[aria-sort=ascending], [aria-sort=descending]").count(), 1);

  await page.locator("#trouble_first").check();
  await until("trouble is first", async () => (await references(page))[0] === "a-lossy");
  await page.locator("#only_trouble").check();
  await shown(["a-lossy"]);
  await page.locator("#only_trouble").uncheck();
  await page.locator("#filter").fill("LOUD");
  await shown(["c-loud"]);
  await page.locator("#filter").fill(begun[0].uuid.slice(0, 13));
  await shown(["b-quiet"]);
  await page.locator("#filter").fill("nothing like that");
  await shown([]);
  assert.match(await page.locator("p.none").first().innerText(), /No live call matches/);
  await close(page);
});

test("levels move, per side, and the picture is drawn", async () => {
  await begin();
  // One side is loud, the other nearly silent.
  calls.begin({reference: "uneven", value: (side, n) =>
    side === ORIGINATOR ? (n % 2 ? 16000 : -16000) : (n % 2 ? 10 : -10)});
  await until("the loud side is measured", async () =>
    /−6 dB/.test((await column(page, "originator")).join()));
  assert.match((await column(page, "terminator")).join(), /−70 dB/);
  await open_call(page, "uneven");
  // The share of the canvas's height that has the colour of the outline.
  const height = (side, colour) => page.locator(`.side.${side} canvas`).evaluate((canvas, wanted) => {
    const {data, width} = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height);
    const rows = new Set();
    for (let i = 0; i < data.length; i += 4) {
      if (wanted.every((value, channel) => Math.abs(data[i + channel] - value) < 12)) {
        rows.add(Math.floor(i / 4 / width));
      }
    }
    return rows.size / canvas.height;
  }, colour);
  await until("the outline is drawn", async () =>
    await height("originator", [37, 99, 235]) > 0.5);
  const quiet = await height("terminator", [15, 118, 110]);
  assert.ok(quiet > 0 && quiet < 0.1, String(quiet));
  await close(page);
});

const HOSTILE = [
  "<img src=x onerror=alert(1)>",
  "\"><script>alert(2)</script>",
  "\u05e9\u05dc\u05d5\u05dd \u0645\u0631\u062d\u0628\u0627",
  "javascript:alert(3)//' onclick='alert(4)",
  "{{7*7}}${7*7}%3Cb%3E&lt;b&gt;",
];

test("a hostile reference is shown as it is", async () => {
  await begin();
  const long = "x".repeat(1290);  // The longest that fits into a packet.
  for (const reference of [...HOSTILE, long]) {
    calls.begin({reference});
  }
  calls.begin({reference: "a\u202egnp.exe\u0000"});
  await until("all are shown", async () => (await references(page)).length === HOSTILE.length + 2);
  const names = await references(page);
  for (const reference of [...HOSTILE, long]) {
    assert.ok(names.includes(reference), reference);
  }
  // Characters that nobody sees are shown by their bytes, because they would mislead.
  assert.ok(names.some((name) => name.startsWith("a\\xe2\\x80\\xaegnp.exe")), names.join());
  for (const reference of [...HOSTILE, long]) {
    await open_call(page, reference.slice(0, 200));
    assert.equal(await page.locator("#opened_title").innerText(), reference);
  }
  assert.equal(await number_of(page, "HTMLCanvasElement"), 2, "former calls leave nothing behind");
  // A reference that comes after the audio replaces what the row says.
  const late = calls.begin({reference: "<img src=y onerror=alert(5)>", started: false});
  await until("the call is shown", async () => (await references(page)).includes("(no reference)"));
  late.start();
  await until("its reference is shown", async () =>
    (await references(page)).includes("<img src=y onerror=alert(5)>"));
  await check_width(page, "with a long reference");
  assert.equal(await page.locator("main img, main script").count(), 0);
  await close(page);
});

test("everything can be done with the keyboard", async () => {
  await begin();
  for (const reference of ["one", "two", "three"]) {
    calls.begin({reference});
    await shown(["one", "two", "three"].slice(0, calls.calls.size));
  }
  const focused = () => page.evaluate(() => document.activeElement.closest(".row, button, input, h2")
    ?.querySelector(".name")?.textContent ?? document.activeElement.textContent);
  await page.locator("#trouble_first").focus();
  let tabs = 0;
  do {
    await page.keyboard.press("Tab");
    tabs += 1;
  } while (tabs < 20 && !(await page.evaluate(() => document.activeElement.matches(".rows .row"))));
  assert.equal(tabs, 8, "each head of a column, then one row");
  assert.equal(await focused(), "one");
  const outline = await page.evaluate(() => getComputedStyle(document.activeElement).outlineStyle);
  assert.equal(outline, "solid");
  for (const [key, row] of [["ArrowDown", "two"], ["End", "three"], ["ArrowDown", "three"],
                            ["ArrowUp", "two"], ["Home", "one"], ["PageDown", "three"]]) {
    await page.keyboard.press(key);
    assert.equal(await focused(), row, key);
  }
  await page.keyboard.press("ArrowRight");
  assert.match(await page.evaluate(() => document.activeElement.getAttribute("aria-label")),
               /^Listen to three/);
  await page.keyboard.press("ArrowLeft");
  await page.keyboard.press("Enter");
  await until("the call has the focus", async () => await focused() === "three");
  assert.ok(await page.locator("#opened").isVisible());
  await page.keyboard.press("Escape");
  assert.ok(await page.locator("#opened").isHidden());
  assert.equal(await focused(), "three");
  // The row that has the focus ends. The focus stays in the table.
  calls.end([...calls.calls][2]);
  await shown(["one", "two"]);
  assert.ok(["one", "two"].includes(await focused()));
  await close(page);
});

for (const [name, options, schemes] of [
  ["light and dark", DESKTOP, ["light", "dark"]], ["on a telephone", TELEPHONE, ["dark"]]]) {
  test(`axe finds nothing: ${name}`, async () => {
    await begin({options: ["--timeline"], ...options});
    const call = calls.begin({reference: "order-4711"});
    calls.begin({reference: "lossy", loses: (n) => n % 10 === 9, started: false});
    await until("both are shown", async () => (await references(page)).length === 2);
    const check = async (what) => {
      for (const colorScheme of schemes) {
        await page.emulateMedia({colorScheme});
        await check_accessibility(page, `${what}, ${colorScheme}`);
      }
      await check_width(page, what);
    };
    await check("the table");
    await open_call(page, "order-4711");
    await page.locator(".listen_bar button").first().click();
    await page.locator("#player").waitFor();
    await check("an opened call");
    assert.equal(await page.locator("#player, #opened").locator("output, [aria-live], [role=status]")
      .count(), 0, "no screen reader reads figures out that change all the time");
    calls.end(call);
    await page.locator(".ended_state").waitFor();
    await check("an ended call");
    await close(page);
  });
}

test("what the pictures show is said in words", async () => {
  await begin();
  calls.begin({reference: "lossy", loses: (n) => n === 30 || n === 31});
  await until("it is shown", async () => (await references(page)).length === 1);
  await open_call(page, "lossy");
  const words = page.locator(".side.originator canvas + p");
  await until("the loss is said", async () => /1 lost \(0\.04 s\)/.test(await words.innerText()));
  assert.match(await words.innerText(), /^Originator, last 30 seconds: loudest −?-?\d+ dB/);
  assert.equal(await page.locator(".side.originator canvas").getAttribute("aria-describedby"),
               await words.getAttribute("id"));
  assert.match(await page.locator(".marks").innerText(), /0:00\.6 Originator: lost 0\.04 s/);
  await close(page);
});

test("a lost connection is said, and found again", async () => {
  await begin();
  calls.end(calls.begin({reference: "ended-before"}));
  calls.begin({reference: "before"});
  await shown(["before"]);
  await until("one has ended", async () => (await ended_references(page)).length === 1);
  await open_call(page, "before");
  const address = new URL(node.url).host;
  calls.close();
  await node.stop("SIGKILL");
  await page.locator("#connection[data-state=lost]").waitFor();
  assert.match(await page.locator("#connection").innerText(), /Connection lost/);

  // The new process counts its calls from 1 again, so they have the ids of the former ones.
  node = await MediaNode.start(PROGRAM, {http: address});
  calls = new Switch(node.port);
  calls.end(calls.begin({reference: "ended-after"}));
  const call = calls.begin({reference: "after"});
  // It may be back already.
  await page.locator("#retry").dispatchEvent("click");
  await page.locator("#connection[data-state=connected]").waitFor();
  await shown(["after"]);
  await until("the other call has left the list", async () =>
    (await page.locator(".rows .uuid").allInnerTexts()).join() === call.uuid);
  await until("the new list is shown", async () =>
    (await ended_references(page)).join() === "ended-after");
  // What was opened is not known any more; another call must not take its place.
  await page.locator("#opened").waitFor({state: "hidden"});
  await close(page, {faults: [/ERR_CONNECTION|WebSocket connection/]});
});

// Runs in the page before its own scripts.
function watch_sockets() {
  Object.assign(window, {sockets: [], resets: 0, sent: []});
  window.WebSocket = class extends WebSocket {
    constructor(address) {
      super(address);
      window.sockets.push(this);
      this.addEventListener("message", ({data}) => {
        window.resets += String(data).includes('"reset":true') ? 1 : 0;
      });
    }

    send(text) {
      window.sent.push(text);
      super.send(text);
    }
  };
}

async function reconnect() {
  const resets = await page.evaluate(() => {
    window.sockets.at(-1).close();
    return window.resets;
  });
  await until("the new connection has all calls", async () =>
    await page.evaluate(() => window.resets) > resets);
}

test("what is opened stays open when the connection comes again", async () => {
  await begin({scripts: [[watch_sockets]]});
  const call = calls.begin({reference: "lossy", loses: (n) => n === 10});
  await shown(["lossy"]);
  await open_call(page, "lossy");
  const losses = page.locator(".marks .gap");
  await until("the loss of each side is listed", async () => await losses.count() === 2);
  await reconnect();
  const packets = () => page.locator(".figures_table td").nth(4).innerText();
  const before = await packets();
  await until("its figures go on", async () => await packets() !== before);
  await until("its losses are listed again", async () => await losses.count() === 2);
  assert.equal(await page.locator("#opened_title").innerText(), "lossy");

  calls.end(call);
  const audio = page.locator(".files audio").first();
  await audio.waitFor();
  const element = await audio.elementHandle();
  await reconnect();
  assert.ok(await element.evaluate((one) => one.isConnected), "it may be played meanwhile");
  await close(page);
});

test("a page that nobody sees watches no calls", async () => {
  await begin({scripts: [[watch_sockets]]});
  calls.begin({reference: "some"});
  await shown(["some"]);
  // As in a tab in the background, where the browser draws no frames.
  const show = (is_shown) => page.evaluate((wanted) => {
    window.requestAnimationFrame = () => 1;
    Object.defineProperty(document, "hidden", {value: !wanted, configurable: true});
    document.dispatchEvent(new Event("visibilitychange"));
    return window.sent.at(-1);
  }, is_shown);
  assert.equal(await show(false), '{"type":"watch","calls":[]}');
  assert.equal(await show(true), '{"type":"watch","calls":[1]}');
  await close(page);
});

test("without the token there is only the login", async () => {
  const token = path.join(fs.mkdtempSync("/tmp/quorvane-token-"), "token");
  fs.writeFileSync(token, "correct-horse-battery\n", {mode: 0o600});
  node = await MediaNode.start(PROGRAM, {options: ["--http-token-file", token]});
  calls = new Switch(node.port);
  page = await open_page(browser, node.url);
  assert.equal(new URL(page.url()).pathname, "/login");
  await check_accessibility(page, "the login");
  await page.locator("#token").fill("guessed");
  await page.locator("button").click();
  await page.locator("#wrong").waitFor();
  await page.locator("#token").fill("correct-horse-battery");
  await page.locator("button").click();
  await page.locator("#connection[data-state=connected]").waitFor();
  assert.deepEqual(await page.evaluate(() => document.cookie), "", "no script sees the cookie");
  await page.locator("#logout button").click();
  await page.locator("#token").waitFor();
  await page.goto(node.url);
  assert.equal(new URL(page.url()).pathname, "/login");
  fs.rmSync(path.dirname(token), {recursive: true});
  await close(page);
});

test("a page from elsewhere gets nothing", async () => {
  await begin();
  calls.begin({reference: "private"});
  await shown(["private"]);
  const elsewhere = http.createServer((_, answer) => answer.end("<!DOCTYPE html><title>x</title>"));
  await new Promise((resolve) => elsewhere.listen(0, "127.0.0.1", resolve));
  const other = await open_page(browser, `http://127.0.0.1:${elsewhere.address().port}/`);
  const got = await other.evaluate((url) => new Promise((resolve) => {
    const socket = new WebSocket(url.replace("http", "ws") + "api/live");
    socket.onmessage = () => resolve("a message");
    socket.onclose = () => resolve("refused");
  }), node.url);
  assert.equal(got, "refused");
  const read = await other.evaluate((url) => fetch(url + "api/calls").then(
    (answer) => answer.text(), () => "refused"), node.url);
  assert.equal(read, "refused");
  await close(other, {faults: [/403|CORS|ERR_FAILED|icon|404/]});
  elsewhere.close();
  await close(page);
});

test("2,000 calls can be sorted, scrolled and opened", async () => {
  await begin({options: ["--no-sides"]});
  const many = new Switch(node.port);
  for (let n = 0; n < 2000; ++n) {
    // One frame each. Nobody waits for the next within the test.
    const call = many.begin({reference: `call-${String(n).padStart(4, "0")}`, speed: 1e-6});
    if (n % 50 === 49) {
      await sleep(5);
    }
    assert.equal(call.frames, 1);
  }
  await until("the page knows them all", async () =>
    /^2,000/.test(await page.locator("#live_count").innerText()));
  assert.ok(await page.locator(".rows .row").count() < 60);
  await page.locator("#trouble_first").uncheck();
  await page.locator(".head button[data-column=call]").click();
  await until("the first is first", async () => (await references(page))[0] === "call-0000");
  await page.locator(".rows .row").first().focus();
  await page.keyboard.press("End");
  await until("the last is there", async () => (await references(page)).includes("call-1999"));
  await page.locator(".table").evaluate((table) => {
    table.scrollTop = table.scrollHeight / 2;
  });
  await until("the middle is there", async () => (await references(page)).includes("call-1000"));
  // How long the browser takes to draw a frame while all calls change.
  const longest = await page.evaluate(async () => {
    let longest = 0;
    let former = performance.now();
    const begin = former;
    while (former - begin < 1500) {
      await new Promise(requestAnimationFrame);
      longest = Math.max(longest, performance.now() - former);
      former = performance.now();
    }
    return longest;
  });
  console.log(`2,000 calls: the longest wait for a frame is ${longest.toFixed(0)} ms`);
  await page.locator("#filter").fill("call-1234");
  await shown(["call-1234"]);
  await open_call(page, "call-1234");
  await close(page);
  clearInterval(many.timer);
  many.socket.close();
});

// One call of the pictures has all that can be seen of one: losses, a pause, and a known sound.
function eventful() {
  const known_at = 14.4 * RATE;
  return {
    reference: "sales-0092@pbx1.example",
    loses: (n, side) => side === ORIGINATOR && (n % 410 === 300 || n % 410 === 301),
    pauses: (n, side) => side === ORIGINATOR && n >= 410 && n < 535,
    value: (side, position) =>
      side === TERMINATOR && position >= known_at && position < known_at + ANNOUNCEMENT_S * RATE
        ? announcement(position - known_at) : speech(side, position),
  };
}

test("pictures for a person", async () => {
  const samples = fs.mkdtempSync("/tmp/quorvane-samples-");
  fs.writeFileSync(path.join(samples, "announcement.wav"), wav(Int16Array.from(
    {length: ANNOUNCEMENT_S * RATE}, (_, position) => announcement(position))));
  await begin({options: ["--timeline", "--samples", samples], viewport: {width: 1440, height: 860}});
  const shift = (seconds) => (side, position) => speech(side, position + seconds * RATE);
  calls.begin(eventful());
  ["order-4711@pbx1.example", "support-77120@pbx2.example", "sales-0093@pbx2.example",
   "inbound-33@pbx1.example", "+44 20 7946 0123", "order-4712@pbx1.example"].forEach((reference, n) =>
    calls.begin({reference, value: shift(3 * n + 1), started: n !== 2,
                 sides: n === 3 ? [ORIGINATOR] : [ORIGINATOR, TERMINATOR]}));
  const short = ["voicemail-5@pbx2.example", "order-4710@pbx1.example"].map((reference) =>
    calls.begin({reference}));
  await open_call(page, "sales-0092");
  short.forEach((call) => calls.end(call));
  await until("there are ended calls", async () => (await ended_references(page)).length === 2);
  // The picture of the README is made with PAGE_SECONDS=30.
  await sleep(Number(process.env.PAGE_SECONDS ?? 2) * 1000);
  await page.mouse.move(0, 0);
  await page.screenshot({path: path.join(PICTURES, "desktop.png")});
  const telephone = await open_page(browser, node.url, {...TELEPHONE, colorScheme: "dark"});
  await telephone.locator(".rows .row").first().waitFor();
  await open_call(telephone, "sales-0092");
  await until("there is a meter's level in words", () => telephone.locator(
    ".side.originator .db", {hasText: /dB|silent/}).isVisible());
  await telephone.screenshot({path: path.join(PICTURES, "telephone.png")});
  await close(telephone);
  await close(page);
  fs.rmSync(samples, {recursive: true});
});
