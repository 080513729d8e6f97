// Calls that have ended: their list, and one of them with its files and its picture.
import {SideTable, facts, opened_head} from "./call.js";
import {matches} from "./calls.js";
import {bytes, clock, count, counted, date_and_clock, duration, element, foreign, set_text,
        trouble_text, unseen, visible} from "./text.js";

const AUDIO_KINDS = ["wav", "flac", "opus"];

const key_of = (call) => call.call_uuid + call.ended;

export class EndedList {
  constructor(root, calls, on_open) {
    this.root = root;
    this.calls = calls;
    this.on_open = on_open;
    this.filter = {text: "", only_trouble: false};
    this.opened_id = null;
    this.rows = new Map();
    this.body = element("tbody");
    this.none = element("p", {class: "none"});
    const head = ["Call", "Ended", "Length", "Lost", "Files", "Reason"].map((title) =>
      element("th", {scope: "col", class: title.toLowerCase()}, title));
    this.table = element("table", {class: "ended_table"},
                         element("thead", {}, element("tr", {}, ...head)), this.body);
    this.root.append(this.table, this.none);
  }

  render() {
    const wanted = {...this.filter, text: this.filter.text.trim().toLowerCase()};
    const shown = this.calls.ended.filter((call) => matches(call, wanted));
    // A node that was started again gives the same ids to other calls.
    const keys = new Map(shown.map((call) => [call.id, key_of(call)]));
    for (const [id, row] of this.rows) {
      if (keys.get(id) !== row.dataset.key) {
        row.remove();
        this.rows.delete(id);
      }
    }
    let next = this.body.firstChild;
    for (const call of shown) {
      const row = this.rows.get(call.id) ?? this.make_row(call);
      row.classList.toggle("opened_row", call.id === this.opened_id);
      if (row === next) {
        next = next.nextSibling;
      } else {
        this.body.insertBefore(row, next);
      }
    }
    this.table.hidden = shown.length === 0;
    this.none.hidden = shown.length > 0;
    set_text(this.none, this.calls.ended.length ? "No ended call matches the filter."
                                                : "No call has ended yet.");
  }

  make_row(call) {
    const button = element("button", {type: "button", class: "name"},
                           call.call_ref ? foreign(call.call_ref) : "(no reference)");
    const cell = (name, ...children) => element("td", {class: name}, ...children);
    const row = element(
      "tr", {"data-key": key_of(call)},
      cell("call", button, element("span", {class: "uuid"}, visible(call.call_uuid))),
      cell("ended", clock(call.ended)), cell("length", duration(call.seconds)),
      cell("lost" + (call.lost_packets ? " some" : ""), count(call.lost_packets)),
      cell("files", count(call.files?.length)), cell("reason", visible(call.reason ?? "")));
    row.addEventListener("click", () => this.on_open(call.id));
    this.rows.set(call.id, row);
    return row;
  }

  focus(id) {
    this.rows.get(id)?.querySelector("button").focus();
  }
}

// Shows an ended call in `root`.
export function show_ended(root, call, on_close) {
  const address = (file) => `/api/calls/${encodeURIComponent(call.call_uuid)}/files/` +
                            encodeURIComponent(file.name);
  const files = call.files ?? [];
  const trouble = trouble_text(call);
  const figures = new SideTable();
  figures.show(call);
  root.replaceChildren(
    opened_head(call.call_ref, call.call_uuid, on_close),
    element("p", {class: "opened_state ended_state"}, `Ended at ${clock(call.ended)}` +
      (call.reason ? ` (${visible(call.reason)})` : "") + `, after ${duration(call.seconds)}`),
    element("p", {class: "trouble_line", hidden: trouble ? null : ""}, "Trouble: " + trouble),
    ...files.filter((file) => file.kind === "timeline").map((file) =>
      timeline(call, address(file))),
    element("h3", {}, "Files"),
    files.length ? element("ul", {class: "files"}, ...files.map((file) =>
      file_entry(file, address(file))))
                 : element("p", {class: "none"}, "This call has no files."),
    element("h3", {}, "Sides"), figures.root,
    element("h3", {}, "Call"),
    facts([["Sender", visible(call.source ?? "")], ["Began", date_and_clock(call.began)],
           ["Ended", date_and_clock(call.ended)]]));
}

function timeline(call, address) {
  const picture = element("img", {
    src: address, class: "timeline",
    alt: `Timeline of the call: ${duration(call.seconds)}, ` +
         `${counted(call.lost_packets ?? 0, "lost packet")}`});
  return element("a", {href: address}, picture);
}

function file_entry(file, address) {
  const is_audio = AUDIO_KINDS.includes(file.kind);
  const side = !is_audio ? file.kind : file.call_side === "both" ? "both sides" : file.call_side;
  const name = foreign(file.name, {class: "file_name"});
  const download = element("a", {href: address, download: file.name, class: "download"},
                           "Download", unseen(" " + visible(file.name)));
  const entry = element("li", {},
                        element("div", {class: "file_head"},
                                element("strong", {}, side), name,
                                element("span", {class: "size"}, bytes(file.bytes)), download));
  if (is_audio) {
    entry.append(element("audio", {controls: "", preload: "none", src: address,
                                   "aria-label": side}));
  }
  return entry;
}
