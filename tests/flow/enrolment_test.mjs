// A whole enrolment as a person does it, with the mouse and with the keyboard alone.
import assert from "node:assert/strict";
import test from "node:test";

import { readQr } from "../support/browser.mjs";
import { openStage } from "./stage.mjs";
import {
  atOverview, atStep, errorAt, givePassword, shownKey, signIn, signOut, startSetup, tabTo as walkTo, typeCode,
} from "./steps.mjs";

const { server, visit } = await openStage({ alice: [], bob: [], carol: ["--mail", "carol@example.com"] });

// Everything a page could leave behind: nothing of what must stay secret may be in it.
async function assertNothingKept(page, secrets) {
  const kept = await page.evaluate(() => JSON.stringify([
    { ...localStorage }, { ...sessionStorage }, history.state, document.cookie, location.href,
  ]));
  for (const secret of secrets) {
    assert.ok(!kept.includes(secret), "a secret in the browser's storage, history or address");
  }
}

test("enrolment with the QR code off the screen, then sign-in with password and code", async (t) => {
  const page = await visit(t);
  const password = server.passwords.alice;

  await signIn(page, "alice", "not her password");
  assert.equal(await errorAt(page, "password"), "User name or password is not right.");
  await page.fill("#password", password);
  await page.keyboard.press("Enter");
  await atOverview(page, { on: false });
  assert.match(await page.textContent("#who"), /Signed in as alice/);

  const key = await startSetup(page, password);
  assert.match(key, /^[A-Z2-7]{32}$/);
  assert.equal(await page.innerText("#wizard-key"), key.match(/.{4}/g).join(" "));
  const uri = await readQr(page.locator("#wizard-qr"));
  assert.ok(uri.startsWith(`otpauth://totp/alice@127.0.0.1?secret=${key}&issuer=Morvane%20Orbis`), "what the camera reads");
  await assertNothingKept(page, [password, key]);

  await page.click("[data-action=scanned]");
  await atStep(page, "code");
  await typeCode(page, server.wrongCode(key));
  assert.match(await errorAt(page, "wizard-code"), /^That code is not right\./);
  const confirmed = server.code(key);
  await typeCode(page, `${confirmed.slice(0, 3)} ${confirmed.slice(3)}`);
  await atStep(page, "mail");

  await page.fill("#wizard-mail", "no address");
  await page.click("#wizard-mail-save");
  assert.match(await errorAt(page, "wizard-mail"), /does not look like a mail address/);
  await page.fill("#wizard-mail", "alice@home.example");
  await page.click("#wizard-mail-save");
  await atStep(page, "done");
  assert.match(await page.textContent("#wizard-done-mail"), /alice@home\.example/);
  await page.click("[data-action=finish]");
  await atOverview(page, { on: true });
  assert.equal(await page.textContent("#codes-left"), "10 codes left");
  assert.equal(await page.textContent("#mail-now"), "a***@home.example");
  await assertNothingKept(page, [password, key]);

  await signOut(page);
  assert.equal(await page.textContent("#message"), "You are signed out.");
  await signIn(page, "alice", password);
  await page.waitForSelector("#code-form:visible");
  await page.reload();
  await page.waitForSelector("#code-form:visible");
  assert.equal(await page.textContent("#code-for"), "Signing in as alice.");
  await page.fill("#code", confirmed);
  await page.keyboard.press("Enter");
  assert.equal(await errorAt(page, "code"), "That code was already used. Please wait for the next one.");
  await page.fill("#code", server.wrongCode(key));
  await page.keyboard.press("Enter");
  await page.waitForFunction(() => document.getElementById("code-error").textContent.startsWith("That code is not right."));
  server.advance(30);
  const used = server.code(key);
  await page.fill("#code", used);
  await page.keyboard.press("Enter");
  await atOverview(page, { on: true });

  await signOut(page);
  await signIn(page, "alice", password);
  await page.fill("#code", used);
  await page.keyboard.press("Enter");
  assert.equal(await errorAt(page, "code"), "That code was already used. Please wait for the next one.");
  await page.click("#other-account");
  await page.waitForSelector("#password-form:visible");
});

test("the same with the keyboard alone", async (t) => {
  const page = await visit(t);
  const password = server.passwords.bob;
  const press = (key) => page.keyboard.press(key);
  const type = (text) => page.keyboard.type(text);
  const tabTo = (selector) => walkTo(page, selector);

  await page.goto("/");
  await page.waitForSelector("#password-form:visible");
  await tabTo("#user");
  await type("bob");
  await tabTo("#password");
  await type(password);
  await press("Tab");
  await press("Space");   // show it
  assert.equal(await page.getAttribute("#password", "type"), "text");
  assert.equal(await page.getAttribute("[data-shows=password]", "aria-pressed"), "true");
  await tabTo("#password-form [type=submit]");
  await press("Enter");

  await atOverview(page, { on: false });
  await tabTo("#start");
  await press("Enter");
  await atStep(page, "password");
  await tabTo("#wizard-password");
  await type(password);
  await press("Enter");
  await atStep(page, "scan");
  const key = await shownKey(page);
  await tabTo("#wizard-copy");
  await press("Enter");
  await page.waitForFunction(() => document.getElementById("live").textContent === "Key copied.");
  await tabTo("#wizard-label");
  await press("Control+A");
  await type("bob's server");
  await press("Enter");
  await page.waitForFunction(() => document.getElementById("live").textContent.includes("bob's server"));
  assert.ok((await readQr(page.locator("#wizard-qr"))).startsWith(`otpauth://totp/bob's%20server?secret=${key}&`));
  await tabTo("[data-action=scanned]");
  await press("Enter");
  await atStep(page, "code");
  await tabTo("#wizard-code");
  await type(server.code(key));
  await press("Enter");
  await atStep(page, "mail");
  await tabTo("[data-action=skip]");
  await press("Enter");
  await atStep(page, "done");
  await tabTo("[data-action=finish]");
  await press("Enter");
  await atOverview(page, { on: true });
  assert.equal(await page.textContent("#mail-now"), "None yet");
  await tabTo("#sign-out");
  await press("Enter");
  await page.waitForSelector("#password-form:visible");
});

test("an address that is known already is offered, and the code is shown again with the same key", async (t) => {
  const page = await visit(t);
  const password = server.passwords.carol;
  await signIn(page, "carol", password);
  await atOverview(page, { on: false });
  const key = await startSetup(page, password);
  await page.click("[data-action=scanned]");
  await typeCode(page, server.code(key));
  await atStep(page, "mail");
  assert.equal(await page.inputValue("#wizard-mail"), "carol@example.com");
  await page.click("#wizard-mail-save");
  await atStep(page, "done");
  await page.click("[data-action=finish]");
  await atOverview(page, { on: true });

  await page.click("#show-again");
  await atStep(page, "password");
  assert.equal(await givePassword(page, password), key);
  await page.click("[data-action=scanned]");   // "Close" here
  await atOverview(page, { on: true });

  await page.click("#change-mail");
  await page.fill("#mail", "carol@home.example");
  await page.fill("#mail-password", "not her password");
  server.advance(30);
  await page.fill("#mail-code", server.code(key));
  await page.keyboard.press("Enter");
  assert.equal(await errorAt(page, "mail-password"), "That is not the password of this account.");
  await page.fill("#mail-password", password);
  await page.keyboard.press("Enter");
  await page.waitForSelector("#overview:visible");
  assert.equal(await page.textContent("#message"), "Recovery address saved.");
  assert.equal(await page.textContent("#mail-now"), "c***@home.example");
});

test("the server's log holds no secret of all this", () => {
  for (const secret of [...Object.values(server.passwords), "otpauth:"]) {
    assert.ok(!server.log().includes(secret));
  }
});
