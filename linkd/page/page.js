// The page of kap-linkd. It asks for everything once, is told of each change by the stream "events", and asks again for
// what no change tells: round trips and counters. Whatever comes from the machine becomes text, never markup.
"use strict";

const REFRESH_MS = 5000; // between two looks at the figures
const LATEST = 50; // changes that stand below the table
const FEW = 100; // rows that are shown at first
const HOUR_US = 3600e6;

const element = (id) => document.getElementById(id);
const links = new Map(); // name -> LINK
const rows = new Map(); // name -> the row that shows it
let order = { key: "state", down: false }; // what is not well comes first
let chosen = null; // the name of the link that is looked at
let hours = 1;
let all = false; // rows are shown
let plot = null;
let refreshing = null;
let newest = 0; // the id of the last change that is known

// ---- Words

const ENDS = [[60, "s"], [60, "min"], [24, "h"], [Infinity, "d"]];

function lasted(us) {
  let value = Math.max(0, Math.round(us / 1e6));
  let rest = "";
  for (const [size, unit] of ENDS) {
    if (value < size) {
      return `${value} ${unit}${rest && value < 10 ? " " + rest : ""}`;
    }
    rest = value % size ? `${value % size} ${unit}` : "";
    value = Math.floor(value / size);
  }
  return "";
}

const since = (us) => (us > 0 ? lasted(Date.now() * 1000 - us) : "–");
const clock = (us) => new Date(us / 1000).toLocaleString(undefined, { dateStyle: "short", timeStyle: "medium" });
const micros = (us) => (us >= 10000 ? `${(us / 1000).toFixed(1)} ms` : `${us.toFixed(us < 100 ? 1 : 0)} µs`);
const spoken = (state) => (state === "gone" ? "not declared" : state);
const share = (part) => (typeof part === "number" ? `${(Math.floor(part * 1e5) / 1e3).toFixed(3)} %` : "–");
const count = (n, what) => `${n} ${what}${n === 1 ? "" : "s"}`;

function make(tag, text, properties = {}) {
  const made = document.createElement(tag);
  if (text !== undefined) {
    made.textContent = text;
  }
  for (const [name, value] of Object.entries(properties)) {
    made.setAttribute(name, value);
  }
  return made;
}

// ---- The table

const VALUES = {
  state: (link) => ["disabled", "rejected", "waiting", "enabled"].indexOf(link.state),
  rtt: (link) => (link.rtt_us ? link.rtt_us.avg : -1),
  since_us: (link) => -link.since_us,
};

function compare(a, b) {
  const value = VALUES[order.key] || ((link) => link[order.key]);
  const left = value(a);
  const right = value(b);
  const told = typeof left === "number" ? left - right : String(left).localeCompare(String(right), undefined, { numeric: true });
  return (order.down ? -told : told) || a.name.localeCompare(b.name, undefined, { numeric: true });
}

function isShown(link) {
  const words = element("words").value.trim().toLowerCase();
  const state = element("state").value;
  const text = `${link.name} ${link.port} ${link.vlan} ${link.far} ${link.reason}`.toLowerCase();
  return (!state || (state === "bad" ? link.state !== "enabled" : link.state === state)) && text.includes(words);
}

function newRow(name) {
  const row = make("tr", undefined, { role: "row" });
  const cell = (label, ...inside) => {
    const made = make("td", undefined, { role: "cell", "data-label": label });
    made.append(...inside);
    row.append(made);
    return made;
  };
  const state = make("span");
  const why = make("span", "", { class: "why" });
  const held = make("div");
  held.append(state, why);
  cell("State", held);
  const choose = make("button", name, { type: "button" });
  choose.addEventListener("click", () => look(name));
  cell("Link", choose);
  const parts = { row, state, why };
  for (const [part, label, kind] of [["port", "Port", ""], ["vlan", "VLAN", "number"], ["far", "Far end", "mac"],
    ["since", "For", "number"], ["flaps", "Lost today", "number"], ["rtt", "RTT avg", "number"]]) {
    parts[part] = make("span", "", { class: kind });
    cell(label, parts[part]);
  }
  return parts;
}

function say(part, text) {
  if (part.textContent !== text) {
    part.textContent = text;
  }
}

function fill(parts, link) {
  say(parts.state, link.state);
  parts.state.className = `state ${link.state}`;
  say(parts.why, link.reason || "");
  say(parts.port, link.port);
  say(parts.vlan, String(link.vlan));
  say(parts.far, link.far);
  say(parts.since, since(link.since_us));
  say(parts.flaps, String(link.flaps_today ?? 0));
  say(parts.rtt, link.rtt_us ? micros(link.rtt_us.avg) : "–");
  if (link.name === chosen) {
    parts.row.setAttribute("aria-current", "true");
  } else {
    parts.row.removeAttribute("aria-current");
  }
}

function showTable() {
  for (const [name, parts] of rows) {
    if (!links.has(name)) {
      parts.row.remove();
      rows.delete(name);
    }
  }
  const fitting = [...links.values()].filter(isShown).sort(compare);
  const shown = all ? fitting : fitting.slice(0, FEW);
  const seen = new Set();
  const body = element("links").tBodies[0];
  let place = body.firstElementChild;
  for (const link of shown) {
    if (!rows.has(link.name)) {
      rows.set(link.name, newRow(link.name));
    }
    const parts = rows.get(link.name);
    fill(parts, link);
    seen.add(link.name);
    if (parts.row === place) {
      place = place.nextElementSibling;
    } else {
      body.insertBefore(parts.row, place);
    }
  }
  for (const [name, parts] of rows) {
    if (!seen.has(name)) {
      parts.row.remove();
    }
  }
  element("more").hidden = shown.length === fitting.length;
  say(element("more"), `Show all ${fitting.length}`);
  showSum(fitting.length);
}

function showSum(shown) {
  const states = { enabled: 0, disabled: 0, rejected: 0, waiting: 0 };
  for (const link of links.values()) {
    states[link.state] = (states[link.state] || 0) + 1;
  }
  const bad = Object.entries(states).filter(([state, n]) => n && state !== "enabled");
  const sum = links.size === 0 ? "No link is declared."
    : bad.length === 0 ? (links.size === 1 ? "The only link is enabled." : `All ${links.size} links are enabled.`)
      : `${states.enabled} of ${count(links.size, "link")} enabled: ` + bad.map(([state, n]) => `${n} ${state}`).join(", ") + ".";
  say(element("sum"), sum);
  document.title = bad.length === 0 ? "Links" : `(${links.size - states.enabled}) Links`;
  say(element("shown"), shown === links.size ? "" : `${shown} of ${links.size} fit`);
  element("links").hidden = links.size === 0;
  element("filters").hidden = links.size === 0;
  element("none").hidden = shown !== 0;
  say(element("none"), links.size === 0
    ? "Declare links in /etc/kap-vorn/links.toml and reload, or add one with “vornctl link add”."
    : "No link fits.");
}

// ---- One link

async function ask(path) {
  const answer = await fetch(path, { cache: "no-store", signal: AbortSignal.timeout(10000) });
  if (!answer.ok) {
    throw new Error(`${answer.status} ${answer.statusText}`);
  }
  return answer.json();
}

function look(name) {
  chosen = name;
  const place = name === null ? location.pathname : `#link=${encodeURIComponent(name)}`;
  history.replaceState(null, "", place);
  element("detail").hidden = name === null;
  showTable();
  if (name !== null) {
    showDetail().then(() => {
      element("detail").focus({ preventScroll: true });
      element("detail").scrollIntoView({ block: "start" });
    });
  } else if (plot) {
    plot.destroy();
    plot = null;
  }
}

function fact(name, value, kind = "") {
  const held = make("div");
  held.append(make("dt", name), make("dd", value, kind ? { class: kind } : {}));
  return held;
}

async function showDetail() {
  const name = chosen;
  const link = links.get(name);
  if (!link) {
    element("detail").hidden = true;
    return;
  }
  const to = Date.now() * 1000;
  const from = to - hours * HOUR_US;
  const asked = encodeURIComponent(name);
  const [past, samples] = await Promise.all([
    ask(`api/history?link=${asked}&from_us=${Math.round(from)}&to_us=${Math.round(to)}&limit=1000`),
    ask(`api/samples?link=${asked}&from_us=${Math.round(from)}&to_us=${Math.round(to)}&points=600`),
  ]);
  if (name !== chosen) {
    return;
  }
  say(element("detail-head"), name);
  const available = past.availability || {};
  const lost = link.results ? `${link.lost} of ${link.results} pings` : "–";
  element("facts").replaceChildren(
    fact("State", link.reason ? `${link.state}: ${link.reason}` : link.state, `state ${link.state}`),
    fact("Since", link.since_us > 0 ? `${clock(link.since_us)} (${since(link.since_us)})` : "–"),
    fact("Port, VLAN", `${link.port}, ${link.vlan}`),
    fact("Far end", link.far, "mac"),
    fact("Near end", link.near_mac || "–", "mac"),
    fact("App links", String((link.app_links || []).length)),
    fact("Lost since it was created", lost),
    fact("Available: hour, day, 30 days", [available.hour, available.day, available.month].map(share).join(", ")),
    fact("Lost today", String(link.flaps_today ?? 0)),
    fact("Declared", link.source === "runtime" ? "at run time" : link.file || "–"),
  );
  showPlot(samples.samples || [], from, to);
  showTimeline(past.events || [], link, from, to);
  element("past").replaceChildren(...(past.events || []).slice(-LATEST).reverse().map((change) => item(change, false)));
  if (element("past").childElementCount === 0) {
    element("past").append(make("li", "Nothing in this time."));
  }
}

function sayPoint(at, [least, middle, most]) {
  say(element("plot-point"), `${clock(at * 1000)}: ` + (middle === null ? "no answer"
    : `shortest ${micros(least)}, average ${micros(middle)}, longest ${micros(most)}`));
}

const colour = (name) => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

function showPlot(samples, from, to) {
  const valid = samples.filter((sample) => sample.valid > 0);
  const words = element("plot-words");
  if (plot) {
    plot.destroy();
    plot = null;
  }
  element("plot").hidden = valid.length === 0;
  if (valid.length === 0) {
    say(words, "No round trip was measured in this time. “vornctl rtt NAME on” has them measured.");
    return;
  }
  const least = Math.min(...valid.map((sample) => sample.min_us));
  const most = Math.max(...valid.map((sample) => sample.max_us));
  const middle = valid.reduce((sum, sample) => sum + sample.avg_us, 0) / valid.length;
  say(words, `Shortest ${micros(least)}, on average ${micros(middle)}, longest ${micros(most)}; the line is the average, the band from shortest to longest.`);
  element("plot").setAttribute("aria-label", `Round trips of the last ${hours === 1 ? "hour" : "day"}`);
  if (typeof Dygraph === "undefined") {
    element("plot").hidden = true;
    return;
  }
  const points = samples.map((sample) => [new Date(sample.at_us / 1000),
    sample.valid > 0 ? [sample.min_us, sample.avg_us, sample.max_us] : [null, null, null]]);
  plot = new Dygraph(element("plot"), points, {
    labels: ["Time", "RTT"],
    customBars: true,
    colors: [colour("--plot")],
    fillAlpha: 0.25,
    strokeWidth: 1.5,
    drawPoints: valid.length < 60,
    dateWindow: [from / 1000, to / 1000],
    includeZero: true,
    highlightCallback: (_event, at, _points, row) => sayPoint(at, points[row][1]),
    unhighlightCallback: () => say(element("plot-point"), ""),
    axisLineColor: colour("--line"),
    gridLineColor: colour("--line"),
    axes: { y: { axisLabelWidth: 64, axisLabelFormatter: (us) => (us === 0 ? "0" : micros(us)), valueFormatter: micros } },
  });
}

function showTimeline(events, link, from, to) {
  const pieces = [];
  let at = from;
  let state = events.length ? events[0].from : link.state;
  if (link.since_us > from && events.length === 0) {
    at = link.since_us;
  }
  for (const change of events) {
    const until = Math.min(Math.max(change.at_us, from), to);
    pieces.push({ state, from: at, to: until });
    at = until;
    state = change.to;
  }
  pieces.push({ state, from: at, to });
  const drawn = pieces.filter((piece) => piece.to > piece.from).map((piece) => {
    const box = document.createElementNS("http://www.w3.org/2000/svg", "rect");
    box.setAttribute("class", piece.state);
    box.setAttribute("x", String(((piece.from - from) / (to - from)) * 1000));
    box.setAttribute("width", String(Math.max(((piece.to - piece.from) / (to - from)) * 1000, 1)));
    box.setAttribute("height", "24");
    const title = document.createElementNS("http://www.w3.org/2000/svg", "title");
    title.textContent = `${spoken(piece.state)} for ${lasted(piece.to - piece.from)}`;
    box.append(title);
    return box;
  });
  element("timeline").replaceChildren(...drawn);
  element("timeline").setAttribute("aria-label", `States of the last ${hours === 1 ? "hour" : "day"}`);
  say(element("scale-from"), hours === 1 ? "an hour ago" : "a day ago");
  const sums = new Map();
  for (const piece of pieces) {
    sums.set(piece.state, (sums.get(piece.state) || 0) + piece.to - piece.from);
  }
  say(element("timeline-words"), [...sums].filter(([, sum]) => sum > 0).map(([name, sum]) => `${spoken(name)} for ${lasted(sum)}`).join(", ") + ".");
}

// ---- Changes

function item(change, withName) {
  const made = make("li");
  const state = make("span", change.to, { class: `state ${change.to}` });
  made.append(make("time", clock(change.at_us), { datetime: new Date(change.at_us / 1000).toISOString() }));
  if (withName) {
    made.append(make("span", change.link));
  }
  made.append(state, make("span", change.reason || ""), make("span", change.from === "gone" ? "taken up" : `after ${lasted(change.lasted_us)} ${change.from}`, { class: "why" }));
  return made;
}

function showEvent(change) {
  const list = element("events");
  list.prepend(item(change, true));
  element("no-events").hidden = true;
  while (list.childElementCount > LATEST) {
    list.lastElementChild.remove();
  }
}

function changed(change) {
  const link = links.get(change.link);
  if (change.to === "gone") {
    links.delete(change.link);
  } else if (link) {
    Object.assign(link, { state: change.to, reason: change.reason, since_us: change.at_us });
  }
  showEvent(change);
  if (!link) {
    refreshSoon(100);
  } else {
    refreshSoon(500);
  }
  showTable();
}

// ---- To and from the machine

function trouble(text) {
  element("trouble").hidden = text === "";
  say(element("trouble"), text);
}

function refreshSoon(ms) {
  if (refreshing === null) {
    refreshing = setTimeout(refresh, ms);
  }
}

async function refresh() {
  clearTimeout(refreshing);
  refreshing = null;
  try {
    const told = await ask("api/links");
    links.clear();
    for (const link of told.links) {
      links.set(link.name, link);
    }
    say(element("host"), told.host || "this machine");
    showTable();
    if (chosen !== null) {
      await showDetail();
    }
    trouble("");
  } catch (error) {
    trouble(`kap-linkd does not answer (${error.message}). What is shown is old; it is asked again.`);
  }
  refreshSoon(document.hidden ? 6 * REFRESH_MS : REFRESH_MS);
}

function listen() {
  const stream = new EventSource(`events?since=${newest}`);
  stream.addEventListener("change", (event) => {
    newest = Number(event.lastEventId);
    changed(JSON.parse(event.data));
  });
  stream.addEventListener("open", () => refreshSoon(0));
  stream.addEventListener("error", () => {
    trouble("The stream of changes is cut. What is shown may be old; it is tried again.");
    if (stream.readyState === EventSource.CLOSED) {
      setTimeout(listen, 3000);
    }
  });
}

async function begin() {
  if (typeof Dygraph !== "undefined") {
    // The chart's own legend has styles inside its markup, which the page's policy does not let in.
    Dygraph.PLUGINS = Dygraph.PLUGINS.filter((plugin) => plugin !== Dygraph.Plugins.Legend);
  }
  for (const input of [element("words"), element("state")]) {
    input.addEventListener("input", showTable);
  }
  element("more").addEventListener("click", () => {
    all = true;
    showTable();
  });
  element("filters").addEventListener("submit", (event) => event.preventDefault());
  element("close").addEventListener("click", () => {
    const name = chosen;
    look(null);
    rows.get(name)?.row.querySelector("button").focus();
  });
  document.addEventListener("keydown", (event) => {
    if (event.key === "Escape" && chosen !== null) {
      element("close").click();
    }
  });
  for (const button of document.querySelectorAll("th button")) {
    button.addEventListener("click", () => {
      order = { key: button.dataset.key, down: order.key === button.dataset.key && !order.down };
      for (const head of document.querySelectorAll("th[aria-sort]")) {
        head.setAttribute("aria-sort", head.contains(button) ? (order.down ? "descending" : "ascending") : "none");
      }
      showTable();
    });
  }
  for (const button of document.querySelectorAll(".ranges button")) {
    button.addEventListener("click", () => {
      hours = Number(button.dataset.hours);
      for (const other of document.querySelectorAll(".ranges button")) {
        other.setAttribute("aria-pressed", String(other === button));
      }
      showDetail().catch((error) => trouble(error.message));
    });
  }
  matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => chosen !== null && showDetail());
  const asked = /^#link=(.+)$/.exec(location.hash);
  await refresh();
  try {
    const past = await ask(`api/events?latest=${LATEST}`);
    past.events.forEach(showEvent);
    newest = Math.max(0, ...past.events.map((change) => change.id));
  } catch (error) {
    trouble(error.message);
  }
  if (asked && links.has(decodeURIComponent(asked[1]))) {
    look(decodeURIComponent(asked[1]));
  }
  listen();
}

begin();
