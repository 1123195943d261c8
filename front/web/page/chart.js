// SPDX-License-Identifier: Apache-2.0
// Charts drawn by hand: an hour of stacked areas, and bars.
import { svg, el, number } from "./dom.js";

const height = 190, left = 44, right = 8, top = 10, bottom = 22;
export const isNarrow = () => window.innerWidth < 620;

function niceTop(value) {
  if (value <= 4) return 4;
  const power = 10 ** Math.floor(Math.log10(value));
  return [1, 2, 4, 5, 10].map((m) => m * power).find((m) => m >= value);
}

// buckets: {start, counts: {name: number}}; names: in the order of the stack; step: seconds. Answers a new drawing.
export function areas(buckets, names, step, now, title) {
  const width = isNarrow() ? 330 : 560;
  const span = 3600;
  const wide = 30;  // seconds of a step in the drawing
  const from = Math.floor(now / wide) * wide + wide - span;
  const points = span / wide;
  const sums = Array.from({ length: points }, () => new Array(names.length).fill(0));
  for (const b of buckets) {
    const at = Math.floor((b.start - from) / wide);
    if (at < 0 || at >= points) continue;
    names.forEach((name, i) => { sums[at][i] += b.counts[name] || 0; });
  }
  const totals = sums.map((row) => row.reduce((a, b) => a + b, 0));
  const most = niceTop(Math.max(...totals, 1));
  const x = (i) => left + (i / points) * (width - left - right);
  const y = (v) => top + (1 - v / most) * (height - top - bottom);
  const chart = svg("svg", { class: "chart", viewBox: `0 0 ${width} ${height}`, role: "img", "aria-label": title });
  for (const part of [0, 0.5, 1]) {
    const line = y(most * part);
    chart.append(svg("line", { class: "gridline", x1: left, x2: width - right, y1: line, y2: line }),
      svg("text", { x: left - 8, y: line + 4, "text-anchor": "end" }, number(most * part)));
  }
  for (const minutes of isNarrow() ? [60, 30, 0] : [60, 45, 30, 15, 0]) {
    const at = left + (1 - minutes / 60) * (width - left - right);
    chart.append(svg("text", { x: at, y: height - 5, "text-anchor": minutes === 0 ? "end" : minutes === 60 ? "start" : "middle" },
      minutes === 0 ? "now" : `−${minutes} min`));
  }
  const base = new Array(points).fill(0);
  names.forEach((name, i) => {
    const upper = base.map((b, at) => b + sums[at][i]);
    if (upper.every((u, at) => u === base[at])) return;
    const steps = (values) => values.flatMap((v, at) => [`${x(at).toFixed(1)},${y(v).toFixed(1)}`, `${x(at + 1).toFixed(1)},${y(v).toFixed(1)}`]);
    const there = steps(upper);
    const back = steps(base).reverse();
    chart.append(svg("polygon", { class: `s${i % 8 + 1}`, points: [...there, ...back].join(" ") }));
    upper.forEach((u, at) => { base[at] = u; });
  });
  return chart;
}

export function legend(names, counts) {
  return el("ul", { class: "legend" }, names.map((name, i) =>
    el("li", {}, el("span", { class: `swatch s${i % 8 + 1}` }), name, el("b", {}, number(counts[name])))));
}

export function bar(part, of) {
  const share = of > 0 ? Math.max(0.5, 100 * part / of) : 0;
  return el("div", { class: "bar", "aria-hidden": "true" },
    svg("svg", { viewBox: "0 0 100 10", preserveAspectRatio: "none" }, svg("rect", { class: "s1", width: share, height: 10 })));
}
