// "I can't use my app": what the page says of every outcome, how it is reached, and the code that comes. By the interface
// alone: emergency_mail_test.mjs.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import test, { after } from "node:test";

import { kWindows, looker } from "../support/browser.mjs";
import { addMailAccount, setNotificationServer, startMailServer, trust } from "../support/mail.mjs";
import { run } from "../support/server.mjs";
import { signIn } from "./client.mjs";
import { openStage, plain } from "./stage.mjs";
import { atCodeField, atOverview, enter, errorAt, json, message, refuse, signOut, tabTo } from "./steps.mjs";
import { enrol } from "./wizard.mjs";

const kRoute = "/api/signin/emergency";
const kMailed = "An emergency code is on its way to your mailbox. Type its eight digits here when it arrives; if it does " +
  "not, look among your junk mail. Until it is used, asking again sends the same code.";
const kMailedLast = "Your last emergency code is on its way to your mailbox. Type its eight digits here when it arrives. " +
  "Then open the settings and choose “Move to a new phone”: that makes new emergency codes. It asks for a code once " +
  "more; if you have none, your administrator can give you one.";

const { server, visit } = await openStage({
  ...plain(["nowhere", "words", "taken", "app", "keyboard", "wait", "looks"]),
  ...Object.fromEntries(["own", "last", "fails"].map((name) => [name, ["--mail", `${name}@home.example`]])),
});
const personal = await startMailServer(["--port", "587", "--user", "login", "--password", "right"]);
after(() => personal.stop());
const system = await startMailServer(["--user", "system", "--password", "secret"]);
after(() => system.stop());
trust([personal, system]);

async function atCode(t, user) {
  const page = await visit(t);
  const { key } = await enrol(server, user);
  await atCodeField(page, server, user);
  return { page, key };
}

const focused = (page) => page.evaluate(() => document.activeElement.id);

// Answers the next requests for a mail in the server's place.
async function answerWith(page, answer) {
  await page.unroute(`**${kRoute}`);
  await page.route(`**${kRoute}`, (route) => route.fulfill(answer));
}

test("an account without an address, and a server without mail, by the server's own answers", async (t) => {
  const { page } = await atCode(t, "nowhere");
  await page.click("#no-app");
  assert.equal(await message(page), "There is no recovery address on file for this account, so no code can be mailed. Your " +
    "administrator can let you in again.");
  run("tavrctl", ["user", "set", "nowhere", "--mail", "nowhere@home.example"]);
  await page.click("#no-app");
  await page.waitForFunction(() => document.getElementById("message").textContent ===
    "No code could be mailed: this server is not set up to send mails, and no mail account of your own could be used. " +
    "Your administrator can let you in again.");
  assert.ok(await page.isVisible("#code-form"));
});

test("every outcome has its words", async (t) => {
  const { page } = await atCode(t, "words");
  for (const [status, body, headers, words] of [
    [200, { success: false, err: "otp_no_emergency_code" }, {}, "There is no emergency code left that could be mailed. Your " +
      "administrator can let you in again."],
    [200, { success: false }, {}, "Something went wrong on the server. Please try again; if it happens again, tell your " +
      "administrator."],
    [429, { success: false, err: "too_many_attempts" }, { "Retry-After": "3541" },
      "Codes were mailed too often for this account. You can ask for one again in 1 hour."],
    [429, { success: false, err: "too_many_attempts" }, { "Retry-After": "59" },
      "Codes were mailed too often for this account. You can ask for one again in 1 minute."],
    [429, { success: false, err: "too_many_attempts" }, { "Retry-After": "82801" },
      "Codes were mailed too often for this account. You can ask for one again in 23 hours 1 minute."],
    [503, { success: false, err: "busy" }, { "Retry-After": "5" }, "The server is busy. Please try again in a moment."],
    [503, { success: false, err: "otp_unavailable" }, {}, "No code can be mailed at the moment, as something is wrong on " +
      "the server. Please try again in a minute. If it stays like this, ask your administrator, who can see what is wrong " +
      "and let you in again."],
  ]) {
    await answerWith(page, json(status, body, headers));
    await page.click("#no-app");
    assert.equal(await message(page), words);
    assert.equal(await page.getAttribute("#message", "data-kind"), "error");
    assert.ok(await page.isVisible("#code-form"));
  }
  for (const [warning, words] of [[null, kMailed], [true, kMailedLast]]) {
    await answerWith(page, json(200, { success: true, warning }));
    await page.click("#no-app");
    assert.equal(await message(page), words);
    assert.equal(await page.getAttribute("#message", "data-kind"), "note");
    assert.equal(await focused(page), "code");
  }
  await answerWith(page, json(403, { success: false, err: "no_pending_signin" }));
  await page.click("#no-app");
  await page.waitForSelector("#password-form:visible");
  assert.match(await message(page), /^Too much time has passed since you typed your password\./);
});

test("the field is ready for the code that comes, and a wrong one before it is forgotten", async (t) => {
  const { page } = await atCode(t, "taken");
  const sent = [];
  await page.route("**/api/signin/code", (route) => {
    sent.push(route.request().postDataJSON().code);
    return route.fulfill(json(401, { success: false, err: "otp_auth_failed" }));
  });
  await enter(page, "#code", "123456");
  await errorAt(page, "code");
  await answerWith(page, json(200, { success: true, warning: null }));
  await page.click("#no-app");
  await message(page);
  assert.equal(await page.inputValue("#code"), "");
  assert.ok(!await page.isVisible("#code-error"));
  await page.keyboard.type("1234 5678");
  await page.keyboard.press("Enter");
  await errorAt(page, "code");
  assert.deepEqual(sent, ["123456", "12345678"]);
  assert.ok(!await page.isVisible("#message"), "the note goes with the next attempt");
});

test("while a mail server takes its time nothing is asked twice, and the app's code still signs in", async (t) => {
  const { page, key } = await atCode(t, "app");
  let asked = 0;
  let answer;
  const held = new Promise((resolve) => { answer = resolve; });
  await page.route(`**${kRoute}`, async (route) => {
    asked += 1;
    await held;
    await route.fulfill(json(200, { success: true, warning: null })).catch(() => {});   // the page may be gone
  });
  for (let i = 0; i < 3; ++i) {
    await page.press("#no-app", "Enter");   // the style sheet keeps the mouse from a busy button
  }
  assert.equal(await page.getAttribute("#no-app", "aria-busy"), "true");
  server.advance(30);
  await enter(page, "#code", server.code(key));
  await atOverview(page, { on: true });
  assert.equal(asked, 1);
  answer();
});

test("a field that has to wait keeps its wait", async (t) => {
  const { page } = await atCode(t, "wait");
  await refuse(page, "/api/signin/code", 429, { err: "too_many_attempts" }, { "Retry-After": "90" });
  await enter(page, "#code", "123456");
  await errorAt(page, "code");
  await answerWith(page, json(200, { success: true, warning: null }));
  await page.click("#no-app");
  assert.equal(await message(page), kMailed);
  assert.match(await page.textContent("#code-error > [aria-hidden]"), /^Too many wrong codes\./);
  assert.equal(await page.inputValue("#code"), "123456");
});

test("with the keyboard alone, and heard by a screen reader", async (t) => {
  const { page } = await atCode(t, "keyboard");
  await page.evaluate(() => {
    window.heard = [];
    for (const region of document.querySelectorAll("[role=status], [role=alert]")) {
      new MutationObserver(() => region.textContent && window.heard.push(region.textContent))
        .observe(region, { childList: true, characterData: true, subtree: true });
    }
  });
  await page.route(`**${kRoute}`, async (route) => {
    await page.waitForFunction(() => window.heard.length > 0);
    await route.fulfill(json(200, { success: true, warning: true }));
  });
  assert.equal(await focused(page), "code");
  await tabTo(page, "#no-app");
  await page.keyboard.press("Enter");
  assert.equal(await message(page), kMailedLast);
  assert.deepEqual(await page.evaluate(() => window.heard), ["An emergency code is being mailed to you.", kMailedLast]);
  assert.equal(await focused(page), "code");
});

test("small and large windows, light and dark", async (t) => {
  const { page } = await atCode(t, "looks");
  const findings = [];
  const answers = { mailed: json(200, { success: true, warning: null }), "mailed-last": json(200, { success: true, warning: true }),
    "not-mailed": json(200, { success: false, err: "no_mail_address" }) };
  for (const { width, colorScheme } of kWindows) {
    const look = looker(page, `mailed-code-${width}-${colorScheme}`, findings);
    await page.setViewportSize({ width, height: 800 });
    await page.emulateMedia({ colorScheme });
    for (const [what, answer] of Object.entries(answers)) {
      await answerWith(page, answer);
      await page.click("#no-app");
      await message(page);
      await look(what);
    }
  }
  assert.deepEqual(findings, []);
});

// --- the mail ---

// Clicks, and gives the mail number `count` with a code that the server has taken.
async function clickForMail(page, mailServer, count) {
  await page.click("#no-app");
  const mail = (await mailServer.codes(count)).at(-1);
  assert.deepEqual([mail.envelope.tls, mail.envelope.auth], [true, true], "over STARTTLS, logged in");
  return mail;
}

async function backToCode(page, user) {
  await signOut(page);
  await atCodeField(page, server, user);
}

test("the code that comes from one's own mail account opens the session, once, and the next click mails the next", async (t) => {
  addMailAccount("own", personal, "login", "right");
  const { page } = await atCode(t, "own");
  const first = await clickForMail(page, personal, 1);
  assert.equal(await message(page), kMailed);
  assert.deepEqual([first.envelope.from, first.envelope.to], ["own@office.example", ["own@home.example"]]);
  await enter(page, "#code", first.code);
  await atOverview(page, { on: true });

  await backToCode(page, "own");
  await enter(page, "#code", first.code);
  assert.match(await errorAt(page, "code"), /^That code is not right\./);
  const second = await clickForMail(page, personal, 2);
  assert.notEqual(second.code, first.code);
  await enter(page, "#code", second.code);
  await atOverview(page, { on: true });
});

test("the last code warns on the page and in the mail, and then there is none", async (t) => {
  addMailAccount("last", personal, "login", "right");
  const { page } = await atCode(t, "last");
  const codes = execFileSync(`${process.env.TEST_BUILD}/tests/web/list_codes`, ["last"], { encoding: "utf8" }).trim().split("\n");
  for (const code of codes.slice(1)) {
    const half = await signIn(server, "last");
    assert.equal((await half.post("/api/signin/code", { code })).json.state, "signed_in");
  }
  const before = (await personal.codes(0)).length;
  const mail = await clickForMail(page, personal, before + 1);
  assert.equal(await message(page), kMailedLast);
  assert.match(mail.text, /last emergency code/);
  await enter(page, "#code", mail.code);
  await atOverview(page, { on: true });

  await backToCode(page, "last");
  await page.click("#no-app");
  assert.equal(await message(page), "There is no emergency code left that could be mailed. Your administrator can let you in " +
    "again.");
});

test("when one's own mail account fails, the code comes from the server's notification address", async (t) => {
  addMailAccount("fails", personal, "login", "wrong", ["--no-test"]);
  setNotificationServer(system, "system", "secret");
  const { page } = await atCode(t, "fails");
  const mail = await clickForMail(page, system, 1);
  assert.equal(await message(page), kMailed);
  assert.deepEqual([mail.envelope.from, mail.envelope.to], ["server@nas.example", ["fails@home.example"]]);
  await enter(page, "#code", mail.code);
  await atOverview(page, { on: true });
});
