// The fleet view: draws every snapshot tarn-fleet-view pushes on /events,
// all vehicles on one metric map (x right, y up, as VDA 5050 has it), which
// is fitted to their poses and remaining nodes.
"use strict";

const COLOURS = ["#1f6feb", "#2b8a3e", "#ae3ec9", "#e67700", "#0c8599", "#5f3dc4", "#c2255c", "#5c940d", "#1864ab", "#862e9c"];
// A vehicle without a factsheet is drawn this size (metres: length, width).
const DEFAULT_SIZE = [0.9, 0.6];

function html(name, attrs, parent, text) {
  const e = document.createElement(name);
  for (const k in attrs) e.setAttribute(k, attrs[k]);
  if (text !== undefined) e.textContent = text;
  if (parent) parent.appendChild(e);
  return e;
}

// Stable per vehicle, whatever else joins or leaves.
function colour(id) {
  let h = 0;
  for (const c of id) h = (h * 31 + c.codePointAt(0)) >>> 0;
  return COLOURS[h % COLOURS.length];
}

// The remaining route as points: from the vehicle while it is on the edge
// leaving its last node, then node after node as far as their positions are
// known; released and horizon parts apart.
function routeOf(v) {
  const placed = v.nodes.filter((n) => n.x !== null);
  const parts = { released: [], horizon: [] };
  let prev = v.pose ? [v.pose.x, v.pose.y] : null;
  for (const n of placed) {
    const p = [n.x, n.y];
    if (prev) (n.released ? parts.released : parts.horizon).push([prev, p]);
    prev = p;
  }
  return parts;
}

function draw(s) {
  const svg = $("map");
  const W = svg.clientWidth, H = svg.clientHeight;
  // Fit every pose and placed node, with a margin, at least 4 m across.
  let x0 = Infinity, x1 = -Infinity, y0 = Infinity, y1 = -Infinity;
  const take = (x, y) => { x0 = Math.min(x0, x); x1 = Math.max(x1, x); y0 = Math.min(y0, y); y1 = Math.max(y1, y); };
  for (const v of s.vehicles) {
    if (v.pose) take(v.pose.x, v.pose.y);
    for (const n of v.nodes) if (n.x !== null) take(n.x, n.y);
  }
  if (x0 > x1) { x0 = y0 = -2; x1 = y1 = 2; }
  const cx = (x0 + x1) / 2, cy = (y0 + y1) / 2;
  const span = Math.max(4, x1 - x0 + 2, ((y1 - y0 + 2) * W) / Math.max(1, H));
  const scale = W / span;
  const { sx, sy } = drawFrame(W, H, cx, cy, scale);

  const routes = $("routes"), vehicles = $("vehicles");
  routes.replaceChildren();
  vehicles.replaceChildren();
  for (const v of s.vehicles) {
    const c = colour(v.id);
    const r = el("g", { class: "route", "data-vehicle": v.id, style: `color: ${c}` }, routes);
    const parts = routeOf(v);
    for (const kind of ["released", "horizon"])
      for (const [a, b] of parts[kind])
        el("polyline", { points: `${sx(a[0])},${sy(a[1])} ${sx(b[0])},${sy(b[1])}`, stroke: c, class: kind }, r);
    for (const n of v.nodes) {
      if (n.x === null) continue;
      const g = el("g", { class: "node" + (n.released ? " released" : ""), "data-vehicle": v.id, "data-node": n.id,
                          transform: `translate(${sx(n.x)},${sy(n.y)})` }, r);
      el("circle", { r: 5, stroke: c }, g);
      el("text", { x: 7, y: -6 }, g).textContent = n.id;
    }
    if (!v.pose) continue;
    const state = v.connection === "CONNECTIONBROKEN" ? " broken" : v.connection === "OFFLINE" ? " offline" : "";
    const g = el("g", { class: "vehicle" + state, "data-id": v.id, "data-connection": v.connection,
                        "data-x": v.pose.x, "data-y": v.pose.y, "data-nodes": v.nodes.length,
                        transform: `translate(${sx(v.pose.x)},${sy(v.pose.y)})` }, vehicles);
    const [len, wid] = (v.size || DEFAULT_SIZE).map((m) => Math.max(12, m * scale));
    const body = el("g", { transform: `rotate(${(-v.pose.theta * 180) / Math.PI})` }, g);
    el("rect", { class: "body", x: -len / 2, y: -wid / 2, width: len, height: wid, rx: 3, fill: c }, body);
    el("path", { class: "nose", d: `M ${len / 2 - 2} 0 L ${len / 2 - 10} -5 L ${len / 2 - 10} 5 Z` }, body);
    if (v.connection === "CONNECTIONBROKEN" || v.errors.length)
      el("circle", { class: "ring", r: Math.max(len, wid) / 2 + 6, stroke: c }, g);
    el("text", { x: 0, y: -Math.max(len, wid) / 2 - 10, "text-anchor": "middle" }, g).textContent = v.serial;
    const worst = v.errors.some((e) => e.level === "FATAL") ? "FATAL" : v.errors.length ? "WARNING" : "";
    const mark = v.connection === "CONNECTIONBROKEN" ? ["broken", "connection broken"]
               : v.connection === "OFFLINE" ? ["offline", "offline"]
               : worst ? [worst, `${v.errors.length} error${v.errors.length > 1 ? "s" : ""}`] : null;
    if (mark) el("text", { class: "mark " + mark[0], x: 0, y: Math.max(len, wid) / 2 + 18, "text-anchor": "middle" }, g).textContent = mark[1];
  }

}

function panel(s) {
  const n = s.vehicles.length;
  $("count").textContent = `${n} vehicle${n === 1 ? "" : "s"}`;
  $("broker").textContent = s.broker ? "connected" : "lost";
  $("broker").className = s.broker ? "" : "lost";
  const dropped = [];
  if (s.full) dropped.push(`${s.full} newcomers turned away (vehicle limit)`);
  if (s.ignored) dropped.push(`${s.ignored} messages ignored (malformed or too large)`);
  $("dropped").hidden = !dropped.length;
  $("dropped").textContent = dropped.join(" · ");
  const cards = $("cards");
  cards.replaceChildren();
  for (const v of s.vehicles) {
    const li = html("li", { class: "card", "data-id": v.id, style: `color: ${colour(v.id)}` }, cards);
    const h = html("h2", {}, li, `${v.serial} `);
    html("small", {}, h, v.manufacturer + (v.series ? " · " + v.series : ""));
    html("span", { class: "badge conn " + v.connection }, h, v.connection || "no connection state");
    const facts = [];
    if (v.orderId) facts.push(`order ${v.orderId}.${v.orderUpdateId}: ${v.nodes.length + v.cut} node(s) left` + (v.lastNodeId ? `, last ${v.lastNodeId}` : ""));
    else facts.push("no order");
    facts.push(v.driving ? "driving" : v.paused ? "paused" : "standing");
    if (v.pose) facts.push(`${v.pose.x.toFixed(2)}, ${v.pose.y.toFixed(2)} m · ${Math.round((v.pose.theta * 180) / Math.PI)}°`);
    if (v.battery !== null) facts.push(`battery ${Math.round(v.battery)} %`);
    if (v.mode) facts.push(v.mode.toLowerCase());
    html("div", { class: "facts" }, li, facts.join(" · "));
    if (v.errors.length) {
      const ul = html("ul", { class: "errors" }, li);
      for (const e of v.errors) html("li", { class: e.level }, ul, `${e.level} ${e.type}` + (e.text ? `: ${e.text}` : ""));
    }
  }
}

let last = null;
function show(s) {
  last = s;
  draw(s);
  panel(s);
}

function connect() {
  const events = new EventSource("/events");
  events.addEventListener("fleet", (e) => {
    $("link").textContent = "live";
    $("link").className = "";
    show(JSON.parse(e.data));
  });
  events.onerror = () => {
    $("link").textContent = "reconnecting…";
    $("link").className = "lost";
  };
}

window.addEventListener("resize", () => last && draw(last));
connect();
