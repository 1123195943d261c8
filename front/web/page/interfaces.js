// SPDX-License-Identifier: Apache-2.0
// Interfaces: their addresses, servers and trust; and the changes.
import { el, card, table, empty, say, confirmed } from "./dom.js";
import { get, post, put, remove, mayChange, faultText } from "./api.js";

const pageSize = 50;
const refused = (fault) => say(fault.code >= 302020 ? `${faultText(fault).trim()} (${fault.code})` : faultText(fault), true);
const path = (name) => `/interfaces/${encodeURIComponent(name)}`;

function serverTags(iface, change) {
  if (!iface.servers.length) return el("span", { class: "soft" }, "none");
  return iface.servers.map((address) => el("span", { class: mayChange() ? "tag mono" : "tag plain mono" }, address, mayChange()
    ? el("button", { type: "button", title: `Remove ${address}`, "aria-label": `Remove server ${address} from ${iface.name}`,
      onclick: async () => {
        if (!await confirmed("Remove this server?", `Clients on ${iface.name} will no longer be relayed to ${address}.`, "Remove")) return;
        await change(() => remove(`${path(iface.name)}/servers/${address}`), `${address} is removed from ${iface.name}.`);
      } }, "×") : null));
}

function trust(iface, change) {
  const box = el("input", { type: "checkbox", checked: iface.trusted, disabled: !mayChange(), "aria-label": `Trust option 82 of clients on ${iface.name}`,
    onchange: () => change(() => put(`${path(iface.name)}/trust`, { trusted: box.checked }), `${iface.name} is ${box.checked ? "trusted" : "not trusted any more"}.`) });
  return el("label", { class: "switch" }, box, iface.trusted ? "trusted" : "untrusted");
}

function addForm(iface, change) {
  const input = el("input", { type: "text", placeholder: "192.0.2.11", "aria-label": `Address of a server to add to ${iface.name}`, autocomplete: "off", inputmode: "decimal", size: 14, maxlength: 15 });
  return el("form", { class: "row", onsubmit: (event) => {
    event.preventDefault();
    const address = input.value.trim();
    if (address) change(() => post(`${path(iface.name)}/servers`, { address }), `${address} is a server of ${iface.name} now.`);
  } }, el("div", { class: "grow" }, input), el("button", { class: "quiet", "aria-label": `Add server to ${iface.name}` }, "Add"));
}

function clearButton(iface, change) {
  if (!iface.servers.length && !iface.trusted) return null;
  return el("button", { type: "button", class: "quiet", "aria-label": `Clear servers and trust of ${iface.name}`, onclick: async () => {
    if (!await confirmed(`Clear ${iface.name}?`, "All its servers are removed, and it is not trusted any more.", "Clear")) return;
    await change(() => remove(path(iface.name)), `${iface.name} is cleared.`);
  } }, "Clear");
}

export async function open(place) {
  const search = el("input", { type: "search", id: "search", placeholder: "Name, address or server" });
  const body = el("div", {});
  let offset = 0;
  const change = async (call, done) => {
    const focus = document.activeElement && document.activeElement.getAttribute("aria-label");
    let wrong = null;
    try { await call(); } catch (fault) { wrong = fault; }
    await load();
    const again = focus && [...body.querySelectorAll("[aria-label]")].find((e) => e.getAttribute("aria-label") === focus);
    if (again) again.focus();
    if (wrong) refused(wrong);
    else say(done);
  };
  async function load() {
    let value;
    try { value = await get(`/interfaces?limit=${pageSize}&offset=${offset}&search=${encodeURIComponent(search.value)}`); } catch (fault) { body.replaceChildren(empty(faultText(fault))); return; }
    const head = [{ name: "Interface" }, { name: "Address" }, { name: "Servers" }, { name: "Trust" }, ...(mayChange() ? [{ name: "Add a server" }, { name: "" }] : [])];
    const rows = value.interfaces.map((i) => [{ node: el("b", {}, i.name), class: "lead" }, { node: i.address || el("span", { class: "warn" }, "none"), class: "mono" },
      { node: el("span", { "data-servers": i.name }, serverTags(i, change)) }, trust(i, change), ...(mayChange() ? [addForm(i, change), clearButton(i, change)] : [])]);
    const more = value.matched > offset + pageSize;
    body.replaceChildren(rows.length ? table(head, rows) : empty("No interface fits."),
      el("div", { class: "row end" },
        value.matched > pageSize ? el("span", { class: "soft" }, `${offset + 1} to ${Math.min(offset + pageSize, value.matched)} of ${value.matched}`) : null,
        offset > 0 ? el("button", { type: "button", class: "quiet", onclick: () => { offset -= pageSize; load(); } }, "Back") : null,
        more ? el("button", { type: "button", class: "quiet", onclick: () => { offset += pageSize; load(); } }, "More") : null));
  }
  let typing;
  search.addEventListener("input", () => { clearTimeout(typing); typing = setTimeout(() => { offset = 0; load(); }, 200); });
  place.replaceChildren(el("h1", {}, "Interfaces"),
    el("p", { class: "sub" }, mayChange() ? "Changes are in force at once. They last beyond a restart when they are saved." : "You may look; changes need an administrator's account."),
    card("", null, el("div", { class: "row" }, el("div", { class: "search" }, el("label", { for: "search" }, "Find"), search)), el("div", { class: "pad" }), body));
  await load();
  return {};
}
