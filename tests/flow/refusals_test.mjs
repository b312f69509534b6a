// Every refusal that the reference names, at the sign-in: its words in Chromium, and what a program is told of those
// that can be had there.
import assert from "node:assert/strict";
import { spawnSync } from "node:child_process";
import { readFileSync, renameSync } from "node:fs";
import { join } from "node:path";
import { test } from "node:test";

import { documentedErrors } from "../support/reference.mjs";
import { run } from "../support/server.mjs";
import { signIn as signInOnPage } from "./steps.mjs";
import { openStage, plain } from "./stage.mjs";
import { enrol } from "./wizard.mjs";

const kMachineKey = "/etc/tavr/otp.key";
const { server, visit } = await openStage(plain(["alice", "bob", "carol", "dave"]));
const catalogue = JSON.parse(readFileSync(join(process.env.TEST_SOURCE, "web/pages/shared/messages/enu.json"), "utf8"));

// The refusals that are about something else than signing in. Other flows meet them in the wizard and the settings, and
// as an administrator.
const kElsewhere = new Set(["label_too_long", "not_signed_in", "otp_enforced", "no_setup", "not_admin", "enrol_first",
  "no_such_user", "write_failed", "list_too_long", "directory_not_configured",
  "directory_unavailable", "domain_not_copied"]);
const atSignIn = documentedErrors().filter(({ err }) => !kElsewhere.has(err));

// --- in Chromium ---

const words = (key) => {
  const [section, name] = key.split(":");
  return catalogue[section][name].split("{")[0].trim();
};

async function assertWords(page, path, button, { status, err }, waitKey) {
  await page.route(`**${path}`, (route) => route.fulfill({ status, contentType: "application/json",
    headers: { "Retry-After": "90" }, body: JSON.stringify({ success: false, err }) }));
  await page.click(button);
  const expected = words(err === "too_many_attempts" ? waitKey : `web:${err}`);
  assert.ok(expected.length > 15, `${err} has words`);
  await page.locator("[role=alert]:visible, small.error:visible").filter({ hasText: expected }).first().waitFor()
    .catch(() => assert.fail(`${status} ${err} at ${path}: not "${expected}"`));
  await page.unroute(`**${path}`);
}

test("every refusal of the password has its words on the page", async (t) => {
  assert.ok(atSignIn.length >= 17, `${atSignIn.length} refusals`);
  const page = await visit(t);
  for (const refusal of atSignIn.filter(({ err }) => err !== "bad_token")) {   // it needs none
    await page.goto("/");
    await page.fill("#user", "alice");
    await page.fill("#password", "any");
    await assertWords(page, "/api/signin", "#password-form [type=submit]", refusal, "common:wait_attempts");
    assert.equal(await page.inputValue("#user"), "alice");
  }
});

test("every refusal of a code has its words on the page", async (t) => {
  await enrol(server, "alice");
  const page = await visit(t);
  await signInOnPage(page, "alice", server.passwords.alice);
  await page.waitForSelector("#code-form:visible");
  for (const refusal of atSignIn) {
    await page.goto("/");
    await page.waitForSelector("#code-form:visible");
    await page.fill("#code", "123456");
    await assertWords(page, "/api/signin/code", "#code-form [type=submit]", refusal, "common:wait_codes");
    assert.equal(await page.isVisible("#code-form"), refusal.err !== "no_pending_signin");
  }
});

// --- with curl ---

const met = new Set();

// A POST with a cookie jar of its own for each `user`. Gives status, err and the whole answer.
function curl(path, { body = "{}", user = "nobody", token = "", headers = ["Content-Type: application/json"], method = "POST" }) {
  const result = spawnSync("curl", ["--silent", "--show-error", "--request", method, "--cookie", `/tmp/jar-${user}`,
    "--cookie-jar", `/tmp/jar-${user}`, ...headers.flatMap((header) => ["--header", header]), "--header", `X-Tavr-Token: ${token}`,
    "--data-binary", "@-", "--write-out", "\n%{http_code}", `${server.url}${path}`], { input: body, encoding: "utf8" });
  assert.deepEqual([result.status, result.stderr], [0, ""], path);
  const [text, status] = result.stdout.split(/\n(?=[0-9]+$)/);
  const json = JSON.parse(text);
  if (json.err) {
    met.add(json.err);
  }
  return { said: json.err ? `${status} ${json.err}` : status, json };
}

const tryPassword = (user, password = server.passwords[user]) =>
  curl("/api/signin", { user, body: JSON.stringify({ user, password }) });
const tryCode = (user, token, code) => curl("/api/signin/code", { user, token, body: JSON.stringify({ code }) });

test("curl is told every refusal of a sign-in", async () => {
  const json = JSON.stringify({ user: "bob", password: "x" });
  const type = "Content-Type: application/json";
  for (const [said, path, options] of [
    ["400 bad_request", "/api/signin", { body: "[]" }],
    ["401 bad_credentials", "/api/signin", { body: json }],
    ["403 bad_origin", "/api/signin", { body: json, headers: [type, "Sec-Fetch-Site: cross-site"] }],
    ["403 no_pending_signin", "/api/signin/code", { body: '{"code":"123456"}' }],
    ["404 not_found", "/api/sign-in", { body: json }],
    ["405 method_not_allowed", "/api/signin", { body: json, method: "PUT" }],
    ["413 too_large", "/api/signin", { body: " ".repeat(70_000) + json }],
    ["415 bad_content_type", "/api/signin", { body: json, headers: ["Content-Type: text/plain"] }],
  ]) {
    assert.equal(curl(path, options).said, said);
  }
  for (let i = 0; i < 9; ++i) {
    assert.equal(tryPassword("bob", "wrong").said, "401 bad_credentials");
  }
  assert.equal(tryPassword("bob").said, "429 too_many_attempts");
});

test("curl is told every refusal of a code", async () => {
  const { key } = await enrol(server, "carol");
  const { json: { TavrToken: token, state } } = tryPassword("carol");
  assert.equal(state, "code_required");
  assert.equal(tryCode("carol", "no token", server.code(key)).said, "403 bad_token");
  assert.equal(tryCode("carol", token, server.code(key)).said, "401 otp_code_used");
  assert.equal(tryCode("carol", token, server.wrongCode(key)).said, "401 otp_auth_failed");
  server.advance(30);
  renameSync(kMachineKey, `${kMachineKey}.away`);
  assert.equal(tryCode("carol", token, server.code(key)).said, "503 otp_unavailable");
  renameSync(`${kMachineKey}.away`, kMachineKey);
  assert.equal(tryCode("carol", token, server.code(key)).said, "200");

  const { key: other } = await enrol(server, "dave");
  for (let i = 0; i < 50; ++i) {
    const half = tryPassword("dave").json.TavrToken;
    assert.equal(tryCode("dave", half, server.wrongCode(other)).said, "401 otp_auth_failed", `guess ${i}`);
    if (i === 5) {
      assert.equal(tryCode("dave", half, server.code(other)).said, "429 too_many_attempts");
    }
    server.advance(3601);
  }
  const half = tryPassword("dave").json.TavrToken;
  assert.equal(tryCode("dave", half, server.code(other)).said, "403 otp_closed");
  run("tavrctl", ["otp", "open", "dave"]);
  assert.equal(tryCode("dave", half, server.code(other)).said, "200");
});

test("no refusal that the reference names for the sign-in was left out", () => {
  // Met elsewhere, as they need a program that fails, two pages at once, or a policy.
  const others = ["internal", "busy", "policy_unavailable"];
  assert.deepEqual(atSignIn.map(({ err }) => err).filter((err) => !met.has(err)).sort(), others.sort());
});
