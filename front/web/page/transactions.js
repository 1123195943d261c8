// SPDX-License-Identifier: Apache-2.0
// Transactions that are open: which port asked.
import { el, card, table, empty, number } from "./dom.js";
import { get, faultText } from "./api.js";

export async function open(place) {
  const body = el("div", {});
  async function load() {
    let value;
    try { value = await get("/transactions?limit=200"); } catch (fault) { body.replaceChildren(empty(faultText(fault))); return; }
    const rows = value.transactions.map((t) => [{ node: String(t.xid), class: "mono lead" }, `${t.module}/${t.port}`]);
    body.replaceChildren(el("p", { class: "soft" }, `${number(value.total)} open${value.total > 200 ? ", the first 200" : ""}`),
      rows.length ? table([{ name: "Transaction" }, { name: "Port" }], rows) : empty("No transaction is open."));
  }
  place.replaceChildren(el("h1", {}, "Transactions"), el("p", { class: "sub" }, "Requests whose reply is awaited, with the port that each came in on. They are kept for 300 seconds."), card("", null, body));
  await load();
  const timer = setInterval(load, 3000);
  return { close: () => clearInterval(timer) };
}
