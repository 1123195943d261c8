// SPDX-License-Identifier: Apache-2.0
// Clients: who asked, what became of it, and the road of each message.
import { el, svg, card, table, empty, number, time } from "./dom.js";
import { get, faultText } from "./api.js";
import { isNarrow } from "./chart.js";

const atPort = ["truncated", "fragment", "bad-ip-checksum", "bad-udp-checksum", "unknown-port", "port-limit", "bridge-refused", "port-held",
  "core-assertion", "guard-server-port", "guard-server", "guard-circuit-id", "guard-relay-fields", "guard-source-mac", "guard-destination", "guard-clients",
  "guard-transaction"];
const good = ["relayed", "delivered", "rebroadcast"];

const outcome = (m) => el("span", { class: good.includes(m.outcome) ? "good" : m.outcome === "already-answered" ? "soft" : "bad", title: m.outcome }, m.reason || m.outcome);

// The stops of a message, in the order in which it comes by them, and the place of the one where it ended.
export function stopsOf(client, m) {
  const request = m.op !== "reply";
  const own = m.option82 && m.option82.vlan !== undefined && !request ? m.option82.vlan : m.vlan;
  const vlan = own ? `VLAN ${own}` : "no VLAN";
  const ends = [["Client", client], ["Port", m.port || "unknown"], ["VLAN", vlan], ["Relay", "ravo"]];
  const servers = m.servers && m.servers.length ? m.servers.join(", ") : "a server";
  const stops = request ? [...ends, ["Server", servers]] : [["Server", m.server || "a server"], ["Port", m.port || "uplink"], ["Relay", "ravo"], ["VLAN", vlan], ["Client", client]];
  const relay = stops.findIndex(([kind]) => kind === "Relay");
  if (good.includes(m.outcome)) return { stops, reached: m.outcome === "rebroadcast" ? relay : stops.length - 1, passed: true };
  if (atPort.includes(m.outcome)) return { stops, reached: stops.findIndex(([kind]) => kind === "Port"), passed: false };
  if (m.outcome === "unknown-vlan" && request) return { stops, reached: 2, passed: false };
  return { stops, reached: relay, passed: false };
}

// Drawn from left to right, on a phone from top to bottom.
export function road(client, m) {
  const { stops, reached, passed } = stopsOf(client, m);
  const tall = isNarrow();
  const [width, height] = tall ? [330, stops.length * 58] : [760, 96];
  const place = (i) => (tall ? [24, 26 + i * 58] : [width / stops.length * (i + 0.5), 34]);
  const drawing = svg("svg", { class: "road", viewBox: `0 0 ${width} ${height}`, role: "img",
    "aria-label": `${m.type || "Message"}: ${stops.slice(0, reached + 1).map(([kind, name]) => `${kind} ${name}`).join(", ")}; ${m.reason || m.outcome}` });
  stops.forEach((stop, i) => {
    if (i === 0) return;
    const [x1, y1] = place(i - 1), [x2, y2] = place(i);
    const [dx, dy] = tall ? [0, 13] : [13, 0];
    drawing.append(svg("line", { class: i <= reached ? "way" : "not", x1: x1 + dx, y1: y1 + dy, x2: x2 - dx, y2: y2 - dy }));
  });
  stops.forEach(([kind, name], i) => {
    const [x, y] = place(i);
    const ended = i === reached && !passed;
    drawing.append(svg("circle", { class: `stop ${i <= reached ? "reached" : ""}`, cx: x, cy: y, r: 11 }));
    if (i <= reached) drawing.append(svg("circle", { class: ended ? "end" : "ok", cx: x, cy: y, r: ended ? 6 : 5 }));
    const shown = name.length > 24 ? name.slice(0, 23) + "…" : name;
    drawing.append(...(tall
      ? [svg("text", { class: "dim", x: 48, y: y - 3 }, kind), svg("text", { x: 48, y: y + 13 }, shown)]
      : [svg("text", { class: "dim", x, y: y + 30, "text-anchor": "middle" }, kind), svg("text", { x, y: y + 47, "text-anchor": "middle" }, shown)]));
  });
  return drawing;
}

const stateOf = (c) => {
  if (typeof c.state === "string") return c.state_text || c.state;
  return `${c.type || "message"}: ${c.reason || c.outcome}`;
};

async function openOne(place, mac) {
  const body = el("div", {});
  place.replaceChildren(el("p", { class: "sub" }, el("a", { class: "plain", href: "#clients" }, "← All clients")), el("h1", { class: "mono" }, mac), body);
  let value;
  try { value = await get(`/clients/${encodeURIComponent(mac)}?limit=50`); } catch (fault) { body.replaceChildren(card("", null, empty(faultText(fault)))); return {}; }
  if (!value.messages.length) { body.replaceChildren(card("", null, empty("No message from or to this client is remembered."))); return {}; }
  const picture = el("div", {});
  const show = (m) => picture.replaceChildren(el("h2", {}, `The road of the ${m.type || "message"} of ${time(m.time)}`), road(mac, m),
    el("p", {}, outcome(m), m.option82 && m.option82.port !== undefined ? el("span", { class: "soft" }, ` · option 82: VLAN ${m.option82.vlan}, port ${m.option82.module}/${m.option82.port}`) : null,
      m.answered_us ? el("span", { class: "soft" }, ` · answered in ${(m.answered_us / 1000).toFixed(1)} ms`) : null));
  show(value.messages[0]);
  const head = [{ name: "Time" }, { name: "Message" }, { name: "VLAN" }, { name: "Port" }, { name: "Outcome" }, { name: "Servers" }, { name: "" }];
  const rows = value.messages.map((m) => [{ node: time(m.time), class: "mono" }, { node: el("b", {}, m.type || "–"), class: "lead" }, m.vlan ? String(m.vlan) : "–", m.port || "–", outcome(m),
    { node: (m.servers || []).join(", ") || m.server || "–", class: "mono" },
    el("button", { type: "button", class: "quiet small", "aria-label": `Road of ${m.type || "message"} ${m.number}`, onclick: () => { show(m); picture.scrollIntoView({ block: "nearest" }); } }, "Road")]);
  const says = value.state_text || (typeof value.state === "string" ? value.state : null);
  body.replaceChildren(says ? el("p", { class: "sub" }, says) : el("p", { class: "sub" }, `${number(value.total)} messages are remembered.`),
    el("div", { class: "grid" }, card("w12", null, picture), card("w12", "Messages, newest first", table(head, rows))));
  return {};
}

export async function open(place, argument) {
  if (argument) return openOne(place, argument);
  const search = el("input", { type: "search", id: "search", placeholder: "02:00:00:00:00:01, or a part of it", autocomplete: "off" });
  const body = el("div", {});
  async function load() {
    let value;
    try { value = await get(`/clients?limit=100&search=${encodeURIComponent(search.value)}`); } catch (fault) { body.replaceChildren(empty(faultText(fault))); return; }
    const head = [{ name: "Client" }, { name: "State" }, { name: "VLAN" }, { name: "Port" }, { name: "Messages", class: "num" }, { name: "Last heard of" }];
    const rows = value.clients.map((c) => [{ node: el("a", { class: "plain mono", href: `#clients/${c.client}` }, c.client), class: "lead" }, stateOf(c), c.vlan ? String(c.vlan) : "–", c.port || "–", number(c.messages), { node: time(c.time), class: "mono" }]);
    body.replaceChildren(rows.length ? table(head, rows, value.matched > 100 ? `The last 100 of ${number(value.matched)}` : null) : empty(search.value ? "No client fits." : "No client was heard of yet."));
  }
  let typing;
  search.addEventListener("input", () => { clearTimeout(typing); typing = setTimeout(load, 200); });
  place.replaceChildren(el("h1", {}, "Clients"), el("p", { class: "sub" }, "Who asked lately, and what became of it."),
    card("", null, el("div", { class: "search" }, el("label", { for: "search" }, "Find by hardware address"), search), el("div", { class: "pad" }), body));
  await load();
  const timer = setInterval(() => { if (!search.value || document.activeElement !== search) load(); }, 5000);
  return { close: () => clearInterval(timer) };
}
