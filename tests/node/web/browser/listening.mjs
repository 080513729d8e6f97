// Takes what the player of the page puts out.

// Records what comes to it, beside the player, of which it changes nothing.
const TAP = `registerProcessor("tap", class extends AudioWorkletProcessor {
  process([[left, right]]) {
    if (left) {
      this.port.postMessage({left: left.slice(), right: (right ?? left).slice(), at: Date.now()});
    }
    return true;
  }
});`;

// Runs in the page before its own scripts: whatever a worklet feeds also goes to the tap.
function install_tap(tap_source) {
  window.tapped = {left: [], right: [], times: [], rate: 0};
  const connect = AudioNode.prototype.connect;
  AudioNode.prototype.connect = function (...ways) {
    if (this instanceof AudioWorkletNode) {
      const source = new Blob([tap_source], {type: "text/javascript"});
      this.context.audioWorklet.addModule(URL.createObjectURL(source)).then(() => {
        const tap = new AudioWorkletNode(this.context, "tap", {numberOfOutputs: 0});
        tap.port.onmessage = ({data: {left, right, at}}) => {
          window.tapped.rate = this.context.sampleRate;
          window.tapped.times.push([window.tapped.left.length, at]);
          window.tapped.left.push(...left);
          window.tapped.right.push(...right);
        };
        connect.call(this, tap);
      });
    }
    return connect.apply(this, ways);
  };
}

// Options of a page with a tap. Its content policy would refuse the tap's script.
export const TAPPED = {scripts: [[install_tap, TAP]], bypassCSP: true};

// What was put out since the last call: 16-bit values, if they are what was sent, and the times at
// which they came, as [place, milliseconds].
export async function take(page) {
  const taken = await page.evaluate(() => {
    const {left, right, times, rate} = window.tapped;
    window.tapped = {left: [], right: [], times: [], rate};
    return {left, right, times, rate};
  });
  const integers = (values) => values.map((value) => value * 32768);
  return {...taken, left: integers(taken.left), right: integers(taken.right)};
}

// The delay that the page shows, in milliseconds, or null.
export async function shown_delay(page) {
  const words = await page.locator("#delay").innerText();
  return /^\d+ ms$/.test(words) ? parseInt(words, 10) : null;
}
