// SPDX-License-Identifier: Apache-2.0
// The overview: is it on, what happens, who answers, what to look at.
import { el, card, table, empty, number, duration } from "./dom.js";
import { get, state } from "./api.js";
import { areas, legend, bar } from "./chart.js";

const typeOrder = ["discover", "offer", "request", "ack", "nak", "decline", "release", "inform"];
const calm = ["relayed", "delivered", "rebroadcast", "already-answered"];
const slots = 8;

let rows = [];
let step = 10;

function takeRow(row) {
  if (!row) return;
  const known = rows.findIndex((r) => r.start === row.start);
  if (known >= 0) rows[known] = row;
  else rows.push(row);
  const oldest = Date.now() / 1000 - 3660;
  rows = rows.filter((r) => r.start >= oldest);
}

function sumOf(member) {
  const sums = {};
  for (const row of rows)
    for (const [name, count] of Object.entries(row[member])) sums[name] = (sums[name] || 0) + count;
  return sums;
}

// The names to draw: those of the known order first, the others by size; eight at most, the others are left out.
function namesOf(sums, order) {
  const rest = Object.keys(sums).filter((n) => !order.includes(n)).sort((a, b) => sums[b] - sums[a]);
  return [...order.filter((n) => sums[n]), ...rest].slice(0, slots);
}

function chartCard(place, member, order, title) {
  const sums = sumOf(member);
  const names = namesOf(sums, order);
  const buckets = rows.map((r) => ({ start: r.start, counts: r[member] }));
  place.replaceChildren(el("h2", {}, title), areas(buckets, names, step, Math.floor(Date.now() / 1000), `${title}, the last hour`),
    names.length ? legend(names, sums) : el("p", { class: "legend" }, "No message in the last hour."));
}

const fact = (name, value, note, kind) => el("section", { class: "card w3" },
  el("div", { class: "fact" }, el("span", { class: "name" }, name), el("span", { class: `value ${kind || ""}` }, value), el("span", { class: "note" }, note)));

function facts(now) {
  const hour = sumOf("outcomes");
  const all = Object.values(hour).reduce((a, b) => a + b, 0);
  const good = calm.reduce((a, name) => a + (hour[name] || 0), 0);
  const minute = rows.filter((r) => r.start >= Date.now() / 1000 - 60).flatMap((r) => Object.values(r.outcomes)).reduce((a, b) => a + b, 0);
  return [
    fact("Messages in all", number(now.received), `${number(now.sent)} copies sent on`),
    fact("In the last minute", number(minute), "messages"),
    fact("Passed on in the last hour", all ? `${Math.round(100 * good / all)} %` : "–", all ? `${number(all - good)} of ${number(all)} were not` : "no message yet"),
    fact("Lost unread", number(now.lost), now.lost ? "more came than the relay can take" : "none", now.lost ? "bad" : ""),
  ];
}

function chips(s) {
  const chip = (name, value) => el("span", { class: "chip" }, name, el("b", {}, value));
  const onOff = (v) => (v ? "on" : "off");
  return el("div", { class: "facts" },
    el("span", { class: `chip ${s.relay ? "on" : "off"}`, id: "relaying" }, el("span", { class: "dot" }), el("b", {}, s.relay ? "Relaying is on" : "Relaying is off")),
    chip("Option 82", onOff(s.information_option)), chip("Policy", s.policy), chip("Reply check", onOff(s.check)),
    chip("Hop limit", String(s.hops)), chip("All trusted", onOff(s.trust_all)), chip("Local relay", onOff(s.local_relay)));
}

function silence(row) {
  const seconds = row.silent_seconds;
  if (!row.asked) return el("span", { class: "soft" }, "not asked yet");
  if (typeof seconds !== "number" || seconds <= 0) return row.answered ? el("span", { class: "good" }, "answers") : el("span", { class: "soft" }, "no answer yet");
  return el("span", { class: "bad" }, `silent for ${duration(seconds)}`);
}

const milliseconds = (us) => (typeof us === "number" && us >= 0 ? `${(us / 1000).toFixed(1)} ms` : "–");

function servers(value) {
  const list = value.servers || [];
  if (!list.length) return empty("No server is configured.");
  const head = [{ name: "Server" }, { name: "Interface" }, { name: "Asked", class: "num" }, { name: "Answered", class: "num" }, { name: "Median", class: "num" }, { name: "State" }];
  return table(head, list.slice(0, 50).map((r) => [{ node: r.server, class: "mono lead" }, r.interface || "–", number(r.asked), number(r.answered), milliseconds(r.median_us), silence(r)]));
}

function advice(value) {
  const list = value.advice || [];
  if (!list.length) return el("p", { class: "good" }, "Nothing to advise: everything is as it should be.");
  const text = (a) => [el("b", {}, a.what || ""), a.remedy ? el("div", { class: "soft" }, a.remedy) : null];
  return el("ul", { class: "list advice" }, list.map((a) => el("li", {}, el("span", { class: "dot" }), el("div", {}, text(a)))));
}

function busiest(list, name, what) {
  if (!list.length) return empty(`No ${what} has received a message.`);
  const most = Math.max(...list.map((r) => r.received));
  return el("ul", { class: "list" }, list.map((r) => el("li", {},
    el("div", { class: "spread" }, el("span", {}, name(r)), el("b", { class: "mono" }, number(r.received))), bar(r.received, most))));
}

const absent = (fault, what) => empty(fault.status === 501 ? `This relay does not tell ${what} yet.` : fault.text);

export async function open(place) {
  const places = Object.fromEntries(["chips", "facts", "types", "outcomes", "servers", "advice", "ports", "vlans"].map((n) => [n, el("div", {})]));
  places.types = card("w6");
  places.outcomes = card("w6");
  places.facts = el("div", { class: "grid" });
  place.replaceChildren(el("h1", {}, "Overview"), el("p", { class: "sub" }, "What the relay does at this moment, and in the last hour."),
    places.chips, places.facts, el("div", { class: "grid gap" }, places.types, places.outcomes,
      card("w6", "Servers", places.servers), card("w6", "Advice", places.advice),
      card("w6", "Busiest ports", places.ports), card("w6", "Busiest VLANs", places.vlans)));

  const draw = () => {
    const now = state.now || { received: 0, sent: 0, lost: 0 };
    places.facts.replaceChildren(...facts(now));
    chartCard(places.types, "types", typeOrder, "Messages by type");
    chartCard(places.outcomes, "outcomes", ["relayed", "delivered"], "What became of them");
  };
  const load = async () => {
    const part = async (path, at, show, what) => {
      try { places[at].replaceChildren(show(await get(path))); } catch (fault) { places[at].replaceChildren(absent(fault, what)); }
    };
    await Promise.all([
      part("/settings", "chips", chips, "its settings"), part("/servers", "servers", servers, "how its servers answer"), part("/advice", "advice", advice, "what it advises"),
      (async () => {
        try {
          const s = await get("/statistics?top=5");
          places.ports.replaceChildren(busiest(s.ports, (r) => `Port ${r.port}`, "port"));
          places.vlans.replaceChildren(busiest(s.vlans, (r) => `VLAN ${r.vlan}`, "VLAN"));
        } catch (fault) {
          for (const at of ["ports", "vlans"]) places[at].replaceChildren(absent(fault, "that"));
        }
      })()]);
  };
  const past = await get("/history");
  rows = past.rows;
  step = past.step;
  takeRow(state.now && state.now.row);
  draw();
  await load();
  const timer = setInterval(load, 5000);
  return { now: (value) => { takeRow(value.row); draw(); }, close: () => clearInterval(timer) };
}
