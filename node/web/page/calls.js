// The calls that the page knows, and the order in which it shows them. Knows nothing of the
// document.
import {SIDES} from "./text.js";

const MOST_ENDED = 200;
const UNKNOWN_LEVEL = -200;

export class Calls {
  constructor() {
    this.live = new Map();  // By id. Each call has `levels`, `active` and `received_at` in addition.
    this.ended = [];        // The newest first.
  }

  // Takes a message "calls".
  update({reset, calls = [], removed = [], finished = []}, now = Date.now()) {
    if (reset) {
      this.live.clear();
      this.ended = [];
    }
    for (const call of calls) {
      this.live.set(call.id, with_levels(call, this.live.get(call.id), now));
    }
    for (const id of removed) {
      this.live.delete(id);
    }
    for (const call of finished) {
      this.live.delete(call.id);
    }
    if (finished.length) {
      const new_ids = new Set(finished.map((call) => call.id));
      const rest = this.ended.filter((call) => !new_ids.has(call.id));
      this.ended = [...finished, ...rest]
        .sort((one, two) => two.ended.localeCompare(one.ended) || two.id - one.id)
        .slice(0, MOST_ENDED);
    }
  }

  // Takes the rows of a message "levels". Returns the ids of the calls that they belong to.
  update_levels(rows) {
    const ids = [];
    for (const [id, originator, terminator, bits] of rows) {
      const call = this.live.get(id);
      if (call) {
        call.levels = {originator, terminator};
        call.active = {originator: (bits & 1) !== 0, terminator: (bits & 2) !== 0};
        ids.push(id);
      }
    }
    return ids;
  }

  with_trouble() {
    let sum = 0;
    for (const call of this.live.values()) {
      sum += has_trouble(call) ? 1 : 0;
    }
    return sum;
  }
}

function with_levels(call, former, now) {
  const side = (name) => call.sides?.[name];
  call.received_at = now;
  call.levels = former?.levels ?? Object.fromEntries(
    SIDES.map((name) => [name, side(name)?.level_db ?? null]));
  call.active = former?.active ?? Object.fromEntries(
    SIDES.map((name) => [name, side(name)?.active ?? false]));
  return call;
}

export function has_trouble(call) {
  return (call.trouble?.length ?? 0) > 0;
}

// The seconds of a live call as of now; the node sends them once a second or less often.
export function seconds_now(call, now = Date.now()) {
  return call.seconds + Math.max(0, now - call.received_at) / 1000;
}

// What each column is sorted by: a text or a number.
export const COLUMNS = {
  call: (call) => (call.call_ref ?? call.call_uuid).toLowerCase(),
  originator: (call) => call.levels.originator ?? UNKNOWN_LEVEL,
  terminator: (call) => call.levels.terminator ?? UNKNOWN_LEVEL,
  length: (call) => -Date.parse(call.began),
  lost: (call) => call.lost_packets,
  trouble: (call) => call.trouble?.join(" ") ?? "",
  sender: (call) => call.source,
};

export function matches(call, {text, only_trouble}) {
  if (only_trouble && !has_trouble(call)) {
    return false;
  }
  return !text || [call.call_ref, call.call_uuid].some(
    (field) => field?.toLowerCase().includes(text));
}

// The calls that the filter lets through, in order. `sort` has the column, whether it is descending,
// and whether calls with trouble come first.
export function arrange(calls, filter, sort) {
  const wanted = {...filter, text: filter.text.trim().toLowerCase()};
  const keyed = [];
  for (const call of calls) {
    if (matches(call, wanted)) {
      const key = COLUMNS[sort.column](call);
      // A call without a known beginning has no place among numbers.
      keyed.push({call, key: Number.isNaN(key) ? 0 : key,
                  group: sort.trouble_first && !has_trouble(call) ? 1 : 0});
    }
  }
  const way = sort.descending ? -1 : 1;
  keyed.sort((one, two) => one.group - two.group ||
    (one.key < two.key ? -way : one.key > two.key ? way : one.call.id - two.call.id));
  return keyed.map(({call}) => call);
}
