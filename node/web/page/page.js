// The page of the media node: brings together the connection, the calls, the table, the opened call
// and the player.
import {OpenedCall} from "./call.js";
import {Calls} from "./calls.js";
import {EndedList, show_ended} from "./ended.js";
import {Listener} from "./listen.js";
import {Live} from "./live.js";
import {CallTable} from "./table.js";
import {SIDE_NAMES, count, counted, set_text, visible} from "./text.js";

const TICK_MS = 500;
const NEWS_MS = 1200;  // Of several news, screen readers hear the last.

const by_id = (id) => document.getElementById(id);
const calls = new Calls();
let opened = null;       // The live call that is shown.
let opened_id = null;    // The call that is shown, live or ended.
let opened_uuid = null;
let retry_at = null;
let was_connected = false;
let news_timer = null;

function tell(words) {
  clearTimeout(news_timer);
  news_timer = setTimeout(() => set_text(by_id("news"), words), NEWS_MS);
}

const live = new Live({
  on_message: receive,
  on_audio: (data) => listener.take(data),
  on_state: show_connection,
});
const listener = new Listener({send: (message) => live.send(message), on_change: show_listening});
const table = new CallTable(by_id("table"), calls, {
  on_open: open_live,
  on_listen: (id) => toggle_listening(id),
  on_watch: () => watch(),
});
const ended = new EndedList(by_id("ended_scroll"), calls, open_ended);

// What the node sends.

function receive(message) {
  const actions = {hello: greet, calls: update_calls, levels: show_levels, detail: show_wave,
                   wave: show_wave,
                   listening: ({call, sides}) => listener.confirm(call, sides),
                   stopped: ({call, reason}) => listener.stopped(call, reason),
                   error: ({error}) => console.warn("the media node: " + error)};
  actions[message.type]?.(message);
}

function greet({version, node, login}) {
  set_text(by_id("node"), [node, version].filter(Boolean).map(visible).join(" · "));
  by_id("logout").hidden = !login;
  // A new connection knows nothing of what is watched.
  table.watched = "";
  table.schedule();
}

function update_calls(message) {
  calls.update(message);
  if (message.reset) {
    table.reorder();
    open_again();
  }
  table.changed();
  if (message.reset || message.finished?.length) {
    ended.render();
  }
  show_counts();
  follow_opened();
}

// Shows what was open when the connection was lost. A node that was started again gives the same
// ids to other calls.
function open_again() {
  if (opened_uuid === null) {
    return;
  }
  const all = [...(opened ? calls.live.values() : []), ...calls.ended];
  const id = all.find((call) => call.call_uuid === opened_uuid)?.id;
  const take_focus = by_id("opened").contains(document.activeElement);
  opened_id = null;
  if (id === undefined) {
    close_opened();
  } else if (calls.live.has(id)) {
    open_live(id, take_focus);
  } else if (opened !== null) {
    open_ended(id, take_focus);
  } else {
    // It stays as it is, because somebody may play one of its files.
    opened_id = ended.opened_id = id;
  }
}

// The opened call has news, or has ended.
function follow_opened() {
  if (opened === null) {
    return;
  }
  const call = calls.live.get(opened_id);
  if (call) {
    opened.show(call);
    return;
  }
  const finished = calls.ended.find((one) => one.id === opened_id);
  if (finished) {
    const focus_inside = by_id("opened").contains(document.activeElement);
    open_ended(opened_id, focus_inside);
    tell("The opened call has ended.");
  }
}

function show_levels({rows}) {
  const ids = calls.update_levels(rows);
  table.show_levels(ids);
  if (opened !== null && ids.includes(opened_id)) {
    opened.show_levels(calls.live.get(opened_id));
  }
}

function show_wave(message) {
  if (opened !== null && message.call === opened_id) {
    opened.take(message);
  }
}

function watch() {
  const ids = table.watched ? table.watched.split(",").map(Number) : [];
  if (opened !== null && !ids.includes(opened_id)) {
    ids.unshift(opened_id);
  }
  live.send({type: "watch", calls: ids.slice(0, 100)});
}

// What the user does.

function open_live(id, take_focus = true) {
  const call = calls.live.get(id);
  if (!call || (opened !== null && opened_id === id)) {
    return;
  }
  opened?.close();
  by_id("opened").hidden = false;
  opened_id = id;
  opened_uuid = call.call_uuid;
  opened = new OpenedCall(by_id("opened"), call, {
    on_listen: (sides) => sides === null ? listener.stop() : listen(id, sides),
    on_close: close_opened,
  });
  opened.show_listening(listener.call?.id === id ? listener.sides : null);
  after_opening(take_focus);
  live.send({type: "open", call: id});
  watch();
}

function open_ended(id, take_focus = true) {
  const call = calls.ended.find((one) => one.id === id);
  if (!call) {
    return;
  }
  opened?.close();
  const was_live = opened !== null;
  opened = null;
  opened_id = id;
  opened_uuid = call.call_uuid;
  by_id("opened").hidden = false;
  show_ended(by_id("opened"), call, close_opened);
  after_opening(take_focus);
  if (was_live) {
    live.send({type: "open", call: null});
  }
}

function after_opening(take_focus = true) {
  document.body.classList.add("with_opened");
  table.mark({opened_id});
  ended.opened_id = opened_id;
  ended.render();
  if (take_focus) {
    by_id("opened").scrollTop = 0;
    by_id("opened_title").focus({preventScroll: true});
    // Beside the lists it is in sight anyway.
    if (by_id("opened").getBoundingClientRect().left < by_id("live").getBoundingClientRect().right) {
      by_id("opened").scrollIntoView();
    }
  }
}

function close_opened() {
  const id = opened_id;
  opened?.close();
  if (opened !== null) {
    live.send({type: "open", call: null});
  }
  opened = null;
  opened_id = opened_uuid = null;
  by_id("opened").hidden = true;
  by_id("opened").replaceChildren();
  document.body.classList.remove("with_opened");
  table.mark({opened_id: null});
  ended.opened_id = null;
  ended.render();
  calls.live.has(id) ? table.focus(id) : ended.focus(id);
}

function toggle_listening(id) {
  listener.call?.id === id ? listener.stop() : listen(id, "both");
}

function listen(id, sides) {
  const call = calls.live.get(id);
  if (call) {
    listener.start(call, sides);
  }
}

function filter_changed() {
  const filter = {text: by_id("filter").value, only_trouble: by_id("only_trouble").checked};
  table.filter = filter;
  ended.filter = filter;
  table.sort.trouble_first = by_id("trouble_first").checked;
  table.reorder();
  ended.render();
  show_counts();
  tell(`${counted(table.order.length, "live call")} shown.`);
}

// What the page says.

function show_counts() {
  const trouble = calls.with_trouble();
  const shown = table.order.length;
  const filtered = by_id("filter").value.trim() !== "" || by_id("only_trouble").checked;
  set_text(by_id("live_count"), count(calls.live.size) +
           (trouble ? `, ${count(trouble)} with trouble` : "") +
           (filtered ? `, ${count(shown)} shown` : ""));
  by_id("live_count").classList.toggle("some", trouble > 0);
  set_text(by_id("ended_count"), count(calls.ended.length));
  document.title = `${counted(calls.live.size, "call")} – quorvane`;
}

function show_connection(state) {
  retry_at = state.connected ? null : state.retry_at;
  by_id("connection").dataset.state = state.connected ? "connected" : "lost";
  by_id("retry").hidden = state.connected;
  document.body.classList.toggle("lost", !state.connected);
  if (state.connected) {
    set_text(by_id("connection_text"), "Connected");
  } else {
    listener.stopped(undefined, "connection lost");
    show_retry();
  }
  if (state.connected !== was_connected) {
    was_connected = state.connected;
    tell(state.connected ? "Connected to the media node."
                         : "Connection to the media node lost. The page tries again.");
  }
}

function show_retry() {
  if (retry_at !== null) {
    const seconds = Math.ceil(Math.max(0, retry_at - Date.now()) / 1000);
    set_text(by_id("connection_text"), seconds > 0 ? `Connection lost. Next attempt in ${seconds} s.`
                                                   : "Connection lost. Trying again…");
  }
}

function show_listening({call, sides, delay_ms, error, reason}) {
  const was_hidden = by_id("player").hidden;
  const id = call?.id ?? null;
  by_id("player").hidden = call === null && !error && !reason;
  document.body.classList.toggle("listening", !by_id("player").hidden);
  if (table.listened_id !== id) {
    table.mark({listened_id: id});
  }
  opened?.show_listening(id === opened_id ? sides : null);
  by_id("player").classList.toggle("over", call === null);
  if (call) {
    const what = sides === "both" ? "both sides" : SIDE_NAMES[sides];
    set_text(by_id("player_text"), `${visible(call.call_ref || call.call_uuid)}, ${what}`);
    set_text(by_id("delay"), delay_ms === null ? "–" : `${Math.round(delay_ms / 10) * 10} ms`);
    set_text(by_id("player_stop"), "Stop");
    if (was_hidden) {
      tell("Listening. Escape stops.");
    }
  } else {
    const why = reason === "ended" ? "the call is over" : visible(reason ?? "");
    set_text(by_id("player_text"), error ?? `Listening has ended: ${why}.`);
    set_text(by_id("delay"), "–");
    set_text(by_id("player_stop"), "Close");
    if (!was_hidden || error) {
      tell(error ?? "Listening has ended.");
    }
  }
}

// Wiring.

for (const id of ["filter", "only_trouble", "trouble_first"]) {
  by_id(id).addEventListener("input", filter_changed);
}
by_id("retry").addEventListener("click", () => live.retry_now());
by_id("player_stop").addEventListener("click", () => {
  listener.stop();
  by_id("player").hidden = true;
  document.body.classList.remove("listening");
});
by_id("volume").addEventListener("input", ({target}) => {
  listener.set_volume((target.value / 100) ** 2);
});
document.addEventListener("keydown", (event) => {
  if (event.key === "Escape" && !event.defaultPrevented && event.target.type !== "search") {
    if (listener.call) {
      listener.stop();
    } else if (opened_id !== null) {
      close_opened();
    }
  }
});
// At once, because a page that nobody sees draws no more frames.
document.addEventListener("visibilitychange", () => table.render());
setInterval(() => {
  if (!document.hidden) {
    table.tick();
    opened?.tick();
  }
  show_retry();
}, TICK_MS);

show_counts();
ended.render();
table.schedule();
live.connect();
