// The table of live calls: a grid that has elements only for the rows on the screen.
import {arrange, has_trouble, seconds_now} from "./calls.js";
import {SIDES, SIDE_NAMES, count, decibels, duration, element, foreign, set_text, trouble_text,
        unseen, visible} from "./text.js";

const REORDER_MS = 1000;    // Rows do not change places more often by themselves.
const SPARE_ROWS = 4;       // Beyond each edge of the screen.
const MOST_WATCHED = 100;
const PAGE_ROWS = 10;       // Of the keys Page Up and Page Down.
const QUIETEST_DB = -60;    // The left end of a level meter.

const HEADERS = [
  ["call", "Call"], ["originator", "Originator", "caller"], ["terminator", "Terminator", "callee"],
  ["length", "Length"], ["lost", "Lost"], ["trouble", "Trouble"], ["sender", "Sender"],
];
// These are more interesting from the other end.
const FIRST_DESCENDING = new Set(["originator", "terminator", "length", "lost", "trouble"]);

export class CallTable {
  constructor(root, calls, {on_open, on_listen, on_watch}) {
    this.root = root;
    this.calls = calls;
    this.on_open = on_open;
    this.on_listen = on_listen;
    this.on_watch = on_watch;
    this.filter = {text: "", only_trouble: false};
    this.sort = {column: "length", descending: true, trouble_first: true};
    this.order = [];
    this.places = new Map();  // Of calls by id, within `order`.
    this.rows = new Map();    // Rows that have elements, by id.
    this.active_id = null;    // The row that Tab leads to.
    this.opened_id = null;
    this.listened_id = null;
    this.ordered_at = 0;
    this.watched = "";
    this.build();
  }

  build() {
    this.heads = new Map();
    const head = element("div", {role: "row", class: "row head", "aria-rowindex": 1});
    for (const [column, title, hint] of HEADERS) {
      const button = element("button", {type: "button", "data-column": column}, title);
      if (hint) {
        button.append(" ", element("small", {}, hint));
      }
      const cell = element("div", {role: "columnheader", class: "cell " + column}, button);
      button.addEventListener("click", () => this.sort_by(column));
      this.heads.set(column, cell);
      head.append(cell);
    }
    head.append(element("div", {role: "columnheader", class: "cell listen"},
                        unseen("Listen")));
    this.body = element("div", {role: "rowgroup", class: "rows"});
    this.none = element("p", {class: "none", hidden: ""});
    this.root.append(element("div", {role: "rowgroup", class: "heads"}, head), this.body);
    this.root.after(this.none);

    this.body.addEventListener("click", (event) => this.clicked(event));
    this.body.addEventListener("keydown", (event) => this.pressed(event));
    this.body.addEventListener("focusin", (event) => this.focused(event));
    // The table scrolls by itself, or with the page on a narrow screen.
    const moved = () => this.schedule();
    document.addEventListener("scroll", moved, {passive: true, capture: true});
    new ResizeObserver(moved).observe(this.root);
    window.addEventListener("resize", moved);
    this.show_sort();
  }

  sort_by(column) {
    const again = this.sort.column === column;
    this.sort.column = column;
    this.sort.descending = again ? !this.sort.descending : FIRST_DESCENDING.has(column);
    this.show_sort();
    this.reorder();
  }

  show_sort() {
    for (const [column, cell] of this.heads) {
      const chosen = column === this.sort.column;
      cell.setAttribute("aria-sort",
                        !chosen ? "none" : this.sort.descending ? "descending" : "ascending");
    }
  }

  // The calls have changed. Calls that came or went are shown soon, a new order when it is due.
  changed() {
    this.stale = true;
    this.schedule();
  }

  reorder() {
    this.stale = false;
    this.ordered_at = performance.now();
    this.order = arrange(this.calls.live.values(), this.filter, this.sort);
    this.places = new Map(this.order.map((call, place) => [call.id, place]));
    this.schedule();
  }

  reorder_if_due() {
    if (this.stale && (this.places.size === 0 ||
                       performance.now() - this.ordered_at >= REORDER_MS)) {
      this.reorder();
    }
  }

  schedule() {
    this.frame ??= requestAnimationFrame(() => {
      this.frame = null;
      this.render();
    });
  }

  // To be called twice a second.
  tick() {
    this.reorder_if_due();
    for (const [id, row] of this.rows) {
      const call = this.calls.live.get(id);
      if (call) {
        row.write_figures(call);
      }
    }
  }

  row_height() {
    return parseFloat(getComputedStyle(this.root).getPropertyValue("--row")) || 48;
  }

  // The places of the first row on the screen and of the one after the last.
  range(height) {
    const rows = this.body.getBoundingClientRect();
    const frame = this.root.getBoundingClientRect();
    const top = Math.max(0, frame.top);
    const bottom = Math.min(window.innerHeight, frame.bottom);
    const first = Math.floor((top - rows.top) / height);
    const end = Math.ceil((bottom - rows.top) / height);
    const limit = (place) => Math.min(Math.max(place, 0), this.order.length);
    return bottom <= top ? [0, 0] : [limit(first), limit(end)];
  }

  render() {
    this.reorder_if_due();
    const height = this.row_height();
    this.body.style.height = this.order.length * height + "px";
    this.root.setAttribute("aria-rowcount", this.order.length + 1);
    this.show_none();
    const [first, end] = this.range(height);
    const wanted = this.wanted_places(first, end);
    this.drop_rows(new Set(wanted.map((place) => this.order[place].id)));
    this.place_rows(wanted, height);
    this.watch(this.order.slice(first, end));
  }

  // A row with the focus stays, wherever it is, because the focus would be lost with it.
  wanted_places(first, end) {
    const from = Math.max(0, first - SPARE_ROWS);
    const until = Math.min(this.order.length, end + SPARE_ROWS);
    const wanted = [];
    for (let place = from; place < until; ++place) {
      wanted.push(place);
    }
    if (!this.places.has(this.active_id)) {
      this.active_id = this.order[0]?.id ?? null;
    }
    const active = this.places.get(this.active_id);
    if (active !== undefined && active < from) {
      wanted.unshift(active);
    } else if (active !== undefined && active >= until) {
      wanted.push(active);
    }
    return wanted;
  }

  drop_rows(wanted_ids) {
    for (const [id, row] of this.rows) {
      if (!wanted_ids.has(id)) {
        const had_focus = row.root.contains(document.activeElement);
        row.root.remove();
        this.rows.delete(id);
        // The call has ended or was filtered out; the keyboard goes on from the table.
        this.lost_focus ||= had_focus;
      }
    }
  }

  // Brings the elements into the order of the table, because screen readers read in that order. The
  // element with the focus is not moved, because that would take the focus away.
  place_rows(wanted, height) {
    let next = this.body.firstChild;
    for (const place of wanted) {
      const call = this.order[place];
      const row = this.rows.get(call.id) ?? this.make_row(call);
      if (row.root.contains(document.activeElement)) {
        while (next !== row.root) {
          const after = next.nextSibling;
          this.body.append(next);
          next = after;
        }
      }
      if (row.root === next) {
        next = next.nextSibling;
      } else {
        this.body.insertBefore(row.root, next);
      }
      row.root.style.transform = `translateY(${place * height}px)`;
      row.root.setAttribute("aria-rowindex", place + 2);
      row.root.tabIndex = call.id === this.active_id ? 0 : -1;
      row.show(call, this);
    }
    if (this.lost_focus) {
      this.lost_focus = false;
      this.rows.get(this.active_id)?.root.focus({preventScroll: true});
    }
  }

  make_row(call) {
    const row = new Row(call);
    this.rows.set(call.id, row);
    return row;
  }

  show_none() {
    this.none.hidden = this.order.length > 0;
    this.root.classList.toggle("empty", this.order.length === 0);
    set_text(this.none, this.calls.live.size === 0 ? "No calls at the moment."
                                                   : "No live call matches the filter.");
  }

  watch(calls) {
    const ids = document.hidden ? [] : calls.slice(0, MOST_WATCHED).map((call) => call.id);
    const text = ids.join();
    if (text !== this.watched) {
      this.watched = text;
      this.on_watch(ids);
    }
  }

  show_levels(ids) {
    for (const id of ids) {
      this.rows.get(id)?.show_levels(this.calls.live.get(id));
    }
  }

  mark({opened_id = this.opened_id, listened_id = this.listened_id}) {
    this.opened_id = opened_id;
    this.listened_id = listened_id;
    this.schedule();
  }

  focus(id) {
    this.active_id = this.places.has(id) ? id : this.active_id;
    this.go_to(this.places.get(this.active_id) ?? 0);
  }

  // Keyboard and mouse.

  id_of(event) {
    const row = event.target.closest(".row");
    return row ? Number(row.dataset.id) : null;
  }

  clicked(event) {
    const id = this.id_of(event);
    if (id !== null) {
      event.target.closest("button") ? this.on_listen(id) : this.on_open(id);
    }
  }

  focused(event) {
    this.active_id = this.id_of(event);
    this.schedule();
  }

  pressed(event) {
    const id = this.id_of(event);
    if (id === null || event.ctrlKey || event.altKey || event.metaKey) {
      return;
    }
    const place = this.places.get(id) ?? 0;
    const row = this.rows.get(id);
    const keys = {
      ArrowDown: () => this.go_to(place + 1),
      ArrowUp: () => this.go_to(place - 1),
      PageDown: () => this.go_to(place + PAGE_ROWS),
      PageUp: () => this.go_to(place - PAGE_ROWS),
      Home: () => this.go_to(0),
      End: () => this.go_to(this.order.length - 1),
      ArrowRight: () => row.button.focus(),
      ArrowLeft: () => row.root.focus(),
      l: () => this.on_listen(id),
      Enter: () => this.on_open(id),
      " ": () => this.on_open(id),
    };
    const key = event.key.length === 1 ? event.key.toLowerCase() : event.key;
    const action = keys[key];
    // The button has these two for itself.
    if (action && (event.target === row.root || (key !== "Enter" && key !== " "))) {
      event.preventDefault();
      action();
    }
  }

  go_to(place) {
    const call = this.order[Math.min(Math.max(place, 0), this.order.length - 1)];
    if (call) {
      this.active_id = call.id;
      this.render();
      const row = this.rows.get(call.id).root;
      row.focus({preventScroll: true});
      row.scrollIntoView({block: "nearest"});
    }
  }
}

class Row {
  constructor(call) {
    this.name = foreign(call.call_ref ?? "", {class: "name"});
    this.uuid = element("span", {class: "uuid"});
    this.meters = Object.fromEntries(SIDES.map((side) => [side, new Meter(side)]));
    this.length = element("span");
    this.lost = element("span");
    this.trouble = element("span");
    this.sender = element("span");
    this.button = element("button", {type: "button", class: "play", tabindex: -1});
    const cell = (name, ...children) =>
      element("div", {role: "gridcell", class: "cell " + name}, ...children);
    this.root = element(
      "div", {role: "row", class: "row", "data-id": call.id},
      cell("call", this.name, this.uuid),
      ...SIDES.map((side) => cell(side, this.meters[side].root)),
      cell("length", this.length), cell("lost", this.lost), cell("trouble", this.trouble),
      cell("sender", this.sender), cell("listen", this.button));
  }

  show(call, {opened_id, listened_id}) {
    const name = call.call_ref ? visible(call.call_ref) : "(no reference)";
    set_text(this.name, name);
    set_text(this.uuid, visible(call.call_uuid));
    this.name.title = name.slice(0, 500);
    this.name.classList.toggle("absent", !call.call_ref);
    this.trouble.title = trouble_text(call);
    set_text(this.trouble, this.trouble.title);
    this.root.classList.toggle("trouble", has_trouble(call));
    this.root.classList.toggle("ending", call.ending === true);
    set_text(this.sender, visible(call.source));
    this.root.setAttribute("aria-selected", call.id === opened_id);
    const listening = call.id === listened_id;
    this.button.classList.toggle("on", listening);
    this.button.setAttribute("aria-label", (listening ? "Stop listening to " : "Listen to ") +
                                           name.slice(0, 80));
    this.button.title = listening ? "Stop listening" : "Listen to both sides";
    if (!this.shown) {
      this.shown = true;
      this.write_figures(call);
    }
    this.show_levels(call);
  }

  show_levels(call) {
    for (const side of SIDES) {
      this.meters[side].show(call.levels[side], call.active[side]);
    }
  }

  write_figures(call) {
    set_text(this.length, duration(seconds_now(call)));
    set_text(this.lost, count(call.lost_packets));
    this.lost.classList.toggle("some", call.lost_packets > 0);
    for (const side of SIDES) {
      this.meters[side].write();
    }
  }
}

// A level as a bar, with a dot that is lit while the side is active, and in words.
export class Meter {
  constructor(side) {
    this.known = false;
    this.loudest = null;  // Since the words were written.
    this.active = false;
    this.cover = element("span", {class: "cover"});
    this.words = element("span", {class: "db"});
    this.talks = unseen("");
    this.root = element(
      "span", {class: "meter " + side},
      unseen(SIDE_NAMES[side] + ": "),
      element("span", {class: "dot", "aria-hidden": "true"}),
      element("span", {class: "track", "aria-hidden": "true"}, this.cover), this.words, this.talks);
  }

  show(level, active) {
    if (level !== null) {
      this.loudest = Math.max(this.loudest ?? level, level);
    }
    this.known = level !== null;
    const share = Math.min(Math.max(1 - (level ?? QUIETEST_DB) / QUIETEST_DB, 0), 1);
    // The track has the colours, and the cover hides those above the level.
    this.cover.style.transform = `scaleX(${(1 - share).toFixed(3)})`;
    if (active !== this.active) {
      this.active = active;
      this.root.classList.toggle("active", active);
    }
  }

  write() {
    if (this.loudest !== null || !this.known) {
      set_text(this.words, this.known ? decibels(this.loudest) : "–");
    }
    this.loudest = null;
    set_text(this.talks, this.active ? ", active" : "");
  }
}
