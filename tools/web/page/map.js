// The metric map both pages draw on, the simulator's live view and the fleet
// map: an SVG with #grid, #scale-bar and #scale-label, x to the right and y up,
// in metres. Loaded before each page's own script, which uses these names.
"use strict";

const SVG = "http://www.w3.org/2000/svg";
const $ = (id) => document.getElementById(id);

function el(name, attrs, parent) {
  const e = document.createElementNS(SVG, name);
  for (const k in attrs) e.setAttribute(k, attrs[k]);
  if (parent) parent.appendChild(e);
  return e;
}

// 1, 2 or 5 times a power of ten: the smallest such step at least min long.
function niceStep(min) {
  const p = Math.pow(10, Math.floor(Math.log10(min)));
  for (const m of [1, 2, 5, 10]) if (m * p >= min) return m * p;
  return 10 * p;
}

// Draws the grid (a labelled line about every 70 pixels, the axes darker)
// and the scale bar of a W x H map centred on (cx, cy) metres at `scale`
// pixels a metre; returns the functions from metres to the SVG's x and y.
function drawFrame(W, H, cx, cy, scale) {
  const sx = (x) => W / 2 + (x - cx) * scale;
  const sy = (y) => H / 2 - (y - cy) * scale;
  const grid = $("grid");
  grid.replaceChildren();
  const step = niceStep(70 / scale);
  for (let gx = Math.ceil((cx - W / 2 / scale) / step) * step; gx <= cx + W / 2 / scale; gx += step) {
    el("line", { x1: sx(gx), x2: sx(gx), y1: 0, y2: H, class: Math.abs(gx) < step / 1e3 ? "axis" : "" }, grid);
    el("text", { x: sx(gx) + 3, y: H - 6 }, grid).textContent = +gx.toFixed(3) + " m";
  }
  for (let gy = Math.ceil((cy - H / 2 / scale) / step) * step; gy <= cy + H / 2 / scale; gy += step) {
    el("line", { y1: sy(gy), y2: sy(gy), x1: 0, x2: W, class: Math.abs(gy) < step / 1e3 ? "axis" : "" }, grid);
    el("text", { x: 4, y: sy(gy) - 3 }, grid).textContent = +gy.toFixed(3) + " m";
  }

  const bar = step * scale;
  $("scale-bar").setAttribute("x1", W - 24 - bar);
  $("scale-bar").setAttribute("x2", W - 24);
  $("scale-bar").setAttribute("y1", H - 28);
  $("scale-bar").setAttribute("y2", H - 28);
  $("scale-label").setAttribute("x", W - 24 - bar);
  $("scale-label").setAttribute("y", H - 36);
  $("scale-label").textContent = +step.toFixed(3) + " m";
  return { sx, sy };
}
