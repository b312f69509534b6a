// What goes wrong in the middle of a setup, and what the pages say then.
import assert from "node:assert/strict";
import test from "node:test";

import { readQr } from "../support/browser.mjs";
import { openStage, plain } from "./stage.mjs";
import {
  answerTo, atOverview, atStep, enrol, errorAt, givePassword, shownKey, signIn, signOut, startSetup, typeCode,
} from "./steps.mjs";

const { server, visit, visitor } = await openStage(plain(["reload", "tabs", "back", "expired", "label", "fault", "lost", "unknown",
  "demanded", "messages", "clipboard", "signout"]));

async function signedIn(t, user) {
  const page = await visit(t);
  await signIn(page, user, server.passwords[user]);
  await atOverview(page, { on: false });
  return page;
}

const note = (page) => page.textContent("#wizard-note:visible");
const json = (status, body) => ({ status, contentType: "application/json", body: JSON.stringify(body) });

test("a reload forgets password and QR code, says so, and the setup goes on", async (t) => {
  const page = await signedIn(t, "reload");
  const first = await startSetup(page, server.passwords.reload);
  await page.reload();
  await atStep(page, "password");
  assert.match(await note(page), /^The page was reloaded\./);
  assert.equal(await page.inputValue("#wizard-password"), "");
  assert.ok(!(await page.content()).includes(first.slice(0, 4)));

  const second = await givePassword(page, server.passwords.reload);
  assert.notEqual(second, first);
  await page.click("[data-action=scanned]");
  await atStep(page, "code");
  await page.reload();
  await atStep(page, "password");
  const third = await givePassword(page, server.passwords.reload);
  await page.click("[data-action=scanned]");
  await typeCode(page, server.wrongCode(third));
  await errorAt(page, "wizard-code");
  await typeCode(page, server.code(third));
  await atStep(page, "mail");
  await page.reload();
  await atOverview(page, { on: true });
});

test("a setup in a second tab takes over, and the first tab says so", async (t) => {
  const first = await signedIn(t, "tabs");
  const firstKey = await startSetup(first, server.passwords.tabs);
  await first.click("[data-action=scanned]");
  await atStep(first, "code");

  const second = await first.context().newPage();
  await second.goto("/settings");
  await atOverview(second, { on: false });
  const secondKey = await startSetup(second, server.passwords.tabs);
  await first.waitForSelector("[data-panel=password]:visible");
  assert.match(await note(first), /^Setup was started in another tab/);

  await second.click("[data-action=scanned]");
  await typeCode(second, server.code(firstKey));
  assert.match(await errorAt(second, "wizard-code"), /^That code is not right\./);
  await typeCode(second, server.code(secondKey));
  await atStep(second, "mail");
  await atOverview(first, { on: true });
  // The session is a new one now; the tab that had the old one goes on with it.
  await first.click("#show-again");
  await first.waitForSelector("[data-panel=password]:visible");
  assert.equal(await givePassword(first, server.passwords.tabs), secondKey);
});

test("back and forward walk through the steps, and not past the accepted code", async (t) => {
  const page = await signedIn(t, "back");
  const key = await startSetup(page, server.passwords.back);
  await page.click("[data-action=scanned]");
  await atStep(page, "code");
  await page.goBack();
  await atStep(page, "scan");
  assert.equal(await shownKey(page), key);
  await page.goForward();
  await atStep(page, "code");
  await page.click("[data-action=back]");
  await atStep(page, "scan");
  await page.goBack();
  await atStep(page, "password");
  assert.equal(await page.inputValue("#wizard-password"), "");
  await page.goForward();
  await atStep(page, "password");
  await page.goBack();
  await page.goBack();
  await atOverview(page, { on: false });

  const again = await enrol(page, server, "back");
  assert.notEqual(again, key);
  await page.goBack();
  await page.waitForSelector("#wizard-note:visible");
  assert.match(await note(page), /already on/);
  assert.ok(await page.isVisible("[data-panel=mail]"));
  await page.click("[data-action=skip]");
  await atStep(page, "done");
  await page.goBack();
  await page.waitForSelector("#wizard-note:visible");
  assert.ok(await page.isVisible("[data-panel=done]"));
});

test("a session that ends in the middle leads back to the sign-in with words", async (t) => {
  const page = await signedIn(t, "expired");
  const key = await startSetup(page, server.passwords.expired);
  await page.click("[data-action=scanned]");
  await atStep(page, "code");
  server.advance(16 * 60);
  await page.clock.setFixedTime(Date.now() + 16 * 60 * 1000);
  await typeCode(page, server.code(key));
  await page.waitForSelector("#password-form:visible");
  assert.equal(await page.textContent("#message"), "Your session has ended. Please sign in again.");
  await signIn(page, "expired", server.passwords.expired);
  await atOverview(page, { on: false });
});

test("after a sign-out the back button shows nothing of the account", async (t) => {
  const page = await signedIn(t, "signout");
  const other = await page.context().newPage();
  await other.goto("/settings");
  await atOverview(other, { on: false });
  await signOut(page);
  await page.goBack();
  await page.waitForTimeout(300);
  assert.ok(!(await page.content()).includes("Signed in as"));
  await other.waitForSelector("#password-form:visible");   // the other tab has heard of it
});

test("a label at and beyond its limit, and a picture that was cut", async (t) => {
  const page = await signedIn(t, "label");
  const key = await startSetup(page, server.passwords.label);
  const redraw = async (label) => {
    await page.fill("#wizard-label", label);
    await page.click("#wizard-label-form [type=submit]");
  };
  await redraw("");
  assert.equal(await errorAt(page, "wizard-label"), "Please give the account a name.");
  await redraw("ä".repeat(32) + "x");
  assert.match(await errorAt(page, "wizard-label"), /^This name is too long: 65 bytes, and 64 fit\./);

  const longest = "x".repeat(64);
  await redraw(longest);
  await page.waitForFunction((label) => document.getElementById("wizard-qr").alt.includes(label), longest);
  assert.ok((await readQr(page.locator("#wizard-qr"))).startsWith(`otpauth://totp/${longest}?secret=${key}&`));

  await page.route("**/api/otp/label", async (route) => {
    const answer = await (await answerTo(route)).json();
    await route.fulfill(json(200, { ...answer, img: answer.img.slice(0, 800) }));
  });
  await redraw("cut");
  assert.match(await errorAt(page, "wizard-label"), /did not arrive whole/);
  assert.ok(!await page.isVisible("#wizard-qr"));
  await page.unroute("**/api/otp/label");
  await redraw("whole");
  await page.waitForSelector("#wizard-qr:visible");

  // Edited and not redrawn: going on draws it first.
  await page.fill("#wizard-label", "later");
  await page.click("[data-action=scanned]");
  await page.waitForSelector("#wizard-note:visible");
  assert.ok(await page.isVisible("[data-panel=scan]"));
  assert.ok((await readQr(page.locator("#wizard-qr"))).startsWith("otpauth://totp/later?"));
  await page.click("[data-action=scanned]");
  await atStep(page, "code");
});

test("a fault after the code was accepted: the page asks how it ended and goes on", async (t) => {
  const page = await signedIn(t, "fault");
  const key = await startSetup(page, server.passwords.fault);
  await page.click("[data-action=scanned]");
  await page.route("**/api/otp/confirm", async (route) => {
    const answer = await answerTo(route);
    await route.fulfill({ response: answer, ...json(503, { success: false, err: "otp_unavailable" }) });
  });
  await typeCode(page, server.code(key));
  await atStep(page, "mail");
  assert.match(await note(page), /your code was accepted/);
});

test("a confirmation that never arrived: the page says that it is not on yet", async (t) => {
  const page = await signedIn(t, "lost");
  const key = await startSetup(page, server.passwords.lost);
  await page.click("[data-action=scanned]");
  await page.route("**/api/otp/confirm", (route) => route.fulfill(json(503, { success: false, err: "otp_unavailable" })));
  await typeCode(page, server.code(key));
  assert.match(await errorAt(page, "wizard-code"), /not on yet/);
  await page.unroute("**/api/otp/confirm");
  await typeCode(page, server.code(key));
  await atStep(page, "mail");
});

test("when nobody can say how it ended, the page says that and can ask again", async (t) => {
  const page = await signedIn(t, "unknown");
  const key = await startSetup(page, server.passwords.unknown);
  await page.click("[data-action=scanned]");
  const unavailable = (route) => route.fulfill(json(503, { success: false, err: "otp_unavailable" }));
  await page.route("**/api/otp/confirm", unavailable);
  await page.route("**/api/otp/status", unavailable);
  await typeCode(page, server.code(key));
  await page.waitForSelector("[data-action=check]:visible");
  assert.match(await page.textContent("#message"), /cannot say right now/);
  await page.unroute("**/api/otp/status");
  await page.click("[data-action=check]");
  assert.match(await errorAt(page, "wizard-code"), /not on yet/);
});

test("a demanded enrolment runs on the sign-in page, without asking for the password again", async (t) => {
  const page = await visit(t);
  // The server's policy demands nothing yet: only what the answer says is changed.
  await page.route("**/api/signin", async (route) => {
    const answer = await answerTo(route);
    await route.fulfill({ response: answer, json: { ...await answer.json(), state: "enrolment_required" } });
  });
  await signIn(page, "demanded", server.passwords.demanded);
  await atStep(page, "scan");
  assert.match(await note(page), /^Your administrator asks for two-step sign-in\./);
  await shownKey(page);

  await page.route("**/api/session", async (route) => {
    const { user, TavrToken } = await (await answerTo(route)).json();
    await route.fulfill(json(401, { success: false, err: "not_signed_in", state: "enrolment_required", user, TavrToken }));
  });
  await page.reload();
  await atStep(page, "password");
  assert.match(await note(page), /^The page was reloaded\./);
  const key = await givePassword(page, server.passwords.demanded);
  await page.unroute("**/api/session");
  await page.click("[data-action=scanned]");
  await typeCode(page, server.code(key));
  await atStep(page, "mail");
  await page.click("[data-action=skip]");
  await page.click("[data-action=finish]");
  await atOverview(page, { on: true });
});

test("a fault before the QR code stands on the password step of a demanded enrolment", async (t) => {
  const page = await visit(t);
  await page.route("**/api/signin", async (route) => {
    const answer = await answerTo(route);
    await route.fulfill({ response: answer, json: { ...await answer.json(), state: "enrolment_required" } });
  });
  for (const [status, err, words] of [
    [503, "otp_unavailable", "Two-step sign-in cannot be checked at the moment."],
    [200, "qr_unavailable", "The server cannot draw QR codes at the moment."],
    [200, undefined, "The server could not carry out this step."],
  ]) {
    await page.route("**/api/otp/qr", (route) => route.fulfill(json(status, { success: false, err })));
    await signIn(page, "messages", server.passwords.messages);
    await atStep(page, "password");
    await page.waitForSelector("#message:visible");
    assert.ok((await page.textContent("#message")).startsWith(words), await page.textContent("#message"));
    await page.unroute("**/api/otp/qr");
    await page.click("[data-panel=password] [data-action=leave]");
    await page.waitForSelector("#password-form:visible");
    await page.evaluate(() => localStorage.clear());
  }
});

test("every refusal of the sign-in has its words in its place", async (t) => {
  const page = await visit(t);
  for (const [status, err, headers, place, words] of [
    [429, "too_many_attempts", { "Retry-After": "90" }, "#password-error", "Too many attempts. You can try again in 1 minute 30 seconds."],
    [429, "too_many_attempts", { "Retry-After": "60" }, "#password-error", "Too many attempts. You can try again in 1 minute."],
    [429, "too_many_attempts", { "Retry-After": "30" }, "#password-error", "Too many attempts. You can try again in 30 seconds."],
    [503, "otp_unavailable", {}, "#message", "Two-step sign-in cannot be checked at the moment."],
    [503, "busy", { "Retry-After": "1" }, "#message", "The server is busy."],
    [500, "internal", {}, "#message", "Something went wrong on the server."],
    [403, "bad_origin", {}, "#message", "The request seemed to come from another site"],
    [400, "never_heard_of", {}, "#message", "Something went wrong (web:never_heard_of)."],
  ]) {
    await page.route("**/api/signin", (route) => route.fulfill({ ...json(status, { success: false, err }), headers }));
    await signIn(page, "messages", "any");
    await page.waitForSelector(`${place}:visible`);
    assert.ok((await page.textContent(place)).startsWith(words), `${status} ${err}: ${await page.textContent(place)}`);
    await page.unroute("**/api/signin");
  }
  await page.route("**/api/signin", (route) => route.fulfill({ status: 502, body: "<html>Bad gateway</html>" }));
  await signIn(page, "messages", "any");
  await page.waitForSelector("#message:visible");
  assert.match(await page.textContent("#message"), /^Something went wrong on the server\./);
  await page.unroute("**/api/signin");

  await page.context().setOffline(true);
  await page.fill("#password", "any");
  await page.click("#password-form [type=submit]");
  await page.waitForFunction(() => document.getElementById("message").textContent.startsWith("The server did not answer."));
  await page.context().setOffline(false);
});

test("the key is copied, over plain HTTP too", async (t) => {
  const page = await signedIn(t, "clipboard");
  await page.context().grantPermissions(["clipboard-read", "clipboard-write"]);
  const key = await startSetup(page, server.passwords.clipboard);
  const clipboard = () => page.evaluate(() => navigator.clipboard.readText());
  const copyAndWait = async () => {
    await page.click("#wizard-copy");
    await page.waitForFunction(() => document.getElementById("wizard-copied").textContent === "Key copied.");
  };
  await copyAndWait();
  assert.equal(await clipboard(), key);

  await page.evaluate(() => navigator.clipboard.writeText("something else"));
  await page.evaluate(() => { document.getElementById("wizard-copied").textContent = ""; });
  await page.evaluate(() => Object.defineProperty(window, "isSecureContext", { value: false }));
  await copyAndWait();
  assert.equal(await clipboard(), key);
  assert.equal(await page.evaluate(() => document.activeElement.id), "wizard-copy");
});

test("a catalogue that does not arrive leaves words, not an empty page", async (t) => {
  const { context } = await visitor();
  t.after(() => context.close());
  const page = await context.newPage();
  await page.route("**/messages/*.json", (route) => route.fulfill({ status: 500, body: "" }));
  for (const path of ["/", "/settings"]) {
    await page.goto(path);
    await page.waitForSelector("#not-loaded:visible");
    assert.match(await page.textContent("#not-loaded"), /reload/);
  }
});
