// The second step from day to day, as a person meets it: refused codes and waits, a new phone, switching off.
import assert from "node:assert/strict";
import test from "node:test";

import { kWindows, looker, readQr } from "../support/browser.mjs";
import { run } from "../support/server.mjs";
import { Client } from "./client.mjs";
import { openStage, plain } from "./stage.mjs";
import {
  answerTo, atCodeField, atOverview, atStep, enter, errorAt, json, message, refuse, shownKey, signIn, signOut, tabTo,
  typeCode,
} from "./steps.mjs";

const kClosed = "There were too many wrong codes, so the second step is closed. Please ask your administrator to open it again.";
const kUsed = "That code was already used. Please wait for the next one.";

const { server, visit } = await openStage(plain(["words", "wait", "many", "emergency", "clock", "ahead", "phone",
  "fault", "reload", "tabs", "off", "enforced", "elsewhere", "keyboard", "looks"]));

// Enrols `user` by the interface. Gives the client, which is signed in, the key, and the code that confirmed it.
async function enrolled(user) {
  const client = new Client(server.url);
  const password = server.passwords[user];
  await client.post("/api/signin", { user, password });
  const { json: { key } } = await client.post("/api/otp/qr", { password, account_name: user });
  const used = server.code(key);
  const { json: answer } = await client.post("/api/otp/confirm", { password, code: used });
  assert.ok(answer.auth_ok, `${user} is enrolled`);
  return { client, key, used, next: () => { server.advance(30); return server.code(key); } };
}

// At the overview of somebody enrolled, in her own session.
async function atHome(t, user, options) {
  const page = await visit(t, options);
  const account = await enrolled(user);
  const [[name, value]] = account.client.cookies;
  await page.context().addCookies([{ name, value, url: server.url }]);
  await page.goto("/settings");
  await atOverview(page, { on: true });
  return { page, ...account };
}

// At the code field of the sign-in.
async function atSecondStep(t, user, options) {
  const page = await visit(t, options);
  const account = await enrolled(user);
  await atCodeField(page, server, user);
  return { page, ...account };
}

async function proveFor(page, form, password, code) {
  await page.fill(`#${form}-password`, password);
  await enter(page, `#${form}-code`, code);
}

async function startRenewal(page, password, code) {
  await page.click("#new-phone");
  await atStep(page, "password");
  await page.fill("#wizard-password", password);
  await enter(page, "#wizard-old-code", code);
  await atStep(page, "scan");
  return shownKey(page);
}

// --- words ---

test("every refusal of a code has its words in its place", async (t) => {
  const { page, key, used } = await atSecondStep(t, "words");
  await enter(page, "#code", used);
  assert.equal(await errorAt(page, "code"), kUsed);
  await enter(page, "#code", server.wrongCode(key));
  await page.waitForFunction(() => document.getElementById("code-error").textContent.startsWith("That code is not right."));
  for (const code of ["12345", "1234567", "123456789", "١٢٣٤٥٦", "-12345", "12345a"]) {
    await enter(page, "#code", code);
    assert.match(await errorAt(page, "code"), /^A code from the app has six digits, an emergency code has eight\./, code);
  }
  await enter(page, "#code", "");
  assert.equal(await errorAt(page, "code"), "Please type the code that your authenticator app shows.");

  for (const [status, err, words] of [
    [403, "otp_closed", kClosed],
    [503, "otp_unavailable", "Two-step sign-in cannot be checked at the moment. Until it can, nobody gets in on the " +
      "password alone. Please try again in a minute. If it stays like this, ask your administrator, who can see what is " +
      "wrong and let you in again."],
    [503, "busy", "The server is busy."],
  ]) {
    await refuse(page, "/api/signin/code", status, { err });
    await enter(page, "#code", "123456");
    assert.ok((await message(page)).startsWith(words), `${err}: ${await message(page)}`);
    assert.ok(await page.isVisible("#code-form"));
    await page.unroute("**/api/signin/code");
  }
  await refuse(page, "/api/signin/code", 403, { err: "no_pending_signin" });
  await enter(page, "#code", "123456");
  await page.waitForSelector("#password-form:visible");
  assert.match(await message(page), /^Too much time has passed since you typed your password\./);
});

test("blanks between the digits are not sent, and eight digits go through the same field", async (t) => {
  const { page } = await atSecondStep(t, "emergency");
  const sent = [];
  await page.route("**/api/signin/code", (route) => {
    sent.push(route.request().postDataJSON().code);
    return route.fulfill(json(401, { success: false, err: "otp_auth_failed" }));
  });
  assert.match(await page.textContent("#code-hint"), /eight digits/);
  for (const typed of ["123 456", " 1234 5678 ", "12\u00a034\u00a056\u00a078", "1 2 3 4 5 6 7 8"]) {
    await page.fill("#code", "");
    await page.focus("#code");
    await page.keyboard.type(typed);
    await page.keyboard.press("Enter");
    await errorAt(page, "code");
  }
  assert.deepEqual(sent, ["123456", "12345678", "12345678", "12345678"]);
});

test("a wait is counted down for the eye, told once to a screen reader, and ends by itself", async (t) => {
  const { page } = await atSecondStep(t, "wait");
  let sent = 0;
  await page.clock.install();
  await page.route("**/api/signin/code", (route) => {
    sent += 1;
    return route.fulfill(json(429, { success: false, err: "too_many_attempts" }, { "Retry-After": "120" }));
  });
  // What a screen reader is given: live regions, and the description of the field without what is hidden from it.
  await page.evaluate(() => {
    window.heard = [];
    for (const region of document.querySelectorAll("[role=status], [role=alert]")) {
      new MutationObserver(() => region.textContent && window.heard.push(region.textContent))
        .observe(region, { childList: true, characterData: true, subtree: true });
    }
  });
  const heard = () => page.evaluate(() => window.heard);
  const spoken = () => page.textContent("#code-error > :not([aria-hidden])");
  const seen = () => page.textContent("#code-error > [aria-hidden=true]");

  await enter(page, "#code", "123456");
  await errorAt(page, "code");
  assert.equal(await seen(), "Too many wrong codes. You can try again in 2 minutes.");
  assert.equal(await spoken(), "Too many wrong codes. You can try again in 2 minutes.");
  await page.clock.runFor(75_000);
  assert.equal(await seen(), "Too many wrong codes. You can try again in 45 seconds.");
  assert.equal(await spoken(), "Too many wrong codes. You can try again in 2 minutes.");
  assert.deepEqual(await heard(), ["Too many wrong codes. You can try again in 2 minutes."]);

  await page.keyboard.type("9");
  await page.keyboard.press("Enter");
  await page.clock.runFor(100);
  assert.equal(await page.inputValue("#code"), "123456");
  assert.equal(await page.getAttribute("#code-form [type=submit]", "aria-disabled"), "true");
  assert.equal(sent, 1);
  assert.equal((await heard()).at(-1), "Too many wrong codes. You can try again in 45 seconds.");

  await page.clock.runFor(45_000);
  assert.ok(!await page.isVisible("#code-error"));
  assert.deepEqual((await heard()).slice(2), ["You can try again now."]);
  assert.equal(await page.evaluate(() => document.activeElement.id), "code");
  assert.equal(await page.getAttribute("#code", "aria-invalid"), null);
  assert.equal(await page.getAttribute("#code-form [type=submit]", "aria-disabled"), null);
  await enter(page, "#code", "654321");
  await page.waitForSelector("#code-error:visible");
  assert.equal(sent, 2);
});

test("the server's own waits, its closing, and a code that the administrator gives out", async (t) => {
  const { page, key } = await atSecondStep(t, "many");
  const half = new Client(server.url);
  const signInAgain = () => half.post("/api/signin", { user: "many", password: server.passwords.many });
  const guess = () => half.post("/api/signin/code", { code: server.wrongCode(key) });
  await signInAgain();
  for (let i = 0; i < 5; ++i) {
    assert.equal((await guess()).json.err, "otp_auth_failed");
  }
  await enter(page, "#code", server.wrongCode(key));
  await errorAt(page, "code");
  assert.match(await page.textContent("#code-error > [aria-hidden]"), /^Too many wrong codes\. You can try again in (30|29) seconds\.$/);

  for (let i = 5; i < 50; ++i) {
    server.advance(3600);
    await signInAgain();
    assert.equal((await guess()).json.err, "otp_auth_failed", `guess ${i}`);
  }
  server.advance(3600);
  await page.goto("/");
  await signIn(page, "many", server.passwords.many);
  await page.waitForSelector("#code-form:visible");
  await enter(page, "#code", server.code(key));
  assert.equal(await message(page), kClosed);

  run("tavrctl", ["otp", "open", "many"]);
  const given = run("tavrctl", ["otp", "code", "many"]).match(/\b[0-9]{4} ?[0-9]{4}\b/)[0].replace(" ", "");
  await enter(page, "#code", `${given.slice(0, 4)} ${given.slice(4)}`);
  await atOverview(page, { on: true });
});

test("a wait of one account's password does not hold another's", async (t) => {
  const page = await visit(t);
  await refuse(page, "/api/signin", 429, { err: "too_many_attempts" }, { "Retry-After": "3600" });
  await signIn(page, "words", "wrong");
  await errorAt(page, "password");
  assert.equal(await page.textContent("#password-error > [aria-hidden]"), "Too many attempts. You can try again in 1 hour.");
  await page.unroute("**/api/signin");
  await page.fill("#user", "nobody");
  assert.ok(!await page.isVisible("#password-error"));
  await enter(page, "#password", "wrong");
  assert.equal(await errorAt(page, "password"), "User name or password is not right.");
});

// --- a new phone ---

test("a new phone takes over when its first code is typed, and the old one works until then", async (t) => {
  const { page, key: oldKey, next } = await atHome(t, "phone");
  const password = server.passwords.phone;
  await page.click("#new-phone");
  await atStep(page, "password");
  assert.equal(await page.textContent("#wizard-password-hint"), "Your old phone keeps working until the new one is confirmed.");
  await page.fill("#wizard-password", "not her password");
  await enter(page, "#wizard-old-code", next());
  assert.equal(await errorAt(page, "wizard-password"), "That is not the password of this account.");
  await page.fill("#wizard-password", password);
  await enter(page, "#wizard-old-code", server.wrongCode(oldKey));
  assert.match(await errorAt(page, "wizard-old-code"), /^That code is not right/);
  await enter(page, "#wizard-old-code", server.code(oldKey));
  await atStep(page, "scan");
  const newKey = await shownKey(page);
  assert.match(newKey, /^[A-Z2-7]{32}$/);
  assert.notEqual(newKey, oldKey);
  assert.ok((await readQr(page.locator("#wizard-qr"))).includes(`secret=${newKey}&`));
  assert.deepEqual(await page.locator(".steps li:visible").allInnerTexts(), ["Password", "Scan", "Code", "Done"]);
  await page.click("[data-action=scanned]");
  await atStep(page, "code");
  await typeCode(page, server.wrongCode(newKey));
  await errorAt(page, "wizard-code");

  // Not confirmed yet: the old phone signs in, elsewhere.
  const other = new Client(server.url);
  await other.post("/api/signin", { user: "phone", password });
  assert.equal((await other.post("/api/signin/code", { code: next() })).json.state, "signed_in");

  await typeCode(page, server.code(newKey));
  assert.match(await errorAt(page, "wizard-code"), /^Your old phone's code was used in this same half minute\./);
  server.advance(30);
  await typeCode(page, server.code(newKey));
  await atStep(page, "done");
  assert.equal(await page.textContent("#wizard-heading"), "Your new phone is set up");
  await page.click("[data-action=finish]");
  await atOverview(page, { on: true });
  assert.match(await message(page), /^Your new phone is set up\./);
  assert.equal((await other.get("/api/session")).status, 401, "the other session has ended");

  await signOut(page);
  await signIn(page, "phone", password);
  await page.waitForSelector("#code-form:visible");
  await enter(page, "#code", next());
  assert.match(await errorAt(page, "code"), /^That code is not right/);
  await enter(page, "#code", server.code(newKey));
  await atOverview(page, { on: true });
});

test("a renewal that was left, reloaded or lost leaves the old phone in force", async (t) => {
  const { page, key, next } = await atHome(t, "reload");
  const password = server.passwords.reload;
  const used = next();
  const first = await startRenewal(page, password, used);
  await page.reload();
  await atStep(page, "password");
  assert.match(await page.textContent("#wizard-note:visible"), /your old phone still holds/);
  assert.ok(await page.isVisible("#wizard-old-code"));
  await page.fill("#wizard-password", password);
  await enter(page, "#wizard-old-code", used);
  assert.equal(await errorAt(page, "wizard-old-code"), kUsed);
  await enter(page, "#wizard-old-code", next());
  await atStep(page, "scan");
  const second = await shownKey(page);
  assert.notEqual(second, first);

  await page.click("[data-action=scanned]");
  await page.route("**/api/otp/confirm", (route) => route.fulfill(json(503, { success: false, err: "otp_unavailable" })));
  await typeCode(page, server.code(second));
  assert.match(await errorAt(page, "wizard-code"), /your old phone still holds/);
  await page.unroute("**/api/otp/confirm");
  await page.goBack();
  await atStep(page, "scan");
  await page.click("[data-panel=scan] [data-action=leave]");
  await atOverview(page, { on: true });
  assert.ok(!await page.isVisible("#message"));

  await page.click("#show-again");
  await page.fill("#wizard-password", password);
  await page.press("#wizard-password", "Enter");
  await atStep(page, "scan");
  assert.equal(await shownKey(page), key);
});

test("a renewal whose answer was a fault after all is found out", async (t) => {
  const { page, next } = await atHome(t, "fault");
  const key = await startRenewal(page, server.passwords.fault, next());
  await page.click("[data-action=scanned]");
  await page.route("**/api/otp/confirm", async (route) => {
    const answer = await answerTo(route);
    await route.fulfill({ response: answer, ...json(503, { success: false, err: "otp_unavailable" }) });
  });
  server.advance(30);
  await typeCode(page, server.code(key));
  await atStep(page, "done");
  assert.match(await page.textContent("#wizard-note:visible"), /your code was accepted/);
});

test("in the wizard the clock of the phone is named when it is wrong", async (t) => {
  const { page, next } = await atHome(t, "clock");
  const key = await startRenewal(page, server.passwords.clock, next());
  await page.click("[data-action=scanned]");
  for (const [minutes, words] of [[3, "3 minutes ahead"], [1, "1 minute ahead"], [-1, "1 minute behind"], [-90, "90 minutes behind"]]) {
    await page.route("**/api/otp/confirm", async (route) => {
      const answer = await (await answerTo(route)).json();
      await route.fulfill(json(200, { ...answer, clock_ahead_minutes: minutes }));
    });
    await typeCode(page, server.wrongCode(key));
    assert.ok((await errorAt(page, "wizard-code"))
      .startsWith(`That code is not right: the clock of your phone seems to be ${words}.`), words);
    await page.unroute("**/api/otp/confirm");
  }
});

test("the server names the clock in a setup, and not at the sign-in", async (t) => {
  const { page, key } = await atSecondStep(t, "ahead");
  const ahead = (secret) => server.code(secret, 180);
  await enter(page, "#code", ahead(key));
  assert.match(await errorAt(page, "code"), /^That code is not right\. Please type the code that your app shows now/);
  server.advance(30);
  await enter(page, "#code", server.code(key));
  await atOverview(page, { on: true });
  server.advance(30);
  const next = await startRenewal(page, server.passwords.ahead, server.code(key));
  await page.click("[data-action=scanned]");
  await typeCode(page, ahead(next));
  assert.match(await errorAt(page, "wizard-code"), /^That code is not right: the clock of your phone seems to be 3 minutes ahead\./);
});

// --- switching off ---

test("two-step sign-in is switched off with password and code, and in other tabs too", async (t) => {
  const { page, key, next } = await atHome(t, "off");
  const password = server.passwords.off;
  const other = await page.context().newPage();
  await other.goto("/settings");
  await atOverview(other, { on: true });

  await page.click("#switch-off");
  assert.equal(await page.evaluate(() => document.activeElement.id), "off-heading");
  await page.click("#off-cancel");
  await atOverview(page, { on: true });
  await page.click("#switch-off");
  await page.click("#off-form [type=submit]");
  assert.equal(await errorAt(page, "off-password"), "Please type your password.");
  await proveFor(page, "off", "not her password", next());
  assert.equal(await errorAt(page, "off-password"), "That is not the password of this account.");
  await proveFor(page, "off", password, server.wrongCode(key));
  assert.match(await errorAt(page, "off-code"), /^That code is not right/);
  await proveFor(page, "off", password, server.code(key));
  await atOverview(page, { on: false });
  assert.equal(await message(page), "Two-step sign-in is off. You can delete the entry in your app.");
  await atOverview(other, { on: false });

  await signOut(page);
  await signIn(page, "off", password);
  await atOverview(page, { on: false });
});

test("where it is demanded it is not offered to switch off, and a refusal says why", async (t) => {
  const { page, next } = await atHome(t, "enforced");
  await page.click("#switch-off");
  await refuse(page, "/api/otp/disable", 403, { err: "otp_enforced" });
  await proveFor(page, "off", server.passwords.enforced, next());
  const words = "Your administrator asks for two-step sign-in on this account, so it cannot be switched off.";
  assert.equal(await message(page), words);
  await refuse(page, "/api/otp/disable", 429, { err: "too_many_attempts" }, { "Retry-After": "60" });
  await proveFor(page, "off", server.passwords.enforced, next());
  await errorAt(page, "off-code");
  assert.equal(await page.textContent("#off-code-error > [aria-hidden]"), "Too many attempts. You can try again in 1 minute.");
  await page.click("#off-cancel");

  await page.route("**/api/otp/status", async (route) => {
    const answer = await (await answerTo(route)).json();
    await route.fulfill(json(200, { ...answer, enforced: true, closed: true }));
  });
  await page.reload();
  await atOverview(page, { on: true });
  assert.equal(await page.textContent("#enforced:visible"), words);
  assert.equal(await page.textContent("#closed:visible"), kClosed);
  assert.ok(!await page.isVisible("#switch-off"));
  assert.ok(await page.isVisible("#new-phone"));
});

test("a session that was ended elsewhere is told apart from one that has run out", async (t) => {
  const { page, client } = await atHome(t, "elsewhere");
  await client.post("/api/signout");   // the same session, in somebody else's hands
  await page.click("#change-mail");
  await page.fill("#mail", "elsewhere@home.example");
  await proveFor(page, "mail", server.passwords.elsewhere, "123456");
  await page.waitForSelector("#password-form:visible");
  assert.match(await message(page), /^Your session was ended from another place/);
});

// --- keyboard, looks ---

test("a new phone and switching off with the keyboard alone", async (t) => {
  const { page, next } = await atHome(t, "keyboard");
  const password = server.passwords.keyboard;
  const type = (text) => page.keyboard.type(text);
  const press = (key) => page.keyboard.press(key);
  await tabTo(page, "#new-phone");
  await press("Enter");
  await atStep(page, "password");
  await tabTo(page, "#wizard-password");
  await type(password);
  await tabTo(page, "#wizard-old-code");
  await type(next());
  await press("Enter");
  await atStep(page, "scan");
  const key = await shownKey(page);
  await tabTo(page, "[data-action=scanned]");
  await press("Enter");
  await atStep(page, "code");
  await tabTo(page, "#wizard-code");
  server.advance(30);
  await type(server.code(key));
  await press("Enter");
  await atStep(page, "done");
  await tabTo(page, "[data-action=finish]");
  await press("Enter");
  await atOverview(page, { on: true });

  await tabTo(page, "#switch-off");
  await press("Enter");
  await tabTo(page, "#off-password");
  await type(password);
  await tabTo(page, "#off-code");
  server.advance(30);
  await type(server.code(key));
  await tabTo(page, "#off-form [type=submit]");
  await press("Enter");
  await atOverview(page, { on: false });
  assert.equal(await page.evaluate(() => document.activeElement.id), "heading");
});

test("waits, a new phone and switching off in small and large windows, light and dark", async (t) => {
  const password = server.passwords.looks;
  const { page, next } = await atHome(t, "looks");
  const findings = [];
  const lookers = kWindows.map(({ width, colorScheme }) =>
    ({ width, colorScheme, look: looker(page, `second-${width}-${colorScheme}`, findings) }));
  const look = async (what) => {
    for (const { width, colorScheme, look: lookOnce } of lookers) {
      await page.setViewportSize({ width, height: 800 });
      await page.emulateMedia({ colorScheme });
      await lookOnce(what);
    }
  };
  await look("overview");
  await page.click("#new-phone");
  await atStep(page, "password");
  await look("renew-password");
  await page.fill("#wizard-password", password);
  await enter(page, "#wizard-old-code", next());
  await atStep(page, "scan");
  const key = await shownKey(page);
  await page.click("[data-action=scanned]");
  await atStep(page, "code");
  server.advance(30);
  await typeCode(page, server.code(key));
  await atStep(page, "done");
  await look("renew-done");
  await page.click("[data-action=finish]");
  await atOverview(page, { on: true });
  await page.click("#switch-off");
  await look("switch-off");
  await refuse(page, "/api/otp/disable", 429, { err: "too_many_attempts" }, { "Retry-After": "90" });
  await proveFor(page, "off", password, "123456");
  await errorAt(page, "off-code");
  await look("switch-off-wait");
  await page.click("#off-cancel");
  await signOut(page);
  await signIn(page, "looks", password);
  await page.waitForSelector("#code-form:visible");
  await refuse(page, "/api/signin/code", 429, { err: "too_many_attempts" }, { "Retry-After": "90" });
  await enter(page, "#code", "123456");
  await errorAt(page, "code");
  await look("code-wait");
  assert.deepEqual(findings, []);
});
