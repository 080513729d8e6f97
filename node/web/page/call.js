// The opened call: what it sounds like now, and all that is known of it.
import {seconds_now} from "./calls.js";
import {obstacle} from "./listen.js";
import {Picture, SideTrace, WINDOW_S, Window, gain_for} from "./picture.js";
import {Meter} from "./table.js";
import {SIDES, SIDE_NAMES, count, date_and_clock, duration, element, foreign, moment, set_text,
        trouble_text, unseen, visible} from "./text.js";

const MOST_LISTED_MARKS = 60;
const WORDS_MS = 3000;  // How often the pictures are described in words.
const STILL_MS = 1000;  // How often they are drawn for people who want no motion.
const ROLES = {originator: "caller, left", terminator: "callee, right"};
const CHOICES = [["both", "Both sides"], ["originator", "Originator"], ["terminator", "Terminator"]];

// Name, text and whether the value is bad.
const SIDE_FIGURES = [
  ["Sample rate", (side) => side.sample_rate
    ? count(side.sample_rate) + " Hz" + (side.rate_assumed ? ", assumed" : "") : "not known yet"],
  ["Audio", (side) => duration(side.seconds)],
  ["Packets", (side) => count(side.packets)],
  ["Lost", (side) => count(side.lost), (side) => side.lost > 0],
  ["Gaps", (side) => count(side.gaps), (side) => side.gaps > 0],
  ["Late", (side) => count(side.late), (side) => side.late > 0],
  ["Reordered", (side) => count(side.reordered)],
  ["Duplicates", (side) => count(side.duplicates)],
  ["Pauses", (side) => count(side.pauses)],
  ["Activity", (side) => on_off(side.running?.activity)],
  ["Sample detection", (side) => on_off(side.running?.detection)],
  ["Recording", (side) => on_off(side.running?.recording)],
];

const START_FIELDS = [
  ["source", "Sender"], ["began", "Began"], ["outbound", "Direction"], ["rule_id", "Rule id"],
  ["report_node", "Report node"], ["created_time", "Created"], ["configured_time", "Configured"],
  ["control_packets", "Control packets"], ["foreign_packets", "Foreign packets"],
];

function on_off(state) {
  return state === undefined ? "–" : state ? "on" : "off";
}

function start_text(name, value) {
  const texts = {
    began: () => date_and_clock(value),
    outbound: () => value ? "outbound" : "inbound",
    created_time: () => micros_text(value),
    configured_time: () => micros_text(value),
  };
  return (texts[name] ?? (() => visible(value)))();
}

// The switch sends times as microseconds since 1970.
function micros_text(value) {
  return value > 0 ? date_and_clock(new Date(value / 1000).toISOString()) : "not given";
}

// A list of names and values. Values are nodes or texts.
export function facts(rows) {
  return element("dl", {class: "facts"}, ...rows.flatMap(([name, value]) =>
    [element("dt", {}, name), element("dd", {}, value)]));
}

// The head of an opened call, live or ended.
export function opened_head(reference, uuid, on_close) {
  const close = element("button", {type: "button", class: "close", "aria-label": "Close the call"},
                        "×");
  close.addEventListener("click", on_close);
  const title = reference ? foreign(reference) : "(no reference)";
  return element("div", {class: "opened_head"},
                 element("div", {class: "titles"},
                         element("h2", {id: "opened_title", tabindex: -1}, title),
                         element("p", {class: "uuid"}, visible(uuid))),
                 close);
}

export class OpenedCall {
  // on_listen(sides) with null to stop; on_close().
  constructor(root, call, {on_listen, on_close}) {
    this.root = root;
    this.id = call.id;
    this.on_listen = on_listen;
    this.traces = Object.fromEntries(SIDES.map((side) => [side, new SideTrace(side)]));
    this.features = [];
    this.window = new Window();
    this.motion = matchMedia("(prefers-reduced-motion: reduce)");
    this.drawn_at = 0;
    this.described_at = 0;
    this.build(call, on_close);
    this.show(call);
    this.write();
  }

  close() {
    cancelAnimationFrame(this.frame);
  }

  build(call, on_close) {
    this.trouble = element("p", {class: "trouble_line"});
    this.length = element("span");
    this.buttons = new Map(CHOICES.map(([sides, title]) => {
      const button = element("button", {type: "button", "aria-pressed": "false"}, title);
      button.addEventListener("click", () =>
        this.on_listen(button.getAttribute("aria-pressed") === "true" ? null : sides));
      return [sides, button];
    }));
    this.why_not = element("p", {class: "why_not"}, obstacle() ?? "");
    this.why_not.hidden = obstacle() === null;
    const listen = element("div", {class: "listen_bar", role: "group", "aria-label": "Listen"},
                           element("span", {class: "ear", "aria-hidden": "true"}, "Listen"),
                           ...this.buttons.values());
    this.starts = element("div");
    this.wishes = element("p");
    this.failed = element("ul", {class: "failed"});
    this.figures = new SideTable();
    this.list = element("ol", {class: "marks"});
    this.no_marks = element("p", {class: "none"}, "Nothing yet.");
    this.root.replaceChildren(
      opened_head(call.call_ref, call.call_uuid, on_close),
      element("p", {class: "opened_state"}, "Live for ", this.length), this.trouble, this.why_not,
      listen, ...SIDES.map((side) => this.build_picture(side)), this.build_legend(),
      element("h3", {}, "Now"), this.figures.root,
      element("h3", {}, "Features"), this.wishes,
      element("h3", {}, "Start"), this.starts, this.failed,
      element("h3", {}, "Marks"), this.no_marks, this.list);
  }

  build_picture(side) {
    const words = unseen("", "p");
    words.id = "words_" + side;
    const canvas = element("canvas", {role: "img", "aria-label": `${SIDE_NAMES[side]}: outline of ` +
      `the last ${WINDOW_S} seconds`, "aria-describedby": words.id});
    this.pictures ??= {};
    this.meters ??= {};
    this.pictures[side] = {picture: new Picture(canvas), words};
    this.meters[side] = new Meter(side);
    return element("div", {class: "side " + side},
                   element("div", {class: "side_head"},
                           element("h3", {}, SIDE_NAMES[side], " ",
                                   element("small", {}, ROLES[side])),
                           this.meters[side].root),
                   canvas, words);
  }

  build_legend() {
    const entry = (kind, words) => element("li", {class: kind}, words);
    return element("ul", {class: "legend", "aria-hidden": "true"}, entry("activity", "active"),
                   entry("gap", "lost"), entry("pause", "pause"), entry("sample", "sample"),
                   entry("features", "features"));
  }

  // Shows a call's newest state.
  show(call) {
    this.call = call;
    set_text(this.trouble, "Trouble: " + trouble_text(call));
    this.trouble.hidden = trouble_text(call) === "";
    this.figures.show(call);
    set_text(this.wishes, visible(call.features_text ?? "not known"));
    const rows = START_FIELDS.filter(([name]) => call[name] !== undefined && call[name] !== null)
      .map(([name, title]) => [title, start_text(name, call[name])]);
    const text = JSON.stringify(rows);
    if (text !== this.starts_text) {
      this.starts_text = text;
      this.starts.replaceChildren(facts(rows));
    }
    this.show_failed(call.failed_files ?? []);
  }

  show_failed(files) {
    const text = JSON.stringify(files);
    if (text !== this.failed_text) {
      this.failed_text = text;
      this.failed.replaceChildren(...files.map(({file, error}) =>
        element("li", {}, "Not written: ", foreign(file), ": ", foreign(error))));
    }
  }

  write() {
    set_text(this.length, duration(seconds_now(this.call)));
    SIDES.forEach((side) => this.meters[side].write());
  }

  show_levels(call) {
    for (const side of SIDES) {
      this.meters[side].show(call.levels[side], call.active[side]);
    }
  }

  show_listening(sides) {
    for (const [name, button] of this.buttons) {
      button.setAttribute("aria-pressed", name === sides);
      button.disabled = obstacle() !== null;
    }
  }

  // Takes a message "detail" or "wave".
  take({column_ms, sides = {}, marks = []}) {
    for (const side of SIDES) {
      if (column_ms) {
        this.traces[side].column_s = column_ms / 1000;
      }
      if (sides[side]) {
        this.traces[side].take(sides[side]);
      }
    }
    for (const mark of marks) {
      this.take_mark(mark);
    }
    this.frame ??= requestAnimationFrame(() => {
      this.frame = null;
      this.draw();
    });
  }

  take_mark(mark) {
    if (mark.kind === "features") {
      this.features = [...this.features, mark].slice(-20);
    } else {
      this.traces[mark.call_side]?.mark(mark);
    }
    // Activity comes and goes too often to be listed.
    if (mark.kind !== "activity") {
      this.list_mark(mark);
    }
  }

  list_mark(mark) {
    const side = mark.call_side ? SIDE_NAMES[mark.call_side] + ": " : "";
    const words = {
      gap: () => `lost ${((mark.end ?? mark.begin) - mark.begin).toFixed(2)} s`,
      pause: () => `pause of ${(mark.end - mark.begin).toFixed(1)} s`,
      sample: () => ["sample ", foreign(mark.name)],
      features: () => ["features: ", foreign(mark.text)],
    }[mark.kind]?.() ?? visible(mark.kind);
    const item = element("li", {class: mark.kind}, element("time", {}, moment(mark.begin)), " ", side);
    item.append(...[words].flat());
    this.list.prepend(item);
    while (this.list.children.length > MOST_LISTED_MARKS) {
      this.list.lastChild.remove();
    }
    this.no_marks.hidden = true;
  }

  // To be called twice a second.
  tick() {
    this.write();
    this.draw();
  }

  draw() {
    const now = performance.now();
    if (this.motion.matches && now - this.drawn_at < STILL_MS) {
      return;
    }
    this.drawn_at = now;
    const traces = SIDES.map((side) => this.traces[side]);
    this.window.update(traces);
    const {from, until} = this.window;
    this.features = this.features.filter((mark) => mark.begin >= from);
    // One scale for both, so that their heights can be compared.
    const gain = gain_for(Math.max(...traces.map((trace) => trace.peak(from))));
    for (const side of SIDES) {
      this.pictures[side].picture.draw(this.traces[side], this.window, gain, this.features);
    }
    if (now - this.described_at > WORDS_MS) {
      this.described_at = now;
      for (const side of SIDES) {
        set_text(this.pictures[side].words, this.traces[side].words(from, until));
      }
    }
  }
}

// The figures of both sides beside each other.
export class SideTable {
  constructor() {
    this.cells = SIDE_FIGURES.map(() => SIDES.map(() => element("td")));
    const body = element("tbody", {}, ...SIDE_FIGURES.map(([name], row) =>
      element("tr", {}, element("th", {scope: "row"}, name), ...this.cells[row])));
    this.root = element(
      "table", {class: "figures_table"},
      element("thead", {}, element("tr", {}, element("th", {scope: "col"}, unseen("Figure")),
                                   ...SIDES.map((side) => element(
                                     "th", {scope: "col", class: side}, SIDE_NAMES[side])))),
      body);
  }

  show(call) {
    SIDE_FIGURES.forEach(([, text, is_bad], row) => {
      SIDES.forEach((name, column) => {
        const side = call.sides?.[name];
        const cell = this.cells[row][column];
        set_text(cell, side ? text(side) : "–");
        cell.classList.toggle("some", Boolean(side && is_bad?.(side)));
      });
      // What is not known of an ended call is left out.
      this.cells[row][0].parentNode.hidden = this.cells[row].every((cell) =>
        cell.textContent === "–");
    });
  }
}
