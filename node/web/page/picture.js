// The last 30 seconds of a side: what is known of them, and the picture of it. Times are seconds on the
// axis of the call, which both sides share and which includes pauses.
import {SIDE_NAMES, moment, visible} from "./text.js";

export const WINDOW_S = 30;
const KEPT_COLUMNS = 640;   // A little more than the window.
const FULL_SCALE = 128;
const MOST_GAIN = 8;
const LATEST_S = 1.5;       // Audio that is later than this shows as a hole.
const GRID_S = 5;
const TOP = 20;             // Height of the labels above the outline.
const BAND = 5;             // Height of the band of audio activity.
const AXIS = 16;
const LABEL_ROWS = 2;
const FONT = "11px system-ui, sans-serif";

export class SideTrace {
  constructor(side) {
    this.side = side;
    this.column_s = 0.05;
    this.end = 0;                                        // Columns so far.
    this.numbers = new Int32Array(KEPT_COLUMNS).fill(-1);  // Which column a place holds.
    this.lowest = new Int8Array(KEPT_COLUMNS);
    this.highest = new Int8Array(KEPT_COLUMNS);
    this.marks = new Map();
    this.begun = false;
  }

  // Takes new columns: pairs of lowest and highest sample, as text of base64.
  take({end, columns}) {
    const text = atob(columns ?? "");
    const number = text.length >> 1;
    const signed = (place) => (text.charCodeAt(place) << 24) >> 24;
    for (let i = 0; i < number; ++i) {
      const column = end - number + i;
      if (column >= 0) {
        const place = column % KEPT_COLUMNS;
        this.numbers[place] = column;
        this.lowest[place] = signed(2 * i);
        this.highest[place] = signed(2 * i + 1);
      }
    }
    this.begun ||= end > 0;
    this.end = Math.max(this.end, end);
    // Here and not where it is drawn, because nothing is drawn while nobody sees the page.
    this.forget_before(this.end_time() - WINDOW_S);
  }

  // Takes a new mark, or an old one that has its end now. An activity that has an end without a
  // beginning is the one that goes on.
  mark(mark) {
    if (mark.begin === null) {
      for (const open of this.marks.values()) {
        if (open.kind === "activity") {
          open.end ??= mark.end;
        }
      }
      return;
    }
    this.marks.set(mark.kind + " " + mark.begin + " " + (mark.name ?? ""), mark);
  }

  forget_before(time) {
    for (const [key, mark] of this.marks) {
      if (mark.end !== null && (mark.end ?? mark.begin) < time) {
        this.marks.delete(key);
      }
    }
  }

  end_time() {
    return this.end * this.column_s;
  }

  // An activity that goes on ends with the audio so far.
  mark_end(mark) {
    return mark.end ?? (mark.kind === "activity" ? this.end_time() : mark.begin);
  }

  // Calls visit(time, lowest, highest) for each column from a time on.
  each_column(from, visit) {
    for (let column = Math.max(0, this.end - KEPT_COLUMNS); column < this.end; ++column) {
      const place = column % KEPT_COLUMNS;
      if (this.numbers[place] === column) {
        const time = column * this.column_s;
        if (time + this.column_s >= from) {
          visit(time, this.lowest[place], this.highest[place]);
        }
      }
    }
  }

  peak(from) {
    let peak = 0;
    this.each_column(from, (_, lowest, highest) => {
      peak = Math.max(peak, -lowest, highest);
    });
    return peak;
  }

  // What the picture shows, in words.
  words(from, until) {
    const parts = [];
    const peak = this.peak(from);
    parts.push(!this.begun ? "no audio yet"
               : peak <= 1 ? "silence"
               : `loudest ${Math.round(20 * Math.log10(peak / FULL_SCALE))} dB`);
    const inside = [...this.marks.values()].map((mark) => ({
      ...mark, from: Math.max(mark.begin, from), until: Math.min(this.mark_end(mark), until),
    })).filter((mark) => mark.from <= mark.until);
    const of = (kind) => inside.filter((mark) => mark.kind === kind);
    const length = (marks) => marks.reduce((sum, mark) => sum + mark.until - mark.from, 0);
    if (of("activity").length) {
      parts.push(`active for ${length(of("activity")).toFixed(1)} s`);
    }
    if (of("gap").length) {
      parts.push(`${of("gap").length} lost (${length(of("gap")).toFixed(2)} s)`);
    }
    if (of("pause").length) {
      parts.push(`paused for ${length(of("pause")).toFixed(1)} s`);
    }
    for (const sample of of("sample")) {
      parts.push(`sample ${visible(sample.name)} at ${moment(sample.from)}`);
    }
    return `${SIDE_NAMES[this.side]}, last ${WINDOW_S} seconds: ${parts.join(", ")}.`;
  }
}

// The window of both sides. The picture of the first 30 seconds grows from the left; then it moves.
export class Window {
  constructor() {
    this.newest = 0;
    this.newest_at = performance.now();
  }

  update(traces) {
    const newest = Math.max(0, ...traces.filter((trace) => trace.begun)
                                        .map((trace) => trace.end_time()));
    if (newest !== this.newest) {
      this.newest = newest;
      this.newest_at = performance.now();
    }
    // While a call is on hold no audio comes, but its time goes on.
    const waited = (performance.now() - this.newest_at) / 1000;
    this.until = Math.max(WINDOW_S, this.newest + Math.max(0, waited - LATEST_S));
    this.from = this.until - WINDOW_S;
  }
}

// By how much outlines are magnified: 1, 2, 4 or 8.
export function gain_for(peak) {
  let gain = 1;
  while (gain < MOST_GAIN && peak * gain * 2 <= FULL_SCALE) {
    gain *= 2;
  }
  return gain;
}

const COLOURS = ["grid", "text", "wave", "activity", "gap", "gap_flag", "pause", "sample",
                 "features", "ground"];

// The colours of the style sheet, as the canvas understands them.
function colours(canvas) {
  const resolved = COLOURS.map((name) => {
    canvas.style.color = `var(--${name})`;
    return [name, getComputedStyle(canvas).color];
  });
  return Object.fromEntries(resolved);
}

export class Picture {
  constructor(canvas) {
    this.canvas = canvas;
    this.context = canvas.getContext("2d");
    // Asked, because a listener would keep the canvas for ever.
    this.scheme = matchMedia("(prefers-color-scheme: dark)");
  }

  fit() {
    const scale = window.devicePixelRatio || 1;
    this.width = this.canvas.clientWidth;
    this.height = this.canvas.clientHeight;
    const [width, height] = [Math.round(this.width * scale), Math.round(this.height * scale)];
    if (this.canvas.width !== width || this.canvas.height !== height) {
      this.canvas.width = width;
      this.canvas.height = height;
    }
    this.context.setTransform(scale, 0, 0, scale, 0, 0);
  }

  draw(trace, window, gain, features) {
    this.fit();
    if (this.width === 0) {
      return;
    }
    if (this.scheme.matches !== this.dark) {
      this.dark = this.scheme.matches;
      this.colours = colours(this.canvas);
    }
    this.trace = trace;
    this.window = window;
    this.bottom = this.height - AXIS - BAND - 3;  // Of the outline.
    this.middle = (TOP + this.bottom) / 2;
    const context = this.context;
    context.clearRect(0, 0, this.width, this.height);
    context.font = FONT;
    this.draw_grid();
    this.draw_stretches();
    this.draw_outline(gain);
    this.draw_labels(features);
  }

  x(time) {
    return (time - this.window.from) / WINDOW_S * this.width;
  }

  draw_grid() {
    const {context, colours: colour} = this;
    const first = Math.ceil(this.window.from / GRID_S) * GRID_S;
    for (let time = first; time <= this.window.until; time += GRID_S) {
      const x = Math.round(this.x(time)) + 0.5;
      context.fillStyle = colour.grid;
      context.fillRect(x - 0.5, TOP, 1, this.height - AXIS - TOP);
      const words = moment(time).slice(0, -2);
      const width = context.measureText(words).width;
      const left = x - width / 2;
      if (left >= 0 && left + width <= this.width) {
        context.fillStyle = colour.text;
        context.fillText(words, left, this.height - 4);
      }
    }
    context.fillStyle = colour.grid;
    context.fillRect(0, Math.round(this.middle), this.width, 1);
  }

  draw_stretches() {
    const {context, colours: colour, trace} = this;
    for (const mark of trace.marks.values()) {
      const [x, width] = this.stretch(mark.begin, trace.mark_end(mark));
      if (mark.kind === "activity") {
        context.fillStyle = colour.activity;
        context.fillRect(x, this.bottom + 3, width, BAND);
      } else if (mark.kind === "gap") {
        context.fillStyle = colour.gap;
        context.fillRect(x, TOP, width, this.bottom - TOP);
        context.fillStyle = colour.gap_flag;
        context.beginPath();
        context.moveTo(x + width / 2 - 4, TOP - 7);
        context.lineTo(x + width / 2 + 4, TOP - 7);
        context.lineTo(x + width / 2, TOP);
        context.fill();
      } else if (mark.kind === "pause") {
        this.draw_pause(x, width);
      }
    }
  }

  // The shortest loss is still seen.
  stretch(begin, end) {
    const x = this.x(begin);
    return [x, Math.max(this.x(end) - x, 2)];
  }

  draw_pause(x, width) {
    const {context} = this;
    context.save();
    context.beginPath();
    context.rect(x, TOP, width, this.bottom - TOP);
    context.clip();
    context.strokeStyle = this.colours.pause;
    context.lineWidth = 1;
    context.beginPath();
    const height = this.bottom - TOP;
    for (let left = x - height; left < x + width; left += 7) {
      context.moveTo(left, this.bottom);
      context.lineTo(left + height, TOP);
    }
    context.stroke();
    context.restore();
    if (width > 44) {
      context.fillStyle = this.colours.text;
      context.fillText("pause", Math.max(x, 0) + 4, this.bottom - 4);
    }
  }

  draw_outline(gain) {
    const {context, trace} = this;
    const half = (this.bottom - TOP) / 2;
    const width = Math.max(1, trace.column_s / WINDOW_S * this.width);
    const height = (value) => Math.max(-half, Math.min(half, value * gain / FULL_SCALE * half));
    context.fillStyle = this.colours.wave;
    trace.each_column(this.window.from, (time, lowest, highest) => {
      const top = this.middle - Math.max(height(highest), 0.5);
      const bottom = this.middle - Math.min(height(lowest), -0.5);
      context.fillRect(this.x(time), top, width, bottom - top);
    });
    if (gain > 1) {
      context.fillStyle = this.colours.text;
      const words = "×" + gain;
      context.fillText(words, this.width - context.measureText(words).width - 4, TOP + 11);
    }
  }

  // Names of samples and changes of features, in rows where they do not overlap.
  draw_labels(features) {
    const {context, colours: colour, trace} = this;
    const labels = [];
    for (const mark of trace.marks.values()) {
      if (mark.kind === "sample") {
        labels.push({time: mark.begin, words: visible(mark.name),
                     colour: colour.sample});
      }
    }
    for (const mark of features) {
      labels.push({time: mark.begin, words: trace.side === "originator" ? mark.text : "",
                   colour: colour.features, dashed: true});
    }
    labels.sort((one, two) => one.time - two.time);
    for (const label of labels) {
      this.draw_moment(label);
    }
    const ends = new Array(LABEL_ROWS).fill(-Infinity);
    for (const label of labels.filter(({words}) => words)) {
      this.draw_label(label, ends);
    }
  }

  draw_moment({time, colour, dashed}) {
    const {context} = this;
    const x = this.x(time);
    context.strokeStyle = colour;
    context.setLineDash(dashed ? [4, 3] : []);
    context.beginPath();
    context.moveTo(x, 2);
    context.lineTo(x, this.bottom);
    context.stroke();
    context.setLineDash([]);
  }

  draw_label({time, words, colour}, ends) {
    const {context} = this;
    const shown = words.length > 40 ? words.slice(0, 39) + "…" : words;
    const width = context.measureText(shown).width;
    const x = this.x(time);
    const left = Math.min(x + 4, this.width - width - 2);
    const row = ends.findIndex((end) => end < left);
    if (row >= 0 && left + width > 0) {
      ends[row] = left + width + 6;
      context.fillStyle = this.colours.ground;
      context.fillRect(left - 1, 2 + row * 14, width + 3, 13);
      context.fillStyle = colour;
      context.fillText(shown, left, 12 + row * 14);
    }
  }
}
