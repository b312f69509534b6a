// The administrator's page in Chromium: from picking a group to the member who is led into the wizard.
import assert from "node:assert/strict";
import { test } from "node:test";

import { local, onSystem } from "../support/accounts.mjs";
import { kWindows, looker } from "../support/browser.mjs";
import { openStage } from "./stage.mjs";
import {
  atOverview, atStep, enrol as enrolOnPage, enter, errorAt, givePassword, json, listed, message, openAdmin, range, signIn,
  signOut, tabTo, typeCode,
} from "./steps.mjs";
import { enrol, Wizard } from "./wizard.mjs";

const kHostile = [`<img src=x onerror=alert(1)>`, `o'neil "the boss"`, "שלום עולם"];
const { server, visit } = await openStage({
  ada: ["--admin"], eve: ["--admin"], member: [], other: [], lost: [],
  ...Object.fromEntries(kHostile.map((name) => [name, ["--desc", `<b>${name}</b> &amp; <script>alert(2)</script>`]])),
});
for (let i = 0; i < 120; i += 1) {
  local.addGroup(`team-${String(i).padStart(3, "0")}`, i % 2 ? "Odd ones" : "Even ones");
}
local.addGroup("crew", "Whoever works here");
local.join("crew", "member");
const ada = await enrol(server, "ada");

const row = (page, name) => page.locator("#rows tr", { hasText: name });
const shown = (page) => page.locator("#rows .name").allTextContents();
const option = async () => (await ada.client.get("/api/enforce/option")).json.option;
const picked = async (type) => (await ada.client.get(`/api/enforce/list?type=${type}&filter=enforced&limit=500`)).json
  .rows.map(({ name }) => name);

async function saveOption(page, value) {
  await page.check(`[name=option][value=${value}]`);
  await page.click("#save-option");
}

async function showGroups(page) {
  await page.selectOption("#type", "local_group");
  await listed(page, local.administrators);
}

// Whatever a test has changed goes with it.
async function cleanUp() {
  ada.client = (await Wizard.start(server, "ada")).client;
  server.advance(30);
  await ada.client.post("/api/signin/code", { code: ada.code() });
  await ada.client.post("/api/enforce/option", { option: "none" });
  for (const type of ["local_user", "local_group"]) {
    const { rows } = (await ada.client.get(`/api/enforce/list?type=${type}&filter=enforced&limit=500`)).json;
    await ada.client.post("/api/enforce/set", { type, settings: rows.map(({ id }) => ({ id, is_enforced: false })) });
  }
}

test("a group is picked, and its members alone have to use two-step sign-in from then on", async (t) => {
  t.after(cleanUp);
  const page = await openAdmin(await visit(t), ada);
  await showGroups(page);
  await page.fill("#query", onSystem ? "crew" : "works");
  await range(page, "1 to 1 of 1");
  await page.check(".demands");
  await saveOption(page, "custom");
  assert.match(await message(page), /^Saved/);
  await page.locator("#not-enrolled", { hasText: "1 account of this server has to use it" }).waitFor();

  const other = await visit(t);
  await signIn(other, "other", server.passwords.other);
  await atOverview(other, { on: false });
  assert.equal(await other.isVisible("#to-admin"), false);

  const member = await visit(t);
  await signIn(member, "member", server.passwords.member);
  await atStep(member, "scan");
  assert.match(await member.textContent("#wizard-note"), /Your administrator asks for two-step sign-in/);
  assert.deepEqual((await member.context().cookies()).map(({ name }) => name), ["pending"]);
  const key = (await member.textContent("#wizard-key")).replaceAll(" ", "");
  await member.click("[data-action=scanned]");
  await typeCode(member, server.code(key));
  await atStep(member, "mail");
  await member.click("[data-action=skip]");
  await member.click("[data-action=finish]");
  await atOverview(member, { on: true });
  assert.equal(await member.isVisible("#switch-off"), false);
  assert.match(await member.textContent("#enforced"), /cannot be switched off/);
  const refused = await member.evaluate(async (password) => {
    const { TavrToken } = await (await fetch("/api/session")).json();
    const answer = await fetch("/api/otp/disable", { method: "POST", body: JSON.stringify({ password, code: "123456" }),
      headers: { "Content-Type": "application/json", "X-Tavr-Token": TavrToken } });
    return [answer.status, (await answer.json()).err];
  }, server.passwords.member);
  assert.deepEqual(refused, [403, "otp_enforced"]);

  // A new phone all the same.
  await member.click("#new-phone");
  await atStep(member, "password");
  server.advance(30);
  await member.fill("#wizard-old-code", server.code(key));
  const renewed = await givePassword(member, server.passwords.member);
  assert.notEqual(renewed, key);
  await member.click("[data-action=scanned]");
  server.advance(30);
  await typeCode(member, server.code(renewed));
  await atStep(member, "done");

  await page.reload();
  await page.locator("#not-enrolled", { hasText: "Every account of this server that has to use it has set it up." }).waitFor();
});

test("an administrator who is not enrolled can demand nothing until she is", async (t) => {
  t.after(cleanUp);
  const page = await visit(t);
  await signIn(page, "eve", server.passwords.eve);
  await atOverview(page, { on: false });
  await page.click("#to-admin");
  await listed(page, "ada");
  await page.waitForSelector("#enrol-first:visible");
  await saveOption(page, "user");
  await page.waitForFunction(() => document.activeElement.id === "enrol-link");
  assert.equal(await page.isChecked("[value=none]"), true);
  assert.equal(await option(), "none");
  await row(page, "member").locator(".demands").click();
  await page.waitForFunction(() => document.activeElement.id === "enrol-link");
  assert.equal(await row(page, "member").locator(".demands").isChecked(), false);
  assert.deepEqual(await picked("local_user"), []);

  await page.keyboard.press("Enter");
  await atOverview(page, { on: false });
  await enrolOnPage(page, server, "eve");
  await page.click("[data-action=skip]");
  await page.click("[data-action=finish]");
  await atOverview(page, { on: true });
  await page.click("#to-admin");
  await listed(page, "ada");
  assert.equal(await page.isVisible("#enrol-first"), false);
  await saveOption(page, "user");
  assert.match(await message(page), /Everybody/);
  assert.equal(await option(), "user");
});

test("somebody who is no administrator is told so", async (t) => {
  const page = await visit(t);
  await signIn(page, "other", server.passwords.other);
  await atOverview(page, { on: false });
  await page.goto("/admin");
  assert.equal(await message(page), "This page is for administrators.");
  assert.equal(await page.isVisible("#administration"), false);
  await page.click("#not-admin a");
  await atOverview(page, { on: false });
});

test("nobody who is not signed in sees the page", async (t) => {
  const page = await visit(t);
  await page.goto("/admin/");
  await page.waitForURL(`${server.url}/`);
  await page.waitForSelector("#password-form:visible");
});

test("names and descriptions are shown as what they are", async (t) => {
  const page = await openAdmin(await visit(t), ada);
  page.on("dialog", () => assert.fail("a name has run"));
  for (const name of kHostile) {
    await page.fill("#query", name);
    await page.waitForFunction((wanted) => document.getElementById("rows").children.length === 1 &&
      document.querySelector("#rows .name").textContent === wanted, name);
    assert.equal(await page.textContent("#rows .description"), `<b>${name}</b> &amp; <script>alert(2)</script>`);
    assert.equal(await page.getByRole("switch", { name: `\u2068${name}\u2069 must use two-step sign-in` }).count(), 1);
    await page.click(".resets");
    assert.equal(await page.textContent("#reset-heading"), `Reset the second step of \u2068${name}\u2069?`);
    await page.keyboard.press("Escape");
  }
  assert.equal(await page.locator("#rows img, #rows b, #rows script").count(), 0);
  await page.route("**/api/enforce/list*", (route) => route.fulfill(json(200, { success: true, total: 1,
    rows: [{ id: "9", name: "evil\u202etxt.exe", desc: "\u202e\u2066", is_enforced: false }] })));
  await page.fill("#query", "x");
  await listed(page, "evil");
  assert.deepEqual(await shown(page), ["evil\u202etxt.exe"]);
});

test("typing asks the server seldom, and an answer that comes late is not shown", async (t) => {
  const page = await openAdmin(await visit(t), ada);
  await showGroups(page);
  const asked = [];
  page.on("request", (request) => {
    if (request.url().includes("/api/enforce/list")) {
      asked.push(new URL(request.url()).searchParams.get("query"));
    }
  });
  await page.locator("#query").evaluate((field, typed) => {   // at once: the machine may stop between two keys
    for (const letter of typed) {
      field.value += letter;
      field.dispatchEvent(new Event("input", { bubbles: true }));
    }
  }, "team-007");
  await range(page, "1 to 1 of 1");
  assert.deepEqual(asked, ["team-007"]);

  let hold;
  const held = new Promise((resolve) => { hold = resolve; });
  await page.route("**/api/enforce/list*query=team-01*", async (route) => {
    await held;
    await route.continue().catch(() => {});   // given up meanwhile
  });
  const sent = page.waitForRequest(/query=team-01/);
  await page.fill("#query", "team-01");
  await sent;
  assert.equal(await page.getAttribute("#table", "aria-busy"), "true");
  await page.fill("#query", "team-02");
  await range(page, "1 to 10 of 10");
  hold();
  await page.waitForTimeout(300);
  assert.ok((await shown(page)).every((name) => name.startsWith("team-02")));
  assert.equal(await page.getAttribute("#table", "aria-busy"), null);
});

test("rows are selected over pages and searches, and switched on and off together", async (t) => {
  t.after(cleanUp);
  const page = await openAdmin(await visit(t), ada);
  await showGroups(page);
  await range(page, "1 to 50 of 123");
  await row(page, "team-001").locator(".selects").check();
  await page.click("#next");
  await range(page, "51 to 100 of 123");
  assert.equal(await page.textContent("#selected"), "1 selected, 1 not shown here");
  await row(page, "team-060").locator(".selects").check();
  await page.fill("#query", "crew");
  await range(page, "1 to 1 of 1");
  await page.check("#select-page");
  assert.equal(await page.textContent("#selected"), "3 selected, 2 not shown here");
  await page.click("#demand");
  assert.equal(await page.textContent("#list-message:visible"), "3 are switched on.");
  assert.deepEqual(await picked("local_group"), ["crew", "team-001", "team-060"]);
  assert.equal(await page.textContent("#selected"), "None selected");

  await page.fill("#query", "");
  await page.selectOption("#filter", "enforced");
  await range(page, "1 to 3 of 3");
  await page.check("#select-page");
  await page.click("#not-demand");
  await page.locator("#empty", { hasText: "None is switched on." }).waitFor();
  assert.deepEqual(await picked("local_group"), []);

  await page.selectOption("#filter", "all");
  await range(page, "1 to 50 of 123");
  await page.click("#select-all");
  await page.locator("#selected", { hasText: "123 selected" }).waitFor();
  await page.click("#demand");
  await page.locator("#list-message", { hasText: "123 are switched on." }).waitFor();
  assert.equal((await picked("local_group")).length, 123);
  await page.click("#next");
  await range(page, "51 to 100 of 123");
  await page.selectOption("#type", "local_user");
  await listed(page, "ada");
  assert.equal(await page.textContent("#selected"), "None selected");
});

test("the keyboard is enough", async (t) => {
  t.after(cleanUp);
  const page = await openAdmin(await visit(t), ada);
  const press = (key) => page.keyboard.press(key);
  await tabTo(page, "[name=option]");
  for (let i = 0; i < 3; i += 1) {
    await press("ArrowDown");
  }
  await press("Enter");
  assert.match(await message(page), /Picked accounts and groups/);
  await tabTo(page, "#type");
  await press("ArrowDown");
  await listed(page, local.administrators);
  await tabTo(page, "#query");
  await page.keyboard.type("team-00");
  await range(page, "1 to 10 of 10");
  await tabTo(page, "#select-page");
  await press("Space");
  assert.equal(await page.textContent("#selected"), "10 selected");
  await tabTo(page, ".demands");
  await press("Space");
  await page.waitForFunction(() => document.querySelector(".demands").checked);
  await page.focus("#query");
  await tabTo(page, "#demand");
  await press("Enter");
  await page.locator("#list-message", { hasText: "10 are switched on." }).waitFor();
  assert.equal(await page.evaluate(() => document.activeElement.id), "demand");
  await page.fill("#query", "");
  await range(page, "1 to 50 of 123");
  await tabTo(page, "#next");
  await press("Enter");
  await range(page, "51 to 100 of 123");
  await press("Enter");
  await range(page, "101 to 123 of 123");
  await press("Enter");   // nothing more
  assert.equal(await page.evaluate(() => document.activeElement.id), "next");
  assert.equal((await picked("local_group")).length, 10);
});

test("a lost second step is reset with the administrator's own password", async (t) => {
  const lost = await enrol(server, "lost");
  const page = await openAdmin(await visit(t), ada);
  assert.equal(await row(page, "ada").locator(".resets").count(), 0);
  await page.fill("#query", "lost");
  await range(page, "1 to 1 of 1");
  await page.click(".resets");
  assert.equal(await page.evaluate(() => document.activeElement.id), "reset-password");
  await page.keyboard.press("Enter");
  assert.match(await errorAt(page, "reset-password"), /type your password/);
  await enter(page, "#reset-password", "wrong");
  assert.equal(await errorAt(page, "reset-password"), "That is not the password of this account.");
  await page.click("#reset-cancel");
  assert.equal(await page.evaluate(() => document.activeElement.className.includes("resets")), true);
  assert.equal((await lost.status()).enrolled, true);
  await page.click(".resets");
  assert.equal(await page.inputValue("#reset-password"), "");
  await enter(page, "#reset-password", server.passwords.ada);
  await page.locator("#list-message", { hasText: "The second step of \u2068lost\u2069 is removed." }).waitFor();
  assert.equal((await (await Wizard.start(server, "lost")).status()).enrolled, false);
});

test("what cannot be listed or saved is said, and can be tried again", async (t) => {
  const page = await openAdmin(await visit(t), ada);
  const refuse = (path, status, err) => page.route(`**/api/enforce/${path}`, (route) =>
    route.fulfill(json(status, { success: false, err })));
  await refuse("list*", 503, "policy_unavailable");
  await page.selectOption("#type", "local_group");
  assert.match(await page.textContent("#list-message:visible"), /cannot be read at the moment.*tavrctl doctor/);
  await page.unroute("**/api/enforce/list*");
  await page.click("#list-retry");
  await listed(page, local.administrators);

  await refuse("set", 500, "write_failed");
  await row(page, "crew").locator(".demands").click();
  assert.match(await page.textContent("#list-message:visible"), /could not be saved/);
  assert.equal(await row(page, "crew").locator(".demands").isChecked(), false);
  await row(page, "crew").locator(".selects").check();
  await page.click("#demand");
  await page.waitForTimeout(300);
  assert.match(await page.textContent("#list-message:visible"), /could not be saved/);
  assert.equal(await page.textContent("#selected"), "1 selected");
  await refuse("option", 500, "write_failed");
  await saveOption(page, "user");
  assert.match(await message(page), /could not be saved/);

  for (const type of ["domain_user", "domain_group", "ldap_user", "ldap_group"]) {
    await page.selectOption("#type", type);
    await page.locator("#list-message[data-kind=note]", { hasText: "connected to no directory" }).waitFor();
    assert.equal(await page.isVisible("#results"), false);
  }
  await page.selectOption("#type", "local_user");
  await page.fill("#query", "no such name");
  await page.locator("#empty", { hasText: "Nothing holds" }).waitFor();

  await page.route("**/api/enforce/list*", (route) => route.fulfill(json(401, { success: false, err: "not_signed_in" })));
  await page.fill("#query", "");
  await page.waitForSelector("#password-form:visible");
});

for (const { width, colorScheme } of kWindows) {
  test(`the page at ${width} pixels, ${colorScheme}`, async (t) => {
    const findings = [];
    const page = await openAdmin(await visit(t, { colorScheme, viewport: { width, height: 800 } }), ada);
    const look = looker(page, `admin-${width}-${colorScheme}`, findings);
    await look("accounts");
    await showGroups(page);
    await page.check("#select-page");
    await page.click("#next");
    await range(page, "51 to 100 of 123");
    await look("selected");
    await page.fill("#query", "nothing like it");
    await page.waitForSelector("#empty:visible");
    await look("empty");
    await page.selectOption("#type", "domain_user");
    await page.waitForSelector("#list-message:visible");
    await look("no-directory");
    await page.selectOption("#type", "local_user");
    await page.fill("#query", "lost");
    await range(page, "1 to 1 of 1");
    await page.click(".resets");
    await page.keyboard.press("Enter");
    await errorAt(page, "reset-password");
    await look("reset");
    await page.keyboard.press("Escape");
    await signOut(page);
    assert.deepEqual(findings, []);
  });
}
