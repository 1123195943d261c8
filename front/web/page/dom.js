// SPDX-License-Identifier: Apache-2.0
// Elements without markup in texts: what the relay says is only ever text here.
const svgSpace = "http://www.w3.org/2000/svg";

function fill(node, attributes, children) {
  for (const [name, value] of Object.entries(attributes || {})) {
    if (value === undefined || value === null || value === false) continue;
    if (name.startsWith("on")) node.addEventListener(name.slice(2), value);
    else if (name === "value" && "value" in node) node.value = value;
    else node.setAttribute(name, value === true ? "" : value);
  }
  for (const child of children.flat(3))
    if (child !== null && child !== undefined && child !== false) node.append(child);
  return node;
}

export const el = (name, attributes, ...children) => fill(document.createElement(name), attributes, children);
export const svg = (name, attributes, ...children) => fill(document.createElementNS(svgSpace, name), attributes, children);

export const number = (value) => Math.round(value || 0).toLocaleString("en-US").replace(/,/g, "\u202f");
export const card = (size, title, ...content) =>
  el("section", { class: `card ${size}` }, title ? el("h2", {}, title) : null, content);
export const empty = (text) => el("p", { class: "empty" }, text);
export const tag = (text) => el("span", { class: "tag plain mono" }, text);

// rows: arrays of cells, each a text, a node, or {node, class}. On a phone each row becomes a small list.
export function table(head, rows, caption) {
  const cellOf = (cell, at) => {
    const wrapped = cell && cell.node !== undefined ? cell : { node: cell };
    return el("td", { class: [head[at].class, wrapped.class].filter(Boolean).join(" ") || null, "data-name": head[at].name },
      el("span", {}, wrapped.node));
  };
  return el("div", { class: "scroll" },
    el("table", { class: "stack" },
      caption ? el("caption", {}, caption) : null,
      el("thead", {}, el("tr", {}, head.map((h) => el("th", { scope: "col", class: h.class }, h.name)))),
      el("tbody", {}, rows.map((row) => el("tr", {}, row.map(cellOf))))));
}

export const time = (text) => {
  const at = new Date(text);
  return Number.isNaN(at.getTime()) ? text : at.toLocaleTimeString("en-GB") + "." + String(at.getMilliseconds()).padStart(3, "0");
};

export function duration(seconds) {
  if (seconds < 90) return `${Math.round(seconds)} s`;
  if (seconds < 5400) return `${Math.round(seconds / 60)} min`;
  return `${Math.round(seconds / 3600)} h`;
}

// What happened, for eyes and screen readers; gone after a while.
export function say(text, bad) {
  const line = el("p", { class: bad ? "bad" : null }, text);
  const place = document.getElementById("says");
  place.append(line);
  setTimeout(() => line.remove(), bad ? 8000 : 4000);
}

// Asks before something is taken away. Resolves to true for a yes.
export function confirmed(title, text, yes) {
  const dialog = document.getElementById("ask");
  document.getElementById("ask-title").textContent = title;
  document.getElementById("ask-text").textContent = text;
  document.getElementById("ask-yes").textContent = yes;
  dialog.returnValue = "no";
  dialog.showModal();
  return new Promise((resolve) => dialog.addEventListener("close", () => resolve(dialog.returnValue === "yes"), { once: true }));
}
