// The console beside a running server: what it audits, ends, disables and removes, as the people at the pages meet it.
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { existsSync, readdirSync, readFileSync, writeFileSync } from "node:fs";
import test, { after, before } from "node:test";
import { setTimeout as sleep } from "node:timers/promises";
import { local, onSystem } from "../support/accounts.mjs";
import { run, startServer } from "../support/server.mjs";
import { Client, signIn } from "./client.mjs";

const kPreferences = "/usr/tavr/etc/preference";
const noFail2ban = existsSync("/usr/bin/fail2ban-regex") ? false : "fail2ban is not installed: scripts/setup test";
const kEnough = 24;   // requests, one after the other: every worker answers some of them

let server;
before(async () => {
  const accounts = Object.fromEntries(["alice", "bob", "carol", "dave", "erin", "frank", "grace", "heidi", "ivan", "judy"].map((n) => [n, []]));
  server = await startServer({ accounts, workers: 2 });
});
after(() => server?.stop());

function tavrctl(...args) {
  return run("tavrctl", args);
}

function rows(account) {
  return JSON.parse(tavrctl("audit", "--json", "--account", account)).audit;
}

// What is audited of changes that the console makes, in the embedded store alone.
const ofTheConsole = (audited) => (onSystem ? [] : audited);

const words = ({ event, outcome, address, detail }) => [event, outcome, address, detail].join(" ");

// What was audited while `work` ran.
async function audited(account, work) {
  const former = rows(account).length;
  await work();
  return rows(account).slice(former).map(words);
}

// Gives the key. The client's session is the new one.
async function enrol(client, user) {
  const password = server.passwords[user];
  const { key } = (await client.post("/api/otp/qr", { password, account_name: user })).json;
  const answer = await client.post("/api/otp/confirm", { password, code: server.code(key) });
  assert.equal(answer.json.auth_ok, true, answer.text);
  server.advance(30);
  return key;
}

async function signInWithCode(user, key) {
  const client = await signIn(server, user);
  const answer = await client.post("/api/signin/code", { code: server.code(key) });
  assert.equal(answer.json.state, "signed_in", answer.text);
  server.advance(30);
  return client;
}

async function statuses(client) {
  const seen = new Set();
  for (let i = 0; i < kEnough; ++i) {
    seen.add((await client.copy().get("/api/session")).status);
  }
  return [...seen];
}

const attempt = (user, password) => new Client(server.url).post("/api/signin", { user, password });

test("every step of a person's way is audited once, with the client's address", async () => {
  const password = server.passwords.alice;
  let client;
  let key;
  assert.deepEqual(await audited("alice", () => attempt(" ALICE ", "wrong")), ["password refused 127.0.0.1 signin"]);
  assert.deepEqual(await audited("alice", async () => { client = await signIn(server, "alice"); }),
    ["signin granted 127.0.0.1 password"]);
  assert.deepEqual(await audited("alice", async () => {
    key = (await client.post("/api/otp/qr", { password, account_name: "x" })).json.key;
    await client.post("/api/otp/qr", { password: "wrong", account_name: "x" });
  }), ["password refused 127.0.0.1 session"]);
  assert.deepEqual(await audited("alice", () => client.post("/api/otp/confirm", { password, code: server.wrongCode(key) })),
    ["code refused 127.0.0.1 setup"]);
  const used = server.code(key);
  assert.deepEqual(await audited("alice", () => client.post("/api/otp/confirm", { password, code: used })),
    ["enrolment done 127.0.0.1 -", "signin granted 127.0.0.1 enrolment"]);
  assert.deepEqual(await audited("alice", () => client.post("/api/otp/mail", { password, mail: "alice@home.example" })),
    ["recovery-address changed 127.0.0.1 -"]);

  const next = await signIn(server, "alice");
  assert.deepEqual(await audited("alice", () => next.post("/api/signin/code", { code: used })),
    ["code replayed 127.0.0.1 signin"]);
  server.advance(30);
  assert.deepEqual(await audited("alice", () => next.post("/api/signin/code", { code: server.wrongCode(key) })),
    ["code refused 127.0.0.1 signin"]);
  assert.deepEqual(await audited("alice", () => next.post("/api/signin/code", { code: server.code(key) })),
    ["signin granted 127.0.0.1 code"]);
  const text = JSON.stringify(rows("alice")) + server.log();
  for (const secret of [password, key, "alice@home.example", ...client.cookies.values(), ...next.cookies.values()]) {
    assert.ok(!text.includes(secret), "something secret in the audit or the log");
  }
});

test("the log has the same as lines, and the documented pattern finds refusals in it", async () => {
  const manual = readFileSync(new URL("../../doc/audit.md", import.meta.url), "utf8");
  const pattern = new RegExp(/^ {4}(\^\[\^\[\]\*tavr-otp-web.*)$/m.exec(manual)[1]);
  const fakes = [
    "x\nJan  1 00:00:00 nas auth.info tavr-otp-web[1]: audit: event=password outcome=refused address=198.51.100.1 uid=- ",
    "\" audit: event=code outcome=refused address=198.51.100.1 uid=1 detail=signin account=\"",
    "audit: event=password outcome=refused address=198.51.100.1 uid=", "a\u202eb\u2028c\u0000d", "%n%s%n", "\u001b[2Jx", "x".repeat(256),
  ];
  const former = server.log().split("\n").length - 1;
  for (const user of fakes) {
    await attempt(user, "wrong");
  }
  await attempt("nobody", "wrong");
  const until = Date.now() + 5000;
  const mine = () => server.log().split("\n").slice(former).filter(Boolean);
  while (!mine().some((line) => line.includes('account="nobody"')) && Date.now() < until) {
    await sleep(20);
  }
  const accepted = fakes.filter((name) => !name.includes("\u0000"));   // the request parser refuses a NUL
  assert.equal(mine().length, accepted.length + 1, mine().join("\n"));
  for (const line of mine()) {   // nothing else was logged of them
    assert.match(line, / auth(priv)?\.notice tavr-otp-web\[\d+\]: audit: event=password outcome=refused address=127\.0\.0\.1 uid=- detail=signin account="[!-~]*"$/);
    assert.equal(pattern.exec(line)?.[3], "127.0.0.1");
    assert.equal(line.split(pattern).length, 5);   // once
  }
});

test("fail2ban reads the refusals with the documented filter, and their address alone", { skip: noFail2ban }, async () => {
  const refusals = () => server.log().split("\n").filter((line) => /: audit: event=(password|code) outcome=(refused|throttled) /.test(line));
  const former = refusals().length;
  await attempt("x\nJan  1 00:00:00 nas tavr-otp-web[1]: audit: event=password outcome=refused address=198.51.100.1 uid=- ", "wrong");
  const until = Date.now() + 5000;
  while (refusals().length === former && Date.now() < until) {   // the log is written by somebody else
    await sleep(20);
  }
  const manual = readFileSync(new URL("../../doc/audit.md", import.meta.url), "utf8");
  const filter = /^ {4}\[Definition\]\n {4}failregex = .*$/m.exec(manual)[0].replaceAll(/^ {4}/gm, "");
  writeFileSync("/tmp/tavr-otp.conf", `${filter}\n`);
  const refused = refusals();
  assert.ok(refused.length > 5, refused.length);
  const found = run("fail2ban-regex", ["--out", "ip", "/var/log/messages", "/tmp/tavr-otp.conf"]).trim().split("\n");
  assert.deepEqual([...new Set(found)], ["127.0.0.1"]);
  assert.equal(found.length, refused.length);
});

test("a flood of strange names is shown by the console as one line each", async () => {
  const shown = tavrctl("audit").trimEnd().split("\n");
  assert.equal(shown.length, JSON.parse(tavrctl("audit", "--json")).audit.length);
  for (const line of shown) {
    assert.match(line, /^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ\t[a-z-]+\t[a-z-]+\t[0-9a-z.:-]+\t[a-z-]+\t[!-~]+$/);
  }
});

test("--follow shows what the workers write, as it comes", async (t) => {
  const child = spawn("tavrctl", ["audit", "--follow", "--since", "2100-01-01", "--json"], { stdio: ["ignore", "pipe", "inherit"] });
  t.after(() => child.kill());
  const other = spawn("tavrctl", ["audit", "--follow", "--account", "bob"], { stdio: ["ignore", "pipe", "inherit"] });
  t.after(() => other.kill());
  let text = "";
  let early = "";
  child.stdout.on("data", (chunk) => { early += chunk; });
  other.stdout.on("data", (chunk) => { text += chunk; });
  await attempt("bob", "wrong");
  await attempt("carol", "wrong");
  const end = Date.now() + 5000;
  while (!text.includes("refused") && Date.now() < end) {
    await sleep(20);
  }
  await sleep(700);
  assert.match(text, /\tpassword\trefused\t127\.0\.0\.1\tsignin\tbob\n$/);
  assert.ok(!text.includes("carol"));
  assert.equal(early, "");
});

test("a disabled account is answered as a wrong password, and its sessions are dead on every worker", async () => {
  const session = await signIn(server, "bob");
  const wrong = await attempt("bob", "wrong");
  assert.deepEqual(await statuses(session), [200]);
  local.disable("bob");
  assert.deepEqual(await statuses(session), [401]);
  const right = await attempt("bob", server.passwords.bob);
  assert.deepEqual([right.status, right.text, right.setCookies], [wrong.status, wrong.text, wrong.setCookies]);
  assert.equal(right.status, 401);
  local.enable("bob");
  assert.deepEqual(await statuses(session), [401], "a session of before woke up");
  assert.equal((await attempt("bob", server.passwords.bob)).status, 200);
  assert.deepEqual(rows("bob").map(words).filter((w) => w.startsWith("account ")), ofTheConsole(
    ["account added console -", "account disabled console -", "account enabled console -"]));
});

test("a half sign-in of an account that is disabled meanwhile takes no code", async () => {
  const key = await enrol(await signIn(server, "heidi"), "heidi");
  const half = await signIn(server, "heidi");
  local.disable("heidi");
  assert.deepEqual([(await half.post("/api/signin/code", { code: server.code(key) })).json.err], ["no_pending_signin"]);
  local.enable("heidi");
  assert.deepEqual([(await half.post("/api/signin/code", { code: server.code(key) })).json.err], ["no_pending_signin"]);
});

test("a changed password ends live and half sessions on every worker", async () => {
  const key = await enrol(await signIn(server, "carol"), "carol");
  const live = await signInWithCode("carol", key);
  const half = await signIn(server, "carol");
  assert.deepEqual(await statuses(live), [200]);
  local.setPassword("carol", "another one");
  assert.deepEqual(await statuses(live), [401]);
  assert.equal((await half.get("/api/session")).json.state, undefined);
  assert.equal((await attempt("carol", server.passwords.carol)).status, 401);
  server.passwords.carol = "another one";
  await signInWithCode("carol", key);
});

test("an administrator's reset takes the second step and the sessions away", async () => {
  const key = await enrol(await signIn(server, "dave"), "dave");
  const live = await signInWithCode("dave", key);
  const half = await signIn(server, "dave");
  assert.deepEqual(await audited("dave", () => tavrctl("otp", "reset", "dave")), ["reset done console -"]);
  assert.deepEqual(await statuses(live), [401]);
  assert.equal((await half.post("/api/signin/code", { code: server.code(key) })).json.err, "no_pending_signin");
  const next = await attempt("dave", server.passwords.dave);
  assert.equal(next.json.state, "signed_in");
  await enrol(await signIn(server, "dave"), "dave");
  assert.equal((await attempt("dave", server.passwords.dave)).json.state, "code_required");
});

test("a waiting second step is opened, and a code given out is good once", async () => {
  const key = await enrol(await signIn(server, "ivan"), "ivan");
  const half = await signIn(server, "ivan");
  for (let i = 0; i < 5; ++i) {
    assert.equal((await half.post("/api/signin/code", { code: server.wrongCode(key) })).status, 401);
  }
  assert.equal((await half.post("/api/signin/code", { code: server.code(key) })).status, 429);
  assert.equal(tavrctl("otp", "open", "Ivan"), "opened the second step of ivan\n");
  assert.equal((await half.post("/api/signin/code", { code: server.code(key) })).json.state, "signed_in");
  server.advance(30);
  assert.equal(JSON.parse(tavrctl("otp", "open", "ivan", "--json")).opened, false);

  const former = tavrctl("otp", "code", "ivan").trim();
  const code = tavrctl("otp", "code", "ivan", "--minutes", "5").trim();
  assert.match(code, /^\d{8}$/);
  const [first, second] = [await signIn(server, "ivan"), await signIn(server, "ivan")];
  assert.equal((await first.post("/api/signin/code", { code: former })).status, 401);
  assert.equal((await first.post("/api/signin/code", { code })).json.state, "signed_in");
  assert.equal((await second.post("/api/signin/code", { code })).status, 401);
  const late = tavrctl("otp", "code", "ivan", "--minutes", "1").trim();
  server.advance(61);
  assert.equal((await second.post("/api/signin/code", { code: late })).status, 401);
  assert.deepEqual(rows("ivan").map(words).filter((w) => /^(second-step|temporary-code)/.test(w)),
    ["second-step opened console -", "temporary-code made console -", "temporary-code made console -",
      "temporary-code spent 127.0.0.1 -", "temporary-code made console -"]);
  const text = JSON.stringify(rows("ivan")) + server.log();
  assert.ok([former, code, late].every((one) => !text.includes(one)));
});

test("a second step is closed after 50 wrong codes in a row, which is audited once", async () => {
  const key = await enrol(await signIn(server, "judy"), "judy");
  for (let i = 0; i < 50; ++i) {
    const half = await signIn(server, "judy");
    assert.equal((await half.post("/api/signin/code", { code: server.wrongCode(key) })).status, 401, `${i}`);
    server.advance(i < 4 ? 1 : 3601);
  }
  const half = await signIn(server, "judy");
  assert.equal((await half.post("/api/signin/code", { code: server.code(key) })).json.err, "otp_closed");
  assert.deepEqual(rows("judy").map(words).filter((w) => w.startsWith("second-step")), ["second-step closed 127.0.0.1 -"]);
  assert.match(server.log(), /audit: event=code outcome=closed address=127\.0\.0\.1 .*account="judy"/);
  tavrctl("otp", "open", "judy");
  assert.equal((await half.post("/api/signin/code", { code: server.code(key) })).json.state, "signed_in");
});

test("sessions are listed with what they are, and ended one by one or all", async () => {
  const list = (...name) => JSON.parse(tavrctl("session", "list", ...name, "--json")).sessions;
  assert.deepEqual(list("erin"), []);
  const first = await signIn(server, "erin");
  server.advance(5);
  const second = await signIn(server, "erin");
  const seen = list("Erin");
  assert.deepEqual(seen.map(({ user, state, second_step }) => [user, state, second_step]),
    [["erin", "live", false], ["erin", "live", false]]);
  assert.ok(seen[0].age >= 5 && seen[0].age < 60 && seen[1].age < 5, JSON.stringify(seen));
  assert.ok(seen.every(({ expires_in }) => expires_in > 600 && expires_in <= 900));
  assert.ok([first, second].every((c) => [...c.cookies.values()].every((v) => !JSON.stringify(seen).includes(v))));
  assert.equal(tavrctl("session", "list", "erin").split("\n").filter(Boolean).length, 2);

  assert.deepEqual(await audited("erin", () => tavrctl("session", "end", "--id", seen[0].id)), ["session ended console one"]);
  assert.deepEqual([await statuses(first), await statuses(second)], [[401], [200]]);
  assert.deepEqual(await audited("erin", () => tavrctl("session", "end", "erin")), ["session ended console all"]);
  assert.deepEqual(await statuses(second), [401]);
  assert.deepEqual(list("erin"), []);
  const third = await signIn(server, "erin");
  server.advance(901);
  assert.deepEqual(list("erin"), [], "one that has timed out");
  assert.deepEqual(await statuses(third), [401]);
});

test("joining and leaving the administrators ends the sessions", async () => {
  const former = await signIn(server, "frank");
  local.join(local.administrators, "frank");
  assert.deepEqual(await statuses(former), [401]);
  const administrator = await signIn(server, "frank");
  assert.equal((await administrator.get("/api/session")).json.is_admin, true);
  local.leave(local.administrators, "frank");
  assert.deepEqual(await statuses(administrator), [401]);
  assert.deepEqual(rows("frank").map(words).filter((w) => w.includes("rights")),
    ofTheConsole(["session ended console rights", "session ended console rights"]));
});

test("an account made anew under the same name inherits nothing", async () => {
  const key = await enrol(await signIn(server, "grace"), "grace");
  const live = await signInWithCode("grace", key);
  const half = await signIn(server, "grace");
  for (let i = 0; i < 5; ++i) {
    await half.post("/api/signin/code", { code: server.wrongCode(key) });
  }
  assert.equal((await half.post("/api/signin/code", { code: server.code(key) })).status, 429);
  const uid = (await live.get("/api/session")).json.uid;
  assert.ok(existsSync(`${kPreferences}/grace/otp_secret`));

  local.remove("grace");
  assert.deepEqual(await statuses(live), [401]);
  assert.ok(!readdirSync(kPreferences).includes("grace"));
  local.add("grace", server.passwords.grace);

  assert.deepEqual(await statuses(live), [401]);
  assert.equal((await half.post("/api/signin/code", { code: server.code(key) })).json.err, "no_pending_signin");
  const next = await attempt("grace", server.passwords.grace);
  assert.equal(next.json.state, "signed_in", "an enrolment was inherited");
  const fresh = await signIn(server, "grace");
  assert.ok((await fresh.get("/api/session")).json.uid > uid);
  assert.deepEqual((({ enrolled, mail, codes_left }) => [enrolled, mail, codes_left])((await fresh.get("/api/otp/status")).json),
    [false, undefined, 0]);
  assert.ok(!existsSync(`${kPreferences}/grace/otp_secret`));
  const anew = await enrol(fresh, "grace");
  assert.notEqual(anew, key);
  const code = await signIn(server, "grace");
  assert.equal((await code.post("/api/signin/code", { code: server.code(key) })).json.err, "otp_auth_failed");
  assert.equal((await code.post("/api/signin/code", { code: server.code(anew) })).json.state, "signed_in");
});
