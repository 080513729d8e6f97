// Takes what the player of the page puts out.
import assert from "node:assert/strict";

// Records what comes to it, beside the player, of which it changes nothing.
const TAP = `registerProcessor("tap", class extends AudioWorkletProcessor {
  process([[left, right]]) {
    if (left) {
      this.port.postMessage({left: left.slice(), right: (right ?? left).slice(), at: Date.now()});
    }
    return true;
  }
});`;

// Runs in the page before its own scripts: whatever a worklet feeds also goes to the tap. What a
// former worklet still feeds does not count.
function install_tap(tap_source) {
  const nothing = () => ({left: [], right: [], times: [], rate: 0});
  window.tapped = nothing();
  window.taps = 0;
  const connect = AudioNode.prototype.connect;
  AudioNode.prototype.connect = function (...ways) {
    if (this instanceof AudioWorkletNode) {
      const source = new Blob([tap_source], {type: "text/javascript"});
      this.context.audioWorklet.addModule(URL.createObjectURL(source)).then(() => {
        const tap = new AudioWorkletNode(this.context, "tap", {numberOfOutputs: 0});
        const number = ++window.taps;
        window.tapped = nothing();
        tap.port.onmessage = ({data: {left, right, at}}) => {
          if (number !== window.taps) {
            return;
          }
          window.tapped.rate = this.context.sampleRate;
          window.tapped.times.push([window.tapped.left.length, at]);
          window.tapped.left.push(...left);
          window.tapped.right.push(...right);
        };
        connect.call(this, tap);
      }, () => {
        // Listening has stopped before the tap was ready.
      });
    }
    return connect.apply(this, ways);
  };
}

// Options of a page with a tap. Its content policy would refuse the tap's script.
export const TAPPED = {scripts: [[install_tap, TAP]], bypassCSP: true};

// Runs in the page. The samples are text, because lists of so many numbers take seconds on their way.
function take_tapped() {
  const {left, right, times, rate} = window.tapped;
  window.tapped = {left: [], right: [], times: [], rate};
  const as_text = (values) => {
    const bytes = new Uint8Array(Int16Array.from(values, (value) => value * 32768).buffer);
    let text = "";
    for (let i = 0; i < bytes.length; i += 8192) {
      text += String.fromCharCode(...bytes.subarray(i, i + 8192));
    }
    return btoa(text);
  };
  const whole = [...left, ...right].every((value) => Number.isInteger(value * 32768));
  return {left: as_text(left), right: as_text(right), times, rate, whole};
}

// What was put out since the last call: 16-bit values, which all of them must be, and the times at
// which they came, as [place, milliseconds].
export async function take(page) {
  const {left, right, whole, ...rest} = await page.evaluate(take_tapped);
  assert.ok(whole, "each value is one of 16 bits");
  const integers = (text) => {
    const bytes = Uint8Array.from(Buffer.from(text, "base64"));
    return [...new Int16Array(bytes.buffer)];
  };
  return {...rest, left: integers(left), right: integers(right)};
}

// How often the page has begun to play.
export const taps = (page) => page.evaluate(() => window.taps);

// The delay that the page shows, in milliseconds, or null.
export async function shown_delay(page) {
  const words = await page.locator("#delay").innerText();
  return /^\d+ ms$/.test(words) ? parseInt(words, 10) : null;
}
