// SPDX-License-Identifier: Apache-2.0
// The JSON interface. A fault is thrown as {status, code, text}.
export const state = { user: null, role: null, csrf: null, now: null };
let onSignedOut = () => {};
export const whenSignedOut = (call) => { onSignedOut = call; };

async function ask(method, path, body) {
  const headers = {};
  if (body !== undefined) headers["Content-Type"] = "application/json";
  if (method !== "GET" && state.csrf) headers["X-CSRF-Token"] = state.csrf;
  let answer;
  try {
    answer = await fetch("api/v1" + path, { method, headers, body: body === undefined ? undefined : JSON.stringify(body), credentials: "same-origin", cache: "no-store" });
  } catch {
    throw { status: 0, code: 0, text: "The web server of this relay cannot be reached." };
  }
  const value = await answer.json().catch(() => ({ code: answer.status, text: answer.statusText }));
  if (answer.ok) return value;
  if (answer.status === 401 && state.user) {
    state.user = null;
    onSignedOut();
  }
  throw { status: answer.status, ...value };
}

export const get = (path) => ask("GET", path);
export const post = (path, body) => ask("POST", path, body);
export const put = (path, body) => ask("PUT", path, body);
export const remove = (path) => ask("DELETE", path);

export function keep(session) {
  Object.assign(state, { user: session.user, role: session.role, csrf: session.csrf });
}

export const mayChange = () => state.role === "admin";
export const faultText = (fault) => (fault && fault.text ? fault.text : String(fault));
