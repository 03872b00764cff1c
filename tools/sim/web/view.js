// The live view: draws every snapshot tarn-sim pushes on /events. The map is
// centred on the robot and zoomed so that the rest of its route stays in view.
"use strict";

let last = null;

function fmt(v, digits) { return Number(v).toFixed(digits); }

function drawMap(s) {
  const svg = $("map");
  const W = svg.clientWidth, H = svg.clientHeight;
  let reach = 1.5;
  for (const p of s.route) if (!p.passed) reach = Math.max(reach, Math.hypot(p.x - s.x, p.y - s.y));
  const scale = Math.max(8, Math.min(250, (Math.min(W, H) * 0.42) / (reach + 0.5)));
  const { sx, sy } = drawFrame(W, H, s.x, s.y, scale);

  $("trail").setAttribute("points", s.trail.map((p) => sx(p[0]) + "," + sy(p[1])).join(" "));

  const route = $("route");
  route.replaceChildren();
  s.route.forEach((p, i) => {
    if (i === 0) return;
    const q = s.route[i - 1];
    el("line", { x1: sx(q.x), y1: sy(q.y), x2: sx(p.x), y2: sy(p.y), class: "leg" + (p.passed ? " passed" : "") }, route);
  });
  s.route.forEach((p, i) => {
    const cls = "waypoint" + (p.passed ? " passed" : "") + (i === s.target ? " target" : "");
    const g = el("g", { class: cls, "data-code": p.code, transform: `translate(${sx(p.x)},${sy(p.y)})` }, route);
    el("circle", { r: i === s.target ? 9 : 7 }, g);
    el("text", { x: 11, y: -10 }, g).textContent = p.code;
  });

  const deg = (s.heading * 180) / Math.PI;
  $("robot").setAttribute("transform", `translate(${sx(s.x)},${sy(s.y)}) rotate(${-deg})`);
}

function drawPanel(s) {
  const online = $("online");
  online.textContent = s.online ? "online" : "offline";
  online.className = "badge" + (s.online ? " online" : "");
  const state = $("state");
  state.textContent = s.state_text;
  state.className = "state" + (s.state === 0 ? " working" : s.state > 0 ? " error" : "");
  $("pos").textContent = fmt(s.x, 3) + ", " + fmt(s.y, 3);
  $("heading").textContent = fmt((s.heading * 180) / Math.PI, 1);
  $("velocity").textContent = fmt(s.velocity, 1);
  $("acceleration").textContent = fmt(s.acceleration, 1);
  $("speed-limit").textContent = fmt(s.speed_limit, 0);
  $("accel-limit").textContent = fmt(s.accel_limit, 0);
  $("voltage").textContent = fmt(s.voltage, 2);
  const t = s.target >= 0 ? s.route[s.target] : null;
  $("target").textContent = t ? `${t.code} (${fmt(t.x, 2)}, ${fmt(t.y, 2)})` : "none";
  $("client").textContent = s.client || "none";
  $("sim-time").textContent = fmt(s.time, 1);
  $("paused-tag").hidden = !s.paused;
  $("pause").textContent = s.paused ? "Resume" : "Pause";

  const h = s.voltage_history.concat([[s.time, s.voltage]]);
  const t0 = h[0][0], t1 = Math.max(h[h.length - 1][0], t0 + 1);
  let lo = Math.min(...h.map((p) => p[1])), hi = Math.max(...h.map((p) => p[1]));
  if (hi - lo < 0.05) { lo -= 0.025; hi += 0.025; }
  $("battery-line").setAttribute("points",
    h.map((p) => ((p[0] - t0) / (t1 - t0)) * 300 + "," + (55 - ((p[1] - lo) / (hi - lo)) * 50)).join(" "));

  const list = $("messages");
  list.replaceChildren();
  for (const m of s.messages.slice().reverse().slice(0, 14)) {
    const li = document.createElement("li");
    li.className = m.dir;
    li.textContent = fmt(m.t, 2) + "  " + m.text;
    list.appendChild(li);
  }
}

function render(s) {
  last = s;
  drawMap(s);
  drawPanel(s);
  document.body.dataset.seq = s.seq;
}

// The controls take JSON only, which a page of another origin cannot send
// here; listening beyond loopback they also need the token tarn-sim printed
// with the view's address (?token=...), which this page passes on.
const token = new URLSearchParams(location.search).get("token");

function control(path) {
  const headers = { "Content-Type": "application/json" };
  if (token) headers["X-Tarn-Token"] = token;
  return fetch(path, { method: "POST", headers, body: "{}" });
}

$("pause").addEventListener("click", () => control(last && last.paused ? "/control/resume" : "/control/pause"));
$("inject").addEventListener("click", () => control("/control/error?code=" + $("error-code").value));
$("drop").addEventListener("click", () => control("/control/drop"));
window.addEventListener("resize", () => last && render(last));

const events = new EventSource("/events");
events.addEventListener("state", (e) => render(JSON.parse(e.data)));
events.onopen = () => { $("connection").textContent = "live"; };
events.onerror = () => { $("connection").textContent = "reconnecting…"; };
