// SPDX-License-Identifier: Apache-2.0
// Starts the page: who is signed in, which part is shown, and the events that keep it up to date.
import { el, say } from "./dom.js";
import { state, get, post, remove, keep, whenSignedOut, faultText } from "./api.js";
import { open as overview } from "./overview.js";
import { open as interfaces } from "./interfaces.js";
import { open as clients } from "./clients.js";
import { open as transactions } from "./transactions.js";
import { open as configuration } from "./configuration.js";

const pages = { overview: ["Overview", overview], interfaces: ["Interfaces", interfaces], clients: ["Clients", clients], transactions: ["Transactions", transactions], configuration: ["Configuration", configuration] };
const main = document.getElementById("main");
const gone = document.getElementById("gone");
let shown = null;
let events = null;
let turn = 0;

function showGone(text) {
  gone.hidden = !text;
  gone.textContent = text || "";
}

function leave() {
  if (shown && shown.close) shown.close();
  shown = null;
}

async function show() {
  const [name, argument] = location.hash.slice(1).split("/");
  const key = pages[name] ? name : "overview";
  const mine = ++turn;
  leave();
  for (const link of document.querySelectorAll("#nav a"))
    if (link.hash === `#${key}`) link.setAttribute("aria-current", "page");
    else link.removeAttribute("aria-current");
  document.title = `${pages[key][0]} · ravo`;
  main.dataset.page = key;
  delete main.dataset.ready;
  try {
    const opened = await pages[key][1](main, argument && decodeURIComponent(argument));
    if (mine === turn) shown = opened;
    else if (opened.close) opened.close();
  } catch (fault) {
    if (mine === turn && state.user) main.replaceChildren(el("section", { class: "card" }, el("h1", {}, pages[key][0]), el("p", {}, faultText(fault))));
  }
  if (mine === turn) main.dataset.ready = key;
}

function listen() {
  if (events) events.close();
  events = new EventSource("api/v1/events");
  events.addEventListener("now", (event) => {
    state.now = JSON.parse(event.data);
    const up = state.now.daemon.status === "up";
    const back = up && !gone.hidden;
    showGone(up ? "" : `The relay does not answer: ${state.now.daemon.reason || "it is not there"}. This page goes on by itself when it is back.`);
    if (back) show();
    else if (shown && shown.now) shown.now(state.now);
  });
  events.addEventListener("error", () => {
    showGone("The connection to the web server is broken. This page goes on by itself when it is back.");
    if (events.readyState === EventSource.CLOSED) setTimeout(async () => {
      try {
        const session = await get("/session");
        if (state.user && !session.user) signIn("Your session is over. Sign in again.");
        else if (state.user) listen();
      } catch (fault) {
        if (state.user) listen();
      }
    }, 3000);
  });
}

function signIn(reason) {
  leave();
  ++turn;
  if (events) { events.close(); events = null; }
  showGone("");
  document.getElementById("top").hidden = true;
  document.title = "Sign in · ravo";
  const user = el("input", { type: "text", id: "user", name: "user", autocomplete: "username", required: true, autocapitalize: "none" });
  const password = el("input", { type: "password", id: "password", name: "password", autocomplete: "current-password", required: true });
  const fault = el("p", { class: "bad", role: "alert" }, reason || "");
  const form = el("form", { onsubmit: async (event) => {
    event.preventDefault();
    try {
      keep(await post("/session", { user: user.value, password: password.value }));
      begin();
    } catch (wrong) {
      fault.textContent = faultText(wrong);
      password.value = "";
      password.focus();
    }
  } }, el("div", {}, el("label", { for: "user" }, "User"), user), el("div", {}, el("label", { for: "password" }, "Password"), password), fault, el("button", {}, "Sign in"));
  main.replaceChildren(el("div", { class: "sign" }, el("section", { class: "card" }, el("div", { class: "brand" }, el("img", { src: "icon.svg", alt: "", width: 30, height: 30 }), el("h1", {}, "ravo")),
    el("p", { class: "soft" }, "The DHCP relay of this switch"), form)));
  main.dataset.ready = "sign-in";
  user.focus();
}

function begin() {
  document.getElementById("top").hidden = false;
  document.getElementById("who").textContent = state.role === "admin" ? state.user : `${state.user} (reader)`;
  document.getElementById("nav").replaceChildren(...Object.entries(pages).map(([key, [title]]) => el("a", { href: `#${key}` }, title)));
  listen();
  show();
  main.focus();
}

document.getElementById("sign-out").addEventListener("click", async () => {
  try { await remove("/session"); } catch (fault) { say(faultText(fault), true); }
  state.user = null;
  signIn();
});
window.addEventListener("hashchange", () => { if (state.user) { show(); main.focus(); window.scrollTo(0, 0); } });
whenSignedOut(() => signIn("Your session is over. Sign in again."));

document.querySelector(".skip").addEventListener("click", (event) => { event.preventDefault(); main.focus(); });
get("/session").then((session) => {
  if (!session.user) { signIn(); return; }
  keep(session);
  begin();
}).catch((fault) => signIn(faultText(fault)));
