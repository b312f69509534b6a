// Somebody of whom the administrator demands two-step sign-in, in the browser: from the password straight into the
// wizard, no session before the first code, no way to switch it off, a new phone all the same.
import assert from "node:assert/strict";
import { chownSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import test from "node:test";

import { kWindows, looker } from "../support/browser.mjs";
import { run } from "../support/server.mjs";
import { openStage, plain } from "./stage.mjs";
import { atOverview, atStep, enrol, message, shownKey, signIn, signOut, typeCode } from "./steps.mjs";

const kPicks = "/usr/tavr/etc/tavr_otp_enforce_custom_setting";
const kDemanded = "Your administrator asks for two-step sign-in. Set it up now, it takes a minute.";
const kNotOff = "Your administrator asks for two-step sign-in on this account, so it cannot be switched off.";

const pickedNames = kWindows.map(({ width, colorScheme }) => `${colorScheme}${width}`);
const { server, visit } = await openStage(plain([...pickedNames, "leaver", "late", "unknown"]));
const enforce = (...words) => run("tavrctl", ["enforce", ...words]);
enforce("option", "custom");
enforce("add", "local_user", ...pickedNames, "leaver");

const hasSession = async (page) => (await page.context().cookies()).some(({ name }) => name === "sid");

for (const { width, colorScheme } of kWindows) {
  test(`from the password to the second step at ${width} pixels, ${colorScheme}`, async (t) => {
    const page = await visit(t, { colorScheme, viewport: { width, height: 800 } });
    const user = `${colorScheme}${width}`;
    const findings = [];
    const look = looker(page, `demanded-${width}-${colorScheme}`, findings);

    await signIn(page, user, server.passwords[user]);
    await atStep(page, "scan");
    assert.equal(await page.textContent("#wizard-note"), kDemanded);
    assert.equal(await hasSession(page), false);
    await look("scan");
    const key = await shownKey(page);
    await page.click("[data-action=scanned]");
    await atStep(page, "code");
    await typeCode(page, server.code(key));
    await atStep(page, "mail");
    assert.equal(await hasSession(page), true);
    await look("mail");
    await page.click("[data-action=skip]");
    await atStep(page, "done");
    await page.click("[data-action=finish]");
    await atOverview(page, { on: true });
    assert.equal(await page.textContent("#enforced"), kNotOff);
    assert.equal(await page.isVisible("#switch-off"), false);
    await look("settings");

    // A new phone.
    await page.click("#new-phone");
    await atStep(page, "password");
    await page.fill("#wizard-password", server.passwords[user]);
    server.advance(30);
    await page.fill("#wizard-old-code", server.code(key));
    await page.click("[data-panel=password] [type=submit]");
    await atStep(page, "scan");
    const next = await shownKey(page);
    assert.notEqual(next, key);
    await page.click("[data-action=scanned]");
    server.advance(30);
    await typeCode(page, server.code(next));
    await atStep(page, "done");
    await page.click("[data-action=finish]");
    await atOverview(page, { on: true });

    await signOut(page);
    await signIn(page, user, server.passwords[user]);
    await page.waitForSelector("#code-form:visible");
    assert.deepEqual(findings, []);
  });
}

test("without the first code there is no session, whatever the user tries", async (t) => {
  const page = await visit(t);
  await signIn(page, "leaver", server.passwords.leaver);
  await atStep(page, "scan");
  await page.reload();
  await atStep(page, "password");
  assert.match(await page.textContent("#wizard-note"), /^The page was reloaded/);
  await page.fill("#wizard-password", server.passwords.leaver);
  await page.click("[data-panel=password] [type=submit]");
  await atStep(page, "scan");
  await page.click("[data-panel=scan] [data-action=leave]");
  await page.waitForSelector("#password-form:visible");
  assert.equal(await message(page), "Two-step sign-in is not set up yet. Sign in to go on with it.");
  await page.goto("/settings");
  await page.waitForSelector("#password-form:visible");
  assert.equal(new URL(page.url()).pathname, "/", "not a page of somebody signed in");
  assert.equal(await hasSession(page), false);
});

test("switching off is refused when it came to be demanded with the form open", async (t) => {
  const page = await visit(t);
  await signIn(page, "late", server.passwords.late);
  await atOverview(page, { on: false });
  const key = await enrol(page, server, "late");
  await page.click("[data-action=skip]");
  await atStep(page, "done");
  await page.click("[data-action=finish]");
  await atOverview(page, { on: true });
  await page.click("#switch-off");
  enforce("add", "local_user", "late");
  server.advance(30);
  await page.fill("#off-password", server.passwords.late);
  await page.fill("#off-code", server.code(key));
  await page.click("#off-form [type=submit]");
  assert.equal(await message(page), kNotOff);
  await page.click("#off-cancel");
  await atOverview(page, { on: true });
  assert.equal(await page.isVisible("#switch-off"), false);
});

test("nobody is signed in while it cannot be told", async (t) => {
  const page = await visit(t, { viewport: { width: 360, height: 800 } });
  const findings = [];
  const look = looker(page, "demanded-unknown", findings);
  const picks = readFileSync(kPicks, "utf8");
  rmSync("/var/lib/tavr/policy.copy");
  writeFileSync(kPicks, "[]");
  await signIn(page, "unknown", server.passwords.unknown);
  assert.match(await message(page), /cannot be told at the moment whether your account needs two-step sign-in/);
  assert.equal(await hasSession(page), false);
  await look("sign-in");
  writeFileSync(kPicks, picks);
  chownSync(kPicks, 64217, 64217);
  await page.click("#password-form [type=submit]");
  await atOverview(page, { on: false });
  assert.deepEqual(findings, []);
});
