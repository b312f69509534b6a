// People of the system in Chromium: picked by a member of sudo, led from the password to the second step, with an address
// that is kept here, to which a code is mailed. By the interface alone: system_accounts_test.mjs.
import assert from "node:assert/strict";
import test, { after } from "node:test";

import { local } from "../support/accounts.mjs";
import { readQr } from "../support/browser.mjs";
import { startNotificationServer } from "../support/mail.mjs";
import { openStage } from "./stage.mjs";
import {
  atOverview, atStep, enter, errorAt, listed, message, openAdmin, range, shownKey, signIn, signOut, typeCode,
} from "./steps.mjs";
import { enrol } from "./wizard.mjs";

const { server, visit } = await openStage({ ada: ["--admin", "--desc", "Ada"], ben: ["--desc", "Ben <b>B.</b>"], eve: [] });
local.addGroup("crew");
local.join("crew", "ben");
const mails = await startNotificationServer();
after(() => mails.stop());
const ada = await enrol(server, "ada");

test("an administrator picks a group of the system", async (t) => {
  const page = await openAdmin(await visit(t), ada);
  await listed(page, "ben");
  assert.deepEqual(await page.locator("#rows .name").allTextContents(), ["ada", "ben", "eve"]);
  assert.equal(await page.locator("#rows tr", { hasText: "ben" }).locator(".description").textContent(), "Ben <b>B.</b>");
  await page.selectOption("#type", "local_group");
  await listed(page, "sudo");
  await page.fill("#query", "crew");
  await range(page, "1 to 1 of 1");
  await page.check(".demands");
  await page.waitForSelector("#rows .demands:enabled:checked");
  await page.check("[name=option][value=custom]");
  await page.click("#save-option");
  assert.match(await message(page), /^Saved/);
  await page.locator("#not-enrolled", { hasText: "1 account of this server has to use it" }).waitFor();
});

test("a member of it is led to the second step, signs in with it, and with a code that is mailed", async (t) => {
  const page = await visit(t);
  await signIn(page, "ben", "wrong");
  assert.equal(await errorAt(page, "password"), "User name or password is not right.");
  await signIn(page, "Ben", server.passwords.ben);
  await atStep(page, "scan");
  const key = await shownKey(page);
  assert.ok((await readQr(page.locator("#wizard-qr"))).startsWith(`otpauth://totp/ben@127.0.0.1?secret=${key}`));
  await page.click("[data-action=scanned]");
  await typeCode(page, server.code(key));
  await atStep(page, "mail");
  await page.fill("#wizard-mail", "ben@home.example");
  await page.click("#wizard-mail-save");
  await atStep(page, "done");
  await page.click("[data-action=finish]");
  await atOverview(page, { on: true });
  assert.equal(await page.textContent("#mail-now"), "b***@home.example");

  await signOut(page);
  await signIn(page, "ben", server.passwords.ben);
  await page.waitForSelector("#code-form:visible");
  server.advance(30);
  await enter(page, "#code", server.code(key));
  await atOverview(page, { on: true });

  await signOut(page);
  await signIn(page, "ben", server.passwords.ben);
  await page.waitForSelector("#code-form:visible");
  await page.click("#no-app");
  const [mail] = await mails.codes(1);
  assert.deepEqual(mail.envelope.to, ["ben@home.example"]);
  await enter(page, "#code", mail.code);
  await atOverview(page, { on: true });
});

test("whoever gets another password of the system has to sign in anew", async (t) => {
  const page = await visit(t);
  await signIn(page, "eve", server.passwords.eve);
  await atOverview(page, { on: false });
  assert.equal(await page.isVisible("#to-admin"), false);
  server.passwords.eve = "another one";
  local.setPassword("eve", server.passwords.eve);
  await page.reload();
  await page.waitForSelector("#password-form:visible");
  await signIn(page, "eve", server.passwords.eve);
  await atOverview(page, { on: false });
});
