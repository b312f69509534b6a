// Faults of the machine, made for real, as a person at the pages meets them.
import assert from "node:assert/strict";
import { readdirSync, readFileSync, renameSync, writeFileSync } from "node:fs";
import { join } from "node:path";
import test from "node:test";

import { run } from "../support/server.mjs";
import { openStage, plain } from "./stage.mjs";
import { atOverview, atStep, enrol, errorAt, givePassword, signIn, signOut, startSetup, typeCode } from "./steps.mjs";

const kPreferences = "/usr/tavr/etc/preference";
const kMachineKey = "/etc/tavr/otp.key";
const kQrTool = "/usr/bin/qrencode";

const { server, visit } = await openStage(plain(["alice", "bob", "carol", "dave"]));

async function signedIn(t, user) {
  const page = await visit(t);
  await signIn(page, user, server.passwords[user]);
  await atOverview(page, { on: false });
  return page;
}

function preferenceFolder(user) {
  const found = readdirSync(kPreferences).filter((name) => name.includes(user));
  assert.equal(found.length, 1, `one folder for ${user}`);
  return join(kPreferences, found[0]);
}

test("without the drawing tool the wizard says so, and goes on when it is back", async (t) => {
  const page = await signedIn(t, "alice");
  renameSync(kQrTool, `${kQrTool}.away`);
  try {
    await page.click("#start");
    await atStep(page, "password");
    await page.fill("#wizard-password", server.passwords.alice);
    await page.keyboard.press("Enter");
    await page.waitForSelector("#message:visible");
    assert.match(await page.textContent("#message"), /^The server cannot draw QR codes/);
  } finally {
    renameSync(`${kQrTool}.away`, kQrTool);
  }
  await givePassword(page, server.passwords.alice);
});

test("a folder that cannot be written at the confirmation: told, and the next code works", async (t) => {
  const page = await signedIn(t, "bob");
  const key = await startSetup(page, server.passwords.bob);
  await page.click("[data-action=scanned]");
  const folder = preferenceFolder("bob");
  run("chown", ["root:root", folder]);
  try {
    await typeCode(page, server.code(key));
    await page.waitForSelector("[data-action=check]:visible");
    assert.match(await page.textContent("#message"), /cannot say right now whether the code was accepted/);
  } finally {
    run("chown", ["tavr-web:tavr-web", folder]);
  }
  await page.click("[data-action=check]");
  assert.match(await errorAt(page, "wizard-code"), /not on yet\. Please type the next code/);
  assert.ok(!await page.isVisible("#message"));
  server.advance(30);
  await typeCode(page, server.code(key));
  await atStep(page, "mail");
  await page.click("[data-action=skip]");
  await page.click("[data-action=finish]");
  await atOverview(page, { on: true });

  await signOut(page);
  await signIn(page, "bob", server.passwords.bob);
  await page.waitForSelector("#code-form:visible");
  server.advance(30);
  await page.fill("#code", server.code(key));
  await page.keyboard.press("Enter");
  await atOverview(page, { on: true });
});

test("a damaged secret lets nobody in on the password, and says whom to ask", async (t) => {
  const page = await signedIn(t, "carol");
  await enrol(page, server, "carol");
  await page.click("[data-action=skip]");
  await page.click("[data-action=finish]");
  await atOverview(page, { on: true });
  await signOut(page);

  const file = join(preferenceFolder("carol"), "otp_secret");
  const whole = readFileSync(file);
  writeFileSync(file, "JBSWY3DPEHPK3PXP\n");
  await signIn(page, "carol", server.passwords.carol);
  await page.waitForSelector("#message:visible");
  assert.match(await page.textContent("#message"), /^Two-step sign-in cannot be checked at the moment\./);
  assert.ok(await page.isVisible("#password-form"));

  writeFileSync(file, whole);
  await signIn(page, "carol", server.passwords.carol);
  await page.waitForSelector("#code-form:visible");
});

test("without the machine key no secret is made, and the page says whom to ask", async (t) => {
  const page = await signedIn(t, "dave");
  renameSync(kMachineKey, `${kMachineKey}.away`);
  try {
    await page.click("#start");
    await atStep(page, "password");
    await page.fill("#wizard-password", server.passwords.dave);
    await page.keyboard.press("Enter");
    await page.waitForSelector("#message:visible");
    assert.match(await page.textContent("#message"), /^Two-step sign-in cannot be checked at the moment\./);
  } finally {
    renameSync(`${kMachineKey}.away`, kMachineKey);
  }
  await givePassword(page, server.passwords.dave);
});
