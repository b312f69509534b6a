// What a person does on the pages, step by step, for the flows.
import assert from "node:assert/strict";

export const kPanels = {
  password: "[data-panel=password]",
  scan: "[data-panel=scan]",
  code: "[data-panel=code]",
  mail: "[data-panel=mail]",
  done: "[data-panel=done]",
};
const kFocus = { password: "wizard-password", code: "wizard-code" };

// --- answers that a page gets in place of the server's ---

export const json = (status, body, headers = {}) =>
  ({ status, contentType: "application/json", body: JSON.stringify(body), headers });

export const refuse = (page, path, status, body, headers) =>
  page.route(`**${path}`, (route) => route.fulfill(json(status, { success: false, ...body }, headers)));

// --- what a person does ---

export async function enter(page, field, code) {
  await page.fill(field, code);
  await page.press(field, "Enter");
}

export async function message(page) {
  await page.waitForSelector("#message:visible");
  return page.textContent("#message");
}

// Somebody enrolled, from the password to the code field.
export async function atCodeField(page, server, user) {
  await signIn(page, user, server.passwords[user]);
  await page.waitForSelector("#code-form:visible");
}

export async function signIn(page, user, password) {
  await page.goto("/");
  await page.fill("#user", user);
  await page.fill("#password", password);
  await page.click("#password-form [type=submit]");
}

export async function signOut(page) {
  await page.click("#sign-out");
  await page.waitForSelector("#password-form:visible");
}

// Somebody enrolled (a wizard of the interface), from the password to the overview, with the next code.
export async function signInWithCode(page, wizard) {
  await signIn(page, wizard.user, wizard.password);
  await page.waitForSelector("#code-form:visible");
  wizard.server.advance(30);
  await enter(page, "#code", wizard.code());
  await atOverview(page, { on: true });
}

// An administrator on her page, whose list has come: she stands in it.
export async function openAdmin(page, wizard) {
  await signInWithCode(page, wizard);
  await page.click("#to-admin");
  await listed(page, wizard.user);
  return page;
}

export const listed = (page, name) => page.locator("#rows .name", { hasText: name }).first().waitFor();

// Of the list that was asked for last: another one may have had as many.
export const range = (page, text) =>
  page.waitForFunction((wanted) => document.getElementById("range").textContent === wanted &&
    !document.getElementById("table").hasAttribute("aria-busy"), text);

// From the overview to the QR code. Gives the key as it is shown.
export async function startSetup(page, password) {
  await page.click("#start");
  await atStep(page, "password");
  return givePassword(page, password);
}

export async function givePassword(page, password) {
  await page.fill("#wizard-password", password);
  await page.click("[data-panel=password] [type=submit]");
  await atStep(page, "scan");
  return shownKey(page);
}

export async function shownKey(page) {
  return (await page.textContent("#wizard-key")).replaceAll(" ", "");
}

export async function typeCode(page, code) {
  await page.fill("#wizard-code", code);
  await page.click("[data-panel=code] [type=submit]");
}

// Signed in, from the overview to the address step. Gives the key.
export async function enrol(page, server, user) {
  const key = await startSetup(page, server.passwords[user]);
  await page.click("[data-action=scanned]");
  await typeCode(page, server.code(key));
  await atStep(page, "mail");
  return key;
}

// Waits for a step and finds the focus where somebody types, or else on its heading.
export async function atStep(page, step) {
  await page.waitForSelector(`${kPanels[step]}:visible`);
  assert.equal(await page.evaluate(() => document.activeElement.id), kFocus[step] ?? "wizard-heading", `focus at ${step}`);
}

export async function atOverview(page, { on }) {
  await page.waitForSelector(`#overview:visible #state[data-on=${on}]`);
}

// The error that stands beside a field, which must be tied to it and have the focus.
export async function errorAt(page, id) {
  await page.waitForSelector(`#${id}-error:visible`);
  const field = page.locator(`#${id}`);
  assert.equal(await field.getAttribute("aria-invalid"), "true", id);
  assert.ok((await field.getAttribute("aria-describedby")).split(" ").includes(`${id}-error`), id);
  assert.equal(await page.evaluate(() => document.activeElement.id), id, "focus on the field");
  return page.textContent(`#${id}-error`);
}

// Walks on with the tabulator until the focus is where a person wants it; a place that cannot be reached is a failure.
export async function tabTo(page, selector) {
  for (let i = 0; i < 30; ++i) {
    if (await page.evaluate((wanted) => document.activeElement?.matches(wanted), selector)) {
      return;
    }
    await page.keyboard.press("Tab");
  }
  assert.fail(`the keyboard does not reach ${selector}`);
}

// What the server answers to a request that the page made. Again on a new connection when the kept one was closed
// just then, as a browser does it.
export function answerTo(route) {
  return route.fetch({ maxRetries: 3 });
}
