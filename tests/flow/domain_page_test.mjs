// Somebody of a domain in Chromium: picked by a group in a group from the administrator's lists, led from the password to
// the second step, with an address that is kept here, to which a code is mailed. By the interface alone: domain_test.mjs,
// domain_lists_test.mjs.
import assert from "node:assert/strict";
import test, { after } from "node:test";

import { inEveryWindow, readQr } from "../support/browser.mjs";
import { startDomain } from "../support/domain.mjs";
import { startNotificationServer } from "../support/mail.mjs";
import { run } from "../support/server.mjs";
import { openStage } from "./stage.mjs";
import {
  atOverview, atStep, enter, errorAt, listed, message, openAdmin, range, shownKey, signIn, signOut, typeCode,
} from "./steps.mjs";
import { enrol } from "./wizard.mjs";

const kDan = "CORP\\dan";
const kDanPassword = "dan-password";
const kMail = "dan@home.example";

const { server, visit } = await openStage({ ada: ["--admin"], dan: [] });
const domain = await startDomain();
after(() => domain.stop());
domain.setUp();
const mails = await startNotificationServer();
after(() => mails.stop());
run("tavrctl", ["domain", "sync"]);
const ada = await enrol(server, "ada");

let key;

test("an administrator picks a group of the domain", async (t) => {
  const page = await openAdmin(await visit(t), ada);
  await page.selectOption("#type", "domain_group");
  await page.fill("#query", "storage");
  await range(page, "1 to 1 of 1");
  assert.equal(await page.textContent("#rows .name"), "CORP\\storage");
  await page.check(".demands");
  await page.waitForSelector("#rows .demands:enabled:checked");
  await page.check("[name=option][value=custom]");
  await page.click("#save-option");
  assert.match(await message(page), /^Saved/);

  for (const [user, password] of [["CORP\\user000002", "pw-000002"], ["dan", server.passwords.dan]]) {
    const other = await visit(t);
    await signIn(other, user, password);
    await atOverview(other, { on: false });
  }
});

test("a member of a group of it is led to the second step, and keeps an address here", async (t) => {
  const page = await visit(t);
  const look = inEveryWindow(t, page, "domain");
  await signIn(page, "dan@corp.test", kDanPassword);
  await atStep(page, "scan");
  assert.match(await page.textContent("#wizard-note"), /^Your administrator asks for two-step sign-in\./);
  key = await shownKey(page);
  const [label, query] = (await readQr(page.locator("#wizard-qr"))).split("?");
  assert.deepEqual([decodeURIComponent(label), new URLSearchParams(query).get("secret")],
    [`otpauth://totp/${kDan}@127.0.0.1`, key]);
  await page.click("[data-action=scanned]");
  await typeCode(page, server.code(key));
  await atStep(page, "mail");
  await page.fill("#wizard-mail", "no address");
  await page.click("#wizard-mail-save");
  assert.match(await errorAt(page, "wizard-mail"), /does not look like a mail address/);
  await page.fill("#wizard-mail", kMail);
  await page.click("#wizard-mail-save");
  await atStep(page, "done");
  assert.equal(await page.textContent("#wizard-done-mail"), `Recovery address: ${kMail}`);
  await page.click("[data-action=finish]");
  await atOverview(page, { on: true });
  assert.equal(await page.textContent("#mail-now"), "d***@home.example");
  assert.equal(await page.isVisible("#change-mail"), true);
  assert.equal(await page.isVisible("#switch-off"), false);
  await look("settings");
});

test("she signs in with a code, and without the phone with one that is mailed", async (t) => {
  const page = await visit(t);
  await signIn(page, "corp\\DAN", kDanPassword);
  await page.waitForSelector("#code-form:visible");
  assert.equal(await page.textContent("#code-for"), "Signing in as CORP\\dan.");
  server.advance(30);
  await enter(page, "#code", server.code(key));
  await atOverview(page, { on: true });

  await signOut(page);
  await signIn(page, kDan, kDanPassword);
  await page.waitForSelector("#code-form:visible");
  await page.click("#no-app");
  const [mail] = await mails.codes(1);
  assert.deepEqual(mail.envelope.to, [kMail]);
  assert.match(await message(page), /^An emergency code is on its way to your mailbox\./);
  await enter(page, "#code", mail.code);
  await atOverview(page, { on: true });
  assert.equal(await page.textContent("#codes-left"), "9 codes left");
});

test("the administrator finds her by name and by unit, and picks her by herself", async (t) => {
  const page = await openAdmin(await visit(t), ada);
  const look = inEveryWindow(t, page, "domain-lists");
  await page.selectOption("#type", "domain_user");
  await range(page, "1 to 21 of 21");
  await page.fill("#query", "the man");
  await range(page, "1 to 1 of 1");
  assert.deepEqual([await page.textContent("#rows .name"), await page.textContent("#rows .description")],
    [kDan, "Dan, the Man"]);
  await page.check(".demands");
  await page.waitForSelector("#rows .demands:enabled:checked");
  await look("picked");
  await page.fill("#query", "");
  await page.fill("#domain", "Berlin");
  await range(page, "1 to 10 of 10");
  await page.fill("#domain", "Sales/Inner");
  await range(page, "1 to 1 of 1");
  assert.equal(await page.isChecked("#rows .demands"), true);
  await listed(page, kDan);
});

test("while the domain is away she is told so, and an administrator is let in", async (t) => {
  const page = await visit(t);
  domain.killClient();
  await signIn(page, kDan, kDanPassword);
  assert.match(await message(page), /^Two-step sign-in cannot be checked at the moment\./);
  const lists = await openAdmin(await visit(t), ada);
  await lists.selectOption("#type", "domain_user");
  await listed(lists, kDan);
});
