// installed.mjs: a person's way through installed packages, in Chromium and over TLS, for scripts/test-package, which runs it
// in their machine's network with its console as `tavrctl`. The clock is the real one: a code is worked out once, in a
// half minute that has not had one, and stays good for another half minute.
//
// From the environment: TEST_ROOT, below which the packages are installed; TEST_URL; TEST_CERTIFICATE, a file with the one
// that is served; TEST_USER and TEST_PASSWORD, of an administrator without a second step; TEST_DEMANDED, set where she has
// to have one. Ends with 1 and a picture of the page in TEST_BUILD/screenshots when something is not as it should be.
import assert from "node:assert/strict";
import { createHash, X509Certificate } from "node:crypto";
import { readFileSync, rmSync } from "node:fs";
import { join } from "node:path";
import { setTimeout as sleep } from "node:timers/promises";

import { kScreenshots, newVisitor, readQr, startBrowser } from "../support/browser.mjs";
import { startNotificationServer } from "../support/mail.mjs";
import { codeAt, run } from "../support/server.mjs";
import {
  atOverview, atStep, enter, errorAt, listed, message, shownKey, signIn, signOut, startSetup, typeCode,
} from "./steps.mjs";

const { TEST_ROOT: root, TEST_URL: url, TEST_USER: user, TEST_PASSWORD: password } = process.env;
const isDemanded = process.env.TEST_DEMANDED !== undefined;
const kStep = 30;
const kUsed = "That code was already used. Please wait for the next one.";
const here = `--host-resolver-rules=MAP ${new URL(url).hostname} 127.0.0.1`;

// The certificate's own key and no other: every other one is judged as always.
const { publicKey } = new X509Certificate(readFileSync(process.env.TEST_CERTIFICATE));
const pin = createHash("sha256").update(publicKey.export({ type: "spki", format: "der" })).digest("base64");

let lastStep = 0;
async function nextCode(key) {
  while (Math.floor(Date.now() / 1000 / kStep) <= lastStep) {
    await sleep(100);
  }
  lastStep = Math.floor(Date.now() / 1000 / kStep);
  return codeAt(key, lastStep * kStep);
}

async function refusesAnotherCertificate() {
  const browser = await startBrowser([here]);
  try {
    const page = await (await browser.newContext()).newPage();
    await assert.rejects(page.goto(url), /ERR_CERT_AUTHORITY_INVALID/);
  } finally {
    await browser.close();
  }
}

async function atCode(page) {
  await signIn(page, user, password);
  await page.waitForSelector("#code-form:visible");
}

async function walk(page, mails) {
  await signIn(page, user, "not her password");
  assert.equal(await errorAt(page, "password"), "User name or password is not right.");
  await page.fill("#password", password);
  await page.keyboard.press("Enter");

  let key;
  if (isDemanded) {
    await atStep(page, "scan");
    assert.match(await page.textContent("#wizard-note"), /Your administrator asks for two-step sign-in/);
    key = await shownKey(page);
  } else {
    await atOverview(page, { on: false });
    key = await startSetup(page, password);
  }
  const label = `${user}@${new URL(url).hostname}`;
  assert.ok((await readQr(page.locator("#wizard-qr"))).startsWith(`otpauth://totp/${label}?secret=${key}&`), "the QR code");
  await page.click("[data-action=scanned]");
  await atStep(page, "code");
  const first = await nextCode(key);
  await typeCode(page, first);
  await atStep(page, "mail");
  await page.fill("#wizard-mail", `${user}@home.example`);
  await page.click("#wizard-mail-save");
  await atStep(page, "done");
  await page.click("[data-action=finish]");
  await atOverview(page, { on: true });
  await signOut(page);

  await atCode(page);
  await enter(page, "#code", first);
  assert.equal(await errorAt(page, "code"), kUsed);
  const second = await nextCode(key);
  await enter(page, "#code", second);
  await atOverview(page, { on: true });
  await signOut(page);

  await atCode(page);
  await enter(page, "#code", second);
  assert.equal(await errorAt(page, "code"), kUsed);
  await page.click("#no-app");
  assert.match(await message(page), /^An emergency code is on its way to your mailbox\./);
  const [mail] = await mails.codes(1);
  assert.deepEqual(mail.envelope.to, [`${user}@home.example`]);
  await enter(page, "#code", mail.code);
  await atOverview(page, { on: true });
  assert.equal(await page.textContent("#codes-left"), "9 codes left");

  await page.click("#to-admin");
  await listed(page, user);
  await page.locator("#rows tr", { hasText: user }).locator(".demands").check();
  await page.check("[name=option][value=custom]");
  await page.click("#save-option");
  assert.match(await message(page), /^Saved/);
  assert.match(readFileSync(join(root, "etc/tavr/tavrinfo.conf"), "utf8"), /^otp_enforce_option="custom"$/m);
  await signOut(page);
}

const mails = await startNotificationServer(root);
let browser;
try {
  await refusesAnotherCertificate();
  browser = await startBrowser([here, `--ignore-certificate-errors-spki-list=${pin}`]);
  const { context, problems } = await newVisitor(browser, url);
  const page = await context.newPage();
  try {
    await walk(page, mails);
    assert.deepEqual(problems, []);
  } catch (error) {
    await page.screenshot({ path: join(kScreenshots, "installed.png"), fullPage: true });
    throw error;
  }
  run("tavrctl", ["mail", "server", "off"]);
} finally {
  await browser?.close();
  await mails.stop();
  rmSync(mails.folder, { recursive: true });   // no private view takes it along
}
