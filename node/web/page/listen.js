// Listening to a call: asks the media node for its audio and gives that to the player. The media node
// sends one call at a time.
import {SIDES} from "./text.js";

const FRAME_VERSION = 1;
const HEADER_BYTES = 24;
const USUAL_RATE = 8000;

// A frame as it comes over the websocket, or null if it is none. The samples are a copy, because their
// memory goes to the player.
export function parse_frame(data) {
  if (data.byteLength < HEADER_BYTES) {
    return null;
  }
  const view = new DataView(data);
  const side = view.getUint8(1);
  const rate = view.getUint32(4, true);
  if (view.getUint8(0) !== FRAME_VERSION || side >= SIDES.length || rate === 0) {
    return null;
  }
  const number = (data.byteLength - HEADER_BYTES) >> 1;
  const samples = new Int16Array(number);
  for (let i = 0; i < number; ++i) {
    samples[i] = view.getInt16(HEADER_BYTES + 2 * i, true);
  }
  return {side, rate, position: Number(view.getBigUint64(8, true)),
          age_ms: Number(view.getBigInt64(16, true)) / 1000, samples};
}

// Why this browser cannot play, or null. Browsers play only on pages that nobody can have altered.
export function obstacle() {
  if (typeof AudioContext === "undefined") {
    return "This browser has no Web Audio.";
  }
  return window.isSecureContext ? null
    : "Browsers play live audio only over HTTPS or from this computer: " +
      "start the media node with --http-cert.";
}

export class Listener {
  // on_change({call, sides, delay_ms, error}) is called when something of it changes; `call` is null
  // when nothing is played.
  constructor({send, on_change}) {
    this.send = send;
    this.on_change = on_change;
    this.volume = 1;
    this.close();
  }

  // To be called from a click or a key, because browsers play nothing unasked.
  start(call, sides) {
    const reason = obstacle();
    if (reason) {
      this.on_change({call: null, error: reason});
      return;
    }
    this.close();
    this.confirmed = false;
    this.call = call;
    this.sides = sides;
    const wanted = sides === "both" ? SIDES : [sides];
    const rates = wanted.map((side) => call.sides?.[side]?.sample_rate ?? 0);
    this.open(Math.max(...rates) || USUAL_RATE);
    this.send({type: "listen", call: call.id, sides});
    this.report();
  }

  stop() {
    if (this.call) {
      this.send({type: "stop"});
      this.close();
      this.report();
    }
  }

  // Opens the context with the rate of the call, so that nothing is resampled on the way to the
  // player. A browser that refuses the rate gets its own.
  async open(rate) {
    let context;
    try {
      context = new AudioContext({sampleRate: rate, latencyHint: "interactive"});
    } catch {
      context = new AudioContext({latencyHint: "interactive"});
    }
    this.context = context;
    this.rate = rate;
    this.node = null;
    this.gain = context.createGain();
    this.gain.gain.value = this.volume;
    this.gain.connect(context.destination);
    try {
      await Promise.all([context.resume(), context.audioWorklet.addModule("/player.js")]);
    } catch (error) {
      this.fail(context, "The player could not start: " + error.message);
      return;
    }
    if (context !== this.context) {
      return;
    }
    this.node = new AudioWorkletNode(context, "quorvane-player", {
      numberOfInputs: 0, outputChannelCount: [2], processorOptions: {both: this.sides === "both"}});
    this.node.port.onmessage = ({data}) => this.state(data);
    this.node.connect(this.gain);
  }

  fail(context, error) {
    if (context === this.context) {
      this.send({type: "stop"});
      this.close();
      this.on_change({call: null, error});
    }
  }

  close() {
    this.node?.port.postMessage({type: "close"});
    this.node?.disconnect();
    this.context?.close();
    this.call = null;
    this.sides = null;
    this.context = null;
    this.node = null;
    this.delay_ms = null;
    this.age_ms = null;
  }

  // The media node stopped, or the connection is lost. "stopped" only confirms an earlier wish, after
  // which somebody may listen again.
  stopped(id, reason) {
    if (this.call && reason !== "stopped" && (id === undefined || id === this.call.id)) {
      this.close();
      this.on_change({call: null, reason});
    }
  }

  // The media node has begun. What came before may be audio of the call that was played before.
  confirm(id, sides) {
    this.confirmed ||= id === this.call?.id && sides === this.sides;
  }

  take(data) {
    const frame = this.call && this.confirmed ? parse_frame(data) : null;
    if (frame === null) {
      return;
    }
    this.age_ms = frame.age_ms;
    // The rate of a call that has just begun may have been unknown.
    if (frame.rate > this.rate) {
      const former = this.context;
      this.open(frame.rate);
      former.close();
    }
    this.node?.port.postMessage({type: "frame", ...frame}, [frame.samples.buffer]);
  }

  state({reserve_ms, waiting}) {
    if (this.context && this.age_ms !== null) {
      const output_ms = (this.context.outputLatency || this.context.baseLatency || 0) * 1000;
      this.delay_ms = waiting ? null : Math.max(0, this.age_ms + reserve_ms + output_ms);
      this.report();
    }
  }

  report() {
    this.on_change({call: this.call, sides: this.sides, delay_ms: this.delay_ms});
  }

  set_volume(share) {
    this.volume = share;
    if (this.gain) {
      this.gain.gain.value = share;
    }
  }
}
