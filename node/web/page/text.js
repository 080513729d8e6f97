// Words and numbers for people, and the making of elements. Everything that came over the network
// becomes text here, never markup.

export const SIDES = ["originator", "terminator"];
export const SIDE_NAMES = {originator: "Originator", terminator: "Terminator"};

// What an operator should look at, by the names that the media node uses.
const TROUBLE = {
  no_start: "no start packet",
  loss: "loss",
  late: "late packets",
  one_sided: "one-sided",
  file: "file not written",
  foreign: "foreign packets",
};

// "loss, one-sided"; empty if all is well.
export function trouble_text(call) {
  return (call.trouble ?? []).map((word) => TROUBLE[word] ?? word).join(", ");
}

// Characters that nobody sees, or that change how their neighbours are shown: control characters,
// marks of writing direction, joiners, and halves of surrogate pairs.
const INVISIBLE = /[\p{Cc}\p{Cf}\p{Zl}\p{Zp}\p{Cs}\p{Co}\p{Cn}]/gu;
const encoder = new TextEncoder();

// Foreign text as it is, with \xNN in place of each byte of an invisible character. The lines of
// the media node show such characters in the same way.
export function visible(text) {
  return String(text).replace(INVISIBLE, (character) =>
    [...encoder.encode(character)]
      .map((byte) => "\\x" + byte.toString(16).padStart(2, "0")).join(""));
}

export function count(number) {
  return Number(number ?? 0).toLocaleString("en");
}

export function counted(number, thing) {
  return count(number) + " " + thing + (number === 1 ? "" : "s");
}

// "0:07", "1:02:03"
export function duration(seconds) {
  const whole = Math.max(0, Math.floor(seconds ?? 0));
  const pad = (number) => String(number).padStart(2, "0");
  const minutes = Math.floor(whole / 60) % 60;
  const hours = Math.floor(whole / 3600);
  const start = hours ? hours + ":" + pad(minutes) : String(minutes);
  return start + ":" + pad(whole % 60);
}

// "0:07.3"
export function moment(seconds) {
  const tenths = Math.max(0, Math.round(seconds * 10));
  return duration(Math.floor(tenths / 10)) + "." + (tenths % 10);
}

const SILENCE_DB = -90;

export function decibels(level) {
  if (level === null || level === undefined) {
    return "";
  }
  return level <= SILENCE_DB ? "silent" : Math.round(level).toString().replace("-", "\u2212") + " dB";
}

// Time of day of an ISO time, by the clock of the browser.
export function clock(iso) {
  const time = new Date(iso);
  return Number.isNaN(time.getTime()) ? "" : time.toLocaleTimeString("en-GB");
}

export function date_and_clock(iso) {
  const time = new Date(iso);
  return Number.isNaN(time.getTime()) ? "" : time.toLocaleDateString("sv") + " " + clock(iso);
}

export function bytes(number) {
  const units = ["bytes", "KiB", "MiB", "GiB"];
  let unit = 0;
  let value = number ?? 0;
  while (value >= 1024 && unit < units.length - 1) {
    value /= 1024;
    unit += 1;
  }
  return (unit ? value.toFixed(1) : count(value)) + " " + units[unit];
}

// Makes an element. Children are nodes or texts; attributes with the value null are left out.
export function element(tag, attributes = {}, ...children) {
  const made = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (value !== null && value !== undefined) {
      made.setAttribute(name, value);
    }
  }
  made.append(...children);
  return made;
}

// Words for screen readers only.
export function unseen(words, tag = "span") {
  return element(tag, {class: "unseen"}, words);
}

// An element with foreign text. Its writing direction does not reach beyond it.
export function foreign(text, attributes = {}) {
  return element("bdi", attributes, visible(text));
}

// Sets a text only if it differs, because each change costs a layout.
export function set_text(node, text) {
  if (node.textContent !== text) {
    node.textContent = text;
  }
}
