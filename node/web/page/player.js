// Plays the live audio of a call: an AudioWorklet processor with a small jitter buffer.
//
// Both sides lie on one time line, the call's, counted in samples of the context. A single head moves
// along it, so the sides stay aligned. What has not come when the head passes is silence, and so is
// lost audio, because every frame lies where its position says.
//
// The page opens the context with the sample rate of the call. Then every sample is copied, and
// leaves the processor as the 16-bit value divided by 32768, which a 32-bit float holds exactly. At
// any other rate a windowed sinc resamples, as it does for the side with the lower rate.
//
// The clocks of the sender and of this computer differ. `Player` watches how much audio is in reserve
// when it is scarcest, and skips or waits by a few milliseconds, if it can while nobody speaks.

const RING_S = 4;             // Of audio per side.
const START_MS = 100;         // Reserve with which the head starts.
const MOST_RESERVE_MS = 300;  // To which the reserve grows if frames come late or in bursts.
const LATE_MS = 25;           // Beyond the lateness that was seen; more than a block.
const LIMIT_MS = 400;         // More is skipped at once.
const WATCH_S = 2;            // How long the scarcest reserve is watched before steering.
const LOW_MS = 30;            // Less is a danger: a block has 16 ms at 8 kHz.
const SPARE_MS = 20;          // Reserve beyond the wanted one that is tolerated.
const FORCED_MS = 120;        // Beyond this, speech is no reason to wait.
const QUIET = 0.01;           // Peak below which a skip is not heard.
const APART_S = 0.25;         // Sides that are further apart are aligned anew.
const CALM_S = 30;            // After which the wanted reserve shrinks again.
const TAPS = 16;              // Each side of the resampler's middle.

// Audio of one side by its position, at the side's own rate.
class Side {
  constructor(rate) {
    this.rate = rate;
    this.ring = new Float32Array(Math.ceil(RING_S * rate));
    this.end = 0;      // Position after the newest sample.
    this.shift_s = 0;  // Of the side on the call's time line.
  }

  // Puts samples at their position. What lies between them and the newest so far is silence.
  put(position, samples) {
    const size = this.ring.length;
    if (position >= this.end + size) {
      this.ring.fill(0);
    } else {
      for (let at = this.end; at < position; ++at) {
        this.ring[at % size] = 0;
      }
    }
    this.end = Math.max(this.end, position + samples.length);
    for (let i = Math.max(0, this.end - size - position); i < samples.length; ++i) {
      this.ring[(position + i) % size] = samples[i] / 32768;
    }
  }

  at(position) {
    const size = this.ring.length;
    return position >= Math.max(0, this.end - size) && position < this.end
      ? this.ring[position % size] : 0;
  }

  // The value between two samples, by a sinc under a Hann window. `step` is the number of samples per
  // sample of the output; if it is above 1, what the output cannot hold is filtered out.
  between(place, step) {
    const cut = Math.min(1, 1 / step);
    const middle = Math.floor(place);
    let sum = 0;
    for (let tap = middle - TAPS + 1; tap <= middle + TAPS; ++tap) {
      const distance = place - tap;
      const angle = Math.PI * distance * cut;
      const sinc = Math.abs(angle) < 1e-9 ? 1 : Math.sin(angle) / angle;
      const window = 0.5 + 0.5 * Math.cos(Math.PI * distance / TAPS);
      sum += this.at(tap) * cut * sinc * window;
    }
    return sum;
  }

  // The end of the audio on the call's time line, in seconds.
  end_s() {
    return this.end / this.rate + this.shift_s;
  }
}

export class Player {
  // `rate` is that of the output. `both` is false if one side is played, on both channels.
  constructor(rate, both) {
    this.rate = rate;
    this.both = both;
    this.sides = [null, null];
    this.head = null;      // Next sample of the output, on the call's time line.
    this.waiting = true;   // Until there is enough in reserve.
    this.wanted_ms = START_MS;
    this.watch_anew();
    this.calm = 0;
    this.figures = {skipped: 0, waited: 0, dry: 0, late: 0, aligned: 0};
  }

  watch_anew() {
    this.watched = 0;
    this.least_ms = Infinity;
  }

  // Takes a frame: 16-bit samples of side 0 (originator) or 1 (terminator) at a position.
  put(index, rate, position, samples) {
    let side = this.sides[index];
    if (side === null || side.rate !== rate) {
      side = this.sides[index] = new Side(rate);
      side.fresh = true;
    }
    side.put(position, samples);
    if (side.fresh) {
      side.fresh = false;
      this.place_first(index, position);
    }
    this.check_place(index, position);
  }

  // Positions lie on the call's time line. Should a side be apart from the other nevertheless, because
  // its rate is only assumed, it is put beside it.
  place_first(index, position) {
    const side = this.sides[index];
    const other = this.sides[1 - index]?.end_s() ?? null;
    if (other !== null && Math.abs(side.end_s() - other) > APART_S) {
      this.shift(side, other - side.end_s());
    }
    this.head ??= Math.round((position / side.rate + side.shift_s) * this.rate);
  }

  // Moves by whole samples, because that keeps samples what they are.
  shift(side, seconds) {
    side.shift_s = Math.round((side.shift_s + seconds) * this.rate) / this.rate;
    this.figures.aligned += 1;
  }

  // A frame that comes too late to be whole makes the reserve as large as it should have been: after a
  // loss, the media node holds a side back for a moment. A side that is far behind is put in front of
  // the head.
  check_place(index, position) {
    const side = this.sides[index];
    const head_s = this.head / this.rate;
    const late_s = head_s - position / side.rate - side.shift_s;
    if (late_s > 0 && head_s - side.end_s() >= APART_S) {
      const other = this.sides[1 - index]?.end_s();
      this.shift(side, (other > head_s ? other : head_s + START_MS / 1000) - side.end_s());
    } else if (late_s > 0 && !this.waiting) {
      this.figures.late += 1;
      this.want(this.reserve_ms() + late_s * 1000 + LATE_MS);
      this.waiting = true;
    }
  }

  want(milliseconds) {
    this.wanted_ms = Math.min(Math.max(milliseconds, this.wanted_ms), MOST_RESERVE_MS);
    this.calm = 0;
  }

  // Audio in front of the head, in milliseconds, of the side that has more.
  reserve_ms() {
    const ends = this.sides.filter((side) => side !== null).map((side) => side.end_s());
    return ends.length ? (Math.max(...ends) - this.head / this.rate) * 1000 : 0;
  }

  // Fills the channels with what comes next.
  play(left, right) {
    if (this.head === null) {
      return;
    }
    let reserve = this.reserve_ms();
    if (reserve > LIMIT_MS) {
      // Too much at once, for example after the computer slept.
      this.skip(reserve - this.wanted_ms);
      reserve = this.wanted_ms;
    }
    if (this.waiting) {
      if (reserve < this.wanted_ms) {
        return;
      }
      this.waiting = false;
      this.watch_anew();
    }
    const length = left.length;
    if (reserve * this.rate < length * 1000) {
      // Nothing is left: the head waits, so that what comes is whole.
      this.waiting = true;
      this.figures.dry += 1;
      this.want(this.wanted_ms + 20);
      return;
    }
    this.fill(0, left);
    this.fill(1, right);
    if (!this.both) {
      this.spread(left, right);
    }
    this.head += length;
    this.steer(reserve, length, left, right);
  }

  fill(index, channel) {
    const side = this.sides[index];
    if (side === null) {
      return;
    }
    const first = this.head - side.shift_s * this.rate;
    if (side.rate === this.rate) {
      const from = Math.round(first);
      for (let i = 0; i < channel.length; ++i) {
        channel[i] = side.at(from + i);
      }
      return;
    }
    const step = side.rate / this.rate;
    for (let i = 0; i < channel.length; ++i) {
      channel[i] = side.between((first + i) * step, step);
    }
  }

  spread(left, right) {
    if (this.sides[0] === null) {
      left.set(right);
    } else {
      right.set(left);
    }
  }

  // Keeps the scarcest reserve between LOW_MS and the wanted one.
  steer(reserve, length, left, right) {
    this.least_ms = Math.min(this.least_ms, reserve);
    this.watched += length;
    this.calm += length;
    if (this.watched < WATCH_S * this.rate) {
      return;
    }
    const excess = this.least_ms - this.wanted_ms;
    const quiet = is_quiet(left) && is_quiet(right);
    if (excess > SPARE_MS && (quiet || excess > FORCED_MS)) {
      this.skip(quiet ? excess : excess / 4);
      this.watch_anew();
    } else if (this.least_ms < LOW_MS && quiet) {
      this.wait(LOW_MS + 10 - this.least_ms);
      this.watch_anew();
    } else if (quiet || this.watched > 2 * WATCH_S * this.rate) {
      this.watch_anew();
    }
    if (this.calm > CALM_S * this.rate) {
      this.calm = 0;
      this.wanted_ms = Math.max(START_MS, this.wanted_ms - 20);
    }
  }

  skip(milliseconds) {
    const samples = Math.round(milliseconds / 1000 * this.rate);
    this.head += samples;
    this.figures.skipped += samples;
  }

  // The head goes back, so that the last quiet moment is played again.
  wait(milliseconds) {
    const samples = Math.round(milliseconds / 1000 * this.rate);
    this.head -= samples;
    this.figures.waited += samples;
  }
}

function is_quiet(channel) {
  return channel.every((value) => Math.abs(value) < QUIET);
}

// Everything below exists only in the worklet.

const STATES_PER_S = 4;

function make_processor() {
  return class extends AudioWorkletProcessor {
    constructor({processorOptions}) {
      super();
      this.player = new Player(sampleRate, processorOptions.both);
      this.until_state = 0;
      this.open = true;
      this.port.onmessage = ({data}) => this.receive(data);
    }

    receive(message) {
      if (message.type === "frame") {
        this.player.put(message.side, message.rate, message.position, message.samples);
      } else if (message.type === "close") {
        this.open = false;
      }
    }

    process(_, [[left, right]]) {
      this.player.play(left, right);
      this.until_state -= left.length;
      if (this.until_state <= 0) {
        this.until_state = sampleRate / STATES_PER_S;
        this.port.postMessage({reserve_ms: this.player.reserve_ms(), waiting: this.player.waiting});
      }
      return this.open;
    }
  };
}

if (typeof registerProcessor === "function") {
  registerProcessor("quorvane-player", make_processor());
}
