// SPDX-License-Identifier: Apache-2.0
// Configuration: what is in force, what is saved, and what differs.
import { el, card, empty, say } from "./dom.js";
import { get, post, mayChange, faultText } from "./api.js";

function lines(list) {
  const box = el("pre", { tabindex: 0, "aria-label": "Differences" });
  for (const line of list) box.append(el("span", { class: line[0] === "+" ? "plus" : line[0] === "-" ? "minus" : null }, line + "\n"));
  return box;
}

export async function open(place) {
  const body = el("div", { class: "grid" });
  async function load() {
    let value;
    try { value = await get("/configuration"); } catch (fault) { body.replaceChildren(card("w12", null, empty(faultText(fault)))); return; }
    const same = value.difference.length === 0;
    const button = el("button", { type: "button", id: "save", disabled: same, onclick: async () => {
      button.disabled = true;
      try { await post("/configuration/save"); say("The configuration is saved."); } catch (fault) { say(faultText(fault), true); }
      await load();
    } }, "Save");
    body.replaceChildren(
      el("section", { class: "card w12" }, el("div", { class: "spread" },
        el("div", {}, el("h2", {}, "Not saved yet"), same ? el("p", { class: "good" }, "Nothing: what is in force is what is saved.") : el("p", { class: "soft" }, "A restart would lose the lines with +, and bring back those with −.")),
        mayChange() ? button : null), same ? null : lines(value.difference)),
      card("w6", "In force", el("pre", { tabindex: 0, "aria-label": "Configuration in force" }, value.running)),
      card("w6", "Saved", value.saved ? el("pre", { tabindex: 0, "aria-label": "Saved configuration" }, value.saved) : empty("Nothing was saved yet.")));
  }
  place.replaceChildren(el("h1", {}, "Configuration"), el("p", { class: "sub" }, "Settings are in force at once; saved ones come back after a restart."), body);
  await load();
  return {};
}
