// Tests what the page knows and says of calls, without a browser.
import assert from "node:assert/strict";
import fs from "node:fs";
import test from "node:test";

import {Calls, arrange, seconds_now} from "../../../../node/web/page/calls.js";
import {SideTrace, gain_for} from "../../../../node/web/page/picture.js";
import {Listener, parse_frame} from "../../../../node/web/page/listen.js";
import {bytes, decibels, duration, moment, visible} from "../../../../node/web/page/text.js";

const PAGE = new URL("../../../../node/web/page/", import.meta.url);

const call = (id, more = {}) => ({id, call_uuid: `uuid-${id}`, call_ref: `ref-${id}`, seconds: 0,
                                  source: "127.0.0.1:1", began: "2026-01-01T00:00:00Z", trouble: [],
                                  lost_packets: 0, sides: {}, ...more});
const ALL = {text: "", only_trouble: false};
const ids = (calls) => calls.map(({id}) => id);

test("the files of the page have less than 100,000 bytes", () => {
  const sizes = fs.readdirSync(PAGE).map((name) => fs.statSync(new URL(name, PAGE)).size);
  const sum = sizes.reduce((one, other) => one + other, 0);
  assert.ok(sizes.length >= 14);
  assert.ok(sum < 100000, String(sum));
});

test("no file of the page has script or style in its markup, or names another host", () => {
  for (const name of fs.readdirSync(PAGE)) {
    const text = fs.readFileSync(new URL(name, PAGE), "utf8");
    assert.doesNotMatch(text, /innerHTML|outerHTML|insertAdjacentHTML|document\.write|eval\(/, name);
    assert.doesNotMatch(text.replace("http://www.w3.org/2000/svg", ""), /["'(]https?:\/\//, name);
    if (name.endsWith(".html")) {
      assert.doesNotMatch(text, /<style|<script(?! type="module" src="\/page\.js"><)| style=| on\w+=/);
    }
  }
});

test("calls come, change and go", () => {
  const calls = new Calls();
  calls.update({reset: true, calls: [call(1), call(2)], finished: []});
  calls.update({calls: [call(2, {lost_packets: 7})], removed: [1]});
  assert.deepEqual(ids([...calls.live.values()]), [2]);
  assert.equal(calls.live.get(2).lost_packets, 7);
  calls.update({finished: [call(2, {ended: "2026-01-01T00:00:09Z"})]});
  assert.equal(calls.live.size, 0);
  calls.update({finished: [call(3, {ended: "2026-01-01T00:00:10Z"})]});
  assert.deepEqual(ids(calls.ended), [3, 2]);
  calls.update({reset: true});
  assert.deepEqual(calls.ended, []);
});

test("only so many ended calls are kept", () => {
  const calls = new Calls();
  for (let id = 0; id < 300; ++id) {
    calls.update({finished: [call(id, {ended: new Date(id * 1000).toISOString()})]});
  }
  assert.equal(calls.ended.length, 200);
  assert.equal(calls.ended[0].id, 299);
});

test("levels belong to calls that are known", () => {
  const calls = new Calls();
  calls.update({calls: [call(1)]});
  assert.deepEqual(calls.update_levels([[1, -20, null, 1], [9, 0, 0, 3]]), [1]);
  assert.deepEqual(calls.live.get(1).levels, {originator: -20, terminator: null});
  assert.deepEqual(calls.live.get(1).active, {originator: true, terminator: false});
  // A change of the call keeps them.
  calls.update({calls: [call(1, {lost_packets: 1})]});
  assert.equal(calls.live.get(1).levels.originator, -20);
});

const some = () => {
  const calls = new Calls();
  calls.update({calls: [
    call(1, {call_ref: "Beta", began: "2026-01-01T00:00:03Z", lost_packets: 2, trouble: ["loss"]}),
    call(2, {call_ref: "alpha", began: "2026-01-01T00:00:01Z"}),
    call(3, {call_ref: null, began: "not a time", trouble: ["no_start"]})]});
  return [...calls.live.values()];
};

for (const [name, sort, wanted] of [
  ["reference, in any case", {column: "call"}, [2, 1, 3]],
  ["reference, backwards", {column: "call", descending: true}, [3, 1, 2]],
  ["loss", {column: "lost", descending: true}, [1, 2, 3]],
  ["trouble first, then reference", {column: "call", trouble_first: true}, [1, 3, 2]],
]) {
  test(`sorted by ${name}`, () => {
    assert.deepEqual(ids(arrange(some(), ALL, sort)), wanted);
  });
}

test("the filter looks at reference and UUID, in any case", () => {
  const sort = {column: "call"};
  assert.deepEqual(ids(arrange(some(), {text: " ALPHA ", only_trouble: false}, sort)), [2]);
  assert.deepEqual(ids(arrange(some(), {text: "UUID-3", only_trouble: false}, sort)), [3]);
  assert.deepEqual(ids(arrange(some(), {text: "", only_trouble: true}, sort)), [1, 3]);
});

test("the length of a live call goes on between its messages", () => {
  assert.equal(seconds_now({seconds: 5, received_at: 1000}, 3500), 7.5);
});

test("invisible characters are shown by their bytes", () => {
  assert.equal(visible("a\u202eb\u0000\n\u200d"), "a\\xe2\\x80\\xaeb\\x00\\x0a\\xe2\\x80\\x8d");
  assert.equal(visible("שלום مرحبا 日本 é <b>"), "שלום مرحبا 日本 é <b>");
});

test("numbers are written for people", () => {
  assert.deepEqual([duration(7.9), duration(75), duration(3723)], ["0:07", "1:15", "1:02:03"]);
  assert.deepEqual([moment(7.25), moment(59.97)], ["0:07.3", "1:00.0"]);
  assert.deepEqual([decibels(-12.4), decibels(-96), decibels(null)], ["\u221212 dB", "silent", ""]);
  assert.deepEqual([bytes(999), bytes(2048), bytes(3 * 2 ** 20)], ["999 bytes", "2.0 KiB", "3.0 MiB"]);
});

test("a frame of audio is read as it was written", () => {
  const data = Uint8Array.from([
    1, 1, 1, 0, 0x40, 0x1f, 0, 0, 0x10, 0x27, 0, 0, 1, 0, 0, 0,  // Terminator, after loss, 8000 Hz.
    0x88, 0x13, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 0x00, 0x80, 0xff, 0x7f]);
  assert.deepEqual(parse_frame(data.buffer), {
    side: 1, rate: 8000, position: 2 ** 32 + 10000, age_ms: 5,
    samples: Int16Array.of(-1, -32768, 32767)});
  for (const [place, value] of [[0, 2], [1, 2]]) {
    const other = data.slice();
    other[place] = value;
    assert.equal(parse_frame(other.buffer), null);
  }
  assert.equal(parse_frame(data.slice(0, 23).buffer), null);
});

test("audio of the call that was heard before is not played", () => {
  globalThis.AudioContext = class {};
  globalThis.window = {isSecureContext: true};
  const sent = [];
  const played = [];
  const listener = new Listener({send: (message) => sent.push(message), on_change: () => {}});
  listener.open = (rate) => {
    listener.rate = rate;
    listener.node = {port: {postMessage: (message) => played.push(message)}, disconnect: () => {}};
  };
  // Ten samples of the originator at 8 kHz.
  const frame = new Uint8Array(44);
  frame.set([1, 0, 0, 0, 0x40, 0x1f]);
  const heard = () => {
    played.length = 0;
    listener.take(frame.buffer);
    return played.some(({type}) => type === "frame");
  };
  listener.start(call(1), "both");
  assert.ok(!heard());
  listener.confirm(1, "both");
  assert.ok(heard());
  listener.start(call(2), "both");
  assert.ok(!heard());
  listener.confirm(1, "both");
  assert.ok(!heard());
  listener.confirm(2, "both");
  assert.ok(heard());
  listener.start(call(2), "originator");
  assert.ok(!heard());
  listener.confirm(2, "originator");
  assert.ok(heard());
  assert.deepEqual(sent.map(({sides}) => sides), ["both", "both", "originator"]);
});

const columns = (...pairs) => Buffer.from(Int8Array.from(pairs.flat()).buffer).toString("base64");

test("columns lie where their number says", () => {
  const trace = new SideTrace("originator");
  trace.take({end: 2, columns: columns([-5, 6], [-7, 8])});
  trace.take({end: 4, columns: columns([-128, 127])});  // The third is missing.
  const seen = [];
  trace.each_column(0, (...column) => seen.push(column));
  assert.deepEqual(seen.map(([, ...values]) => values), [[-5, 6], [-7, 8], [-128, 127]]);
  assert.ok(Math.abs(seen[2][0] - 0.15) < 1e-9);
  assert.equal(trace.peak(0), 128);
});

test("an activity ends when its end comes", () => {
  const trace = new SideTrace("originator");
  trace.take({end: 100, columns: ""});
  trace.mark({kind: "activity", begin: 1, end: null});
  assert.match(trace.words(0, 30), /active for 4\.0 s/);
  trace.mark({kind: "activity", begin: null, end: 2.5});
  assert.match(trace.words(0, 30), /active for 1\.5 s/);
});

test("marks are forgotten 30 seconds after their end, whether or not they are drawn", () => {
  const trace = new SideTrace("originator");
  trace.take({end: 100, columns: ""});
  trace.mark({kind: "gap", begin: 1, end: 2});
  trace.mark({kind: "sample", name: "x", begin: 4});
  trace.take({end: 640, columns: ""});
  assert.equal(trace.marks.size, 2);
  trace.take({end: 641, columns: ""});
  assert.equal(trace.marks.size, 1);
  trace.take({end: 681, columns: ""});
  assert.equal(trace.marks.size, 0);
});

test("quiet outlines are magnified, and loud ones stay inside", () => {
  assert.deepEqual([0, 10, 16, 17, 64, 65, 128].map(gain_for), [8, 8, 8, 4, 2, 1, 1]);
});
