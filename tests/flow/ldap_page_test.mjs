// People of an LDAP directory in Chromium: made to by a group, signing in, an address that is not theirs to change, the
// code that is mailed to it, and the administrator's lists, those of a domain too. By the interface alone: ldap_test.mjs,
// domain_lists_test.mjs.
import assert from "node:assert/strict";
import test, { after } from "node:test";

import { inEveryWindow } from "../support/browser.mjs";
import { startController, startDirectory } from "../support/directory.mjs";
import { startNotificationServer } from "../support/mail.mjs";
import { run } from "../support/server.mjs";
import { openStage } from "./stage.mjs";
import {
  atOverview, atStep, enter, listed, message, openAdmin, range, shownKey, signIn, signOut, startSetup, typeCode,
} from "./steps.mjs";
import { enrol } from "./wizard.mjs";

const kFixed = "This address comes from your organisation's directory and cannot be changed here.";
const kNone = "Your organisation's directory has no recovery address for you. Your administrator can enter one there; it " +
  "cannot be done here.";

const { server, visit } = await openStage({ ada: ["--admin"] });
const directory = await startDirectory(["--users", "240", "--groups", "60"]);
after(() => directory.stop());
directory.setUp();
const mails = await startNotificationServer();
after(() => mails.stop());
const ada = await enrol(server, "ada");

const passwordOf = (n) => `pw-${String(n).padStart(4, "0")}`;
const nameOf = (n) => `user${String(n).padStart(4, "0")}@office.example`;
test("an administrator picks a group of the directory", async (t) => {
  const page = await openAdmin(await visit(t), ada);
  await page.selectOption("#type", "ldap_group");
  await page.fill("#query", "group 002");
  await range(page, "1 to 1 of 1");
  assert.equal(await page.textContent("#rows .name"), "group002@office.example");
  await page.check(".demands");
  await page.check("[name=option][value=custom]");
  await page.click("#save-option");
  assert.match(await message(page), /^Saved/);

  const other = await visit(t);
  await signIn(other, nameOf(2), passwordOf(2));
  await atOverview(other, { on: false });
});

test("its members are led from the password to the second step, and mailed a code to the directory's address", async (t) => {
  const page = await visit(t);
  const look = inEveryWindow(t, page, "ldap");
  await signIn(page, nameOf(1).toUpperCase(), passwordOf(1));
  await atStep(page, "scan");
  assert.match(await page.textContent("#wizard-note"), /^Your administrator asks for two-step sign-in\./);
  const key = await shownKey(page);
  await page.click("[data-action=scanned]");
  await typeCode(page, server.code(key));
  await atStep(page, "mail");
  assert.equal(await page.textContent("#wizard-heading"), "Two-step sign-in is on");
  assert.equal(await page.textContent("#wizard-mail-fixed"),
    `If your phone is lost, an emergency code can be mailed to user0001@home.example. ${kFixed}`);
  assert.equal(await page.isVisible("#wizard-mail"), false);
  assert.equal(await page.isVisible("[data-action=skip]"), false);
  await look("address");
  await page.click("#wizard-mail-save");
  await atStep(page, "done");
  assert.equal(await page.textContent("#wizard-done-mail"), "Recovery address: user0001@home.example");
  await page.click("[data-action=finish]");
  await atOverview(page, { on: true });
  assert.equal(await page.textContent("#mail-now"), "u***@home.example");
  assert.equal(await page.textContent("#mail-fixed"), kFixed.replace("This address", "It"));
  assert.equal(await page.isVisible("#change-mail"), false);
  await look("settings");

  await signOut(page);
  await signIn(page, nameOf(1), passwordOf(1));
  await page.waitForSelector("#code-form:visible");
  server.advance(30);
  await enter(page, "#code", server.code(key));
  await atOverview(page, { on: true });

  await signOut(page);
  await signIn(page, nameOf(1), passwordOf(1));
  await page.waitForSelector("#code-form:visible");
  await look("code");
  await page.click("#no-app");
  const [mail] = await mails.codes(1);
  assert.deepEqual(mail.envelope.to, ["user0001@home.example"]);
  await enter(page, "#code", mail.code);
  await atOverview(page, { on: true });
});

test("who has no address in the directory is told so, and nothing can be mailed", async (t) => {
  const page = await visit(t);
  await signIn(page, "nomail@office.example", "nomail-password");
  await atOverview(page, { on: false });
  const key = await startSetup(page, "nomail-password");
  await page.click("[data-action=scanned]");
  await typeCode(page, server.code(key));
  await atStep(page, "mail");
  assert.equal(await page.textContent("#wizard-mail-fixed"), kNone);
  await page.click("#wizard-mail-save");
  await atStep(page, "done");
  assert.equal(await page.textContent("#wizard-done-mail"), "");
  await page.click("[data-action=finish]");
  await atOverview(page, { on: true });
  assert.equal(await page.textContent("#mail-now"), "None yet");
  assert.equal(await page.textContent("#mail-fixed"), kNone);
  await signOut(page);
  await signIn(page, "nomail@office.example", "nomail-password");
  await page.waitForSelector("#code-form:visible");
  await page.click("#no-app");
  assert.match(await message(page), /^There is no recovery address on file for this account/);
});

test("the directory is listed page by page and searched", async (t) => {
  const page = await openAdmin(await visit(t), ada);
  const look = inEveryWindow(t, page, "ldap-admin");
  await page.selectOption("#type", "ldap_user");
  await page.fill("#query", "user 0");
  await range(page, "1 to 50 of 240");
  for (const text of ["51 to 100 of 240", "101 to 150 of 240", "151 to 200 of 240", "201 to 240 of 240"]) {
    await page.click("#next");
    await range(page, text);
  }
  await page.fill("#query", "USER 000");
  await range(page, "1 to 9 of 9");
  await look("accounts");
  await page.fill("#query", "LEA B.");
  await range(page, "1 to 1 of 1");
  assert.deepEqual([await page.textContent("#rows .name"), await page.textContent("#rows .description")],
    ["lea@office.example", "Lea B."]);
  await page.fill("#query", "*");
  await range(page, "1 to 4 of 4");
  await page.fill("#query", "");
  await page.selectOption("#type", "ldap_group");
  await range(page, "1 to 50 of 66");
  await page.selectOption("#filter", "enforced");
  await range(page, "1 to 1 of 1");
  assert.equal(await page.textContent("#rows .name"), "group002@office.example");
  await look("groups");
});

test("while the directory is away its lists say so, and local ones are there", async (t) => {
  const page = await openAdmin(await visit(t), ada);
  await directory.stop();
  await page.selectOption("#type", "ldap_user");
  await page.waitForSelector("#list-message:visible");
  assert.match(await page.textContent("#list-message"), /^The directory did not answer/);
  await page.click("#list-retry");
  await page.waitForSelector("#list-message:visible");
  await page.selectOption("#type", "local_user");
  await listed(page, "ada");
  assert.equal(await page.isVisible("#list-message"), false);
});

test("a domain is listed once it is copied, and its people and groups are picked", async (t) => {
  const controller = await startController(["--users", "120"]);
  t.after(() => controller.stop());
  controller.setUp();
  const page = await openAdmin(await visit(t), ada);
  const look = inEveryWindow(t, page, "domain-admin");
  await page.selectOption("#type", "domain_group");
  await page.waitForSelector("#list-message:visible");
  assert.match(await page.textContent("#list-message"), /^There is no copy of this domain's directory yet/);
  await look("no-copy");
  run("tavrctl", ["domain", "sync"]);
  await page.click("#list-retry");
  await range(page, "1 to 5 of 5");
  assert.equal(await page.isVisible("#list-message"), false);
  await page.selectOption("#type", "domain_user");
  await range(page, "1 to 50 of 121");
  await page.click("#next");
  await range(page, "51 to 100 of 121");
  await page.fill("#domain", "Sales/Inner");
  await range(page, "1 to 1 of 1");
  assert.deepEqual([await page.textContent("#rows .name"), await page.textContent("#rows .description")],
    ["CORP\\dan", "Dan, the Man"]);
  await page.check(".demands");
  await page.waitForSelector("#rows .demands:enabled:checked");
  await page.fill("#domain", "");
  await page.selectOption("#filter", "enforced");
  await range(page, "1 to 1 of 1");
  await page.reload();
  await listed(page, "ada");
  await page.selectOption("#type", "domain_user");
  await page.fill("#query", "USER 00001");
  await range(page, "1 to 10 of 10");
  assert.equal(await page.locator("#rows .demands:checked").count(), 0);
  await page.fill("#query", "the man");
  await range(page, "1 to 1 of 1");
  assert.equal(await page.isChecked("#rows .demands"), true);
  await look("picked");
});
