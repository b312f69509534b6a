// What stands between the workers and a directory fails in every way that it can: each request is answered in time, nobody
// is let in, nothing that was demanded is not demanded any more, and who is not of the directory does not notice.
import assert from "node:assert/strict";
import { spawnSync } from "node:child_process";
import { readFileSync, writeFileSync } from "node:fs";
import test, { after } from "node:test";
import { setTimeout as sleep } from "node:timers/promises";

import { startDirectory, startProxy } from "../support/directory.mjs";
import { setNotificationServer } from "../support/mail.mjs";
import { run, startServer } from "../support/server.mjs";
import { Client, signIn as signInHalf } from "./client.mjs";
import { enrol, signInWithCode } from "./wizard.mjs";

const kSettingsFile = "/etc/tavr/tavrinfo.conf";
const kPlain = { ldap_starttls: "no" };

// Cases of ldap_proxy.py, with StartTLS where the settings do not say otherwise.
const kCases = [
  ["refuse:connect"], ["drop:connect"],
  ...["starttls", "handshake", "bind", "search", "groups", "password"].flatMap((where) =>
    ["hang", "drip", "drop"].map((fault) => [`${fault}:${where}`])),
  ...["bind", "search", "groups", "password"].flatMap((where) =>
    ["huge", "busy", "referral"].map((fault) => [`${fault}:${where}`])),
  ["references:search"], ["references:groups"],
  ["other-ca:starttls"], ["strip:starttls"], ["false:starttls"],
  ["other-ca:connect:ldaps"], ["hang:handshake:ldaps"], ["drop:password:ldaps"],
  ["hang:search", kPlain], ["drip:password", kPlain], ["drop:search", kPlain], ["huge:search", kPlain],
  ["referral:password", kPlain],
].map(([name, settings = {}]) => ({ name, settings }));

const server = await startServer({ accounts: { ada: ["--admin"], carol: [] } });
after(() => server.stop());
const directory = await startDirectory(["--users", "100"]);
after(() => directory.stop());
const proxy = await startProxy(directory, [...kCases.map(({ name }) => name), "hang:connect", "none:connect", "hang:connect"]);
after(() => proxy.stop());
const hanging = kCases.length;
const healthy = hanging + 1;
const hangingLater = healthy + 1;
const uriOf = (index, scheme = "ldap") => `${scheme}://127.0.0.1:${proxy.ports[index]}`;
directory.setUp(uriOf(healthy));
setNotificationServer({ port: 1 }, "system", "secret");   // nobody: notices wait
const settings = readFileSync(kSettingsFile, "utf8");
// Every generated account has it as its primary group.
run("tavrctl", ["enforce", "add", "ldap_group", "everybody@office.example"]);
run("tavrctl", ["enforce", "option", "custom"]);
const { key } = await enrol(server, "ada");
const policy = readFileSync(kSettingsFile, "utf8").slice(settings.length);

function askAt(index, more = {}) {
  const scheme = kCases[index]?.name.endsWith(":ldaps") ? "ldaps" : "ldap";
  const lines = Object.entries({ ldap_uri: uriOf(index, scheme), ...more }).map(([name, value]) => `${name}="${value}"\n`);
  writeFileSync(kSettingsFile, settings + policy + lines.join(""));
}

const nameOf = (n) => `user${String(n).padStart(4, "0")}@office.example`;
const passwordOf = (n) => `pw-${String(n).padStart(4, "0")}`;

async function until(ready, what) {
  for (const end = Date.now() + 10_000; !ready(); await sleep(5)) {
    assert.ok(Date.now() < end, what);
  }
}

async function signIn(user, password) {
  const client = new Client(server.url);
  const begun = performance.now();
  const answer = await client.post("/api/signin", { user, password });
  return { client, answer, said: `${answer.status} ${answer.json.err ?? answer.json.state}`, ms: performance.now() - begun };
}

test("through the proxy all is as without it", async () => {
  const { said } = await signIn(nameOf(99), passwordOf(99));
  assert.equal(said, "200 enrolment_required");
});

test("with two workers, others sign in while a directory hangs, and who is of it is told to come again", async () => {
  askAt(hanging);
  let waiting = true;
  const first = signIn(nameOf(1), passwordOf(1)).finally(() => { waiting = false; });
  await until(() => proxy.told.includes(`REACHED ${hanging}`), "the first one waits");
  const others = await Promise.all([2, 3, 4].map((n) => signIn(nameOf(n), passwordOf(n))));
  for (let i = 0; i < 3; i += 1) {
    assert.equal((await signIn("carol", server.passwords.carol)).said, "200 signed_in");
  }
  assert.ok(waiting, "while the first one waits");
  for (const { answer, said } of others) {
    assert.equal(said, "503 busy");
    assert.equal(answer.headers["retry-after"], "5");
  }
  assert.equal((await first).said, "503 otp_unavailable");
});

test("a notice that asks a hanging directory, when the answer is out, keeps nobody waiting", async () => {
  askAt(healthy);
  const user = nameOf(97);
  server.passwords[user] = passwordOf(97);
  const { key: secret } = await enrol(server, user);
  const half = await signInHalf(server, user);
  askAt(hangingLater);
  for (let i = 0; i < 3; i += 1) {
    assert.equal((await half.post("/api/signin/code", { code: server.wrongCode(secret) })).status, 401);
  }
  await until(() => proxy.told.includes(`REACHED ${hangingLater}`), "the third one's notice asks");
  assert.equal((await signIn(nameOf(5), passwordOf(5))).said, "503 busy", "the notice waits");
  for (let i = 0; i < 3; i += 1) {
    assert.equal((await signIn("carol", server.passwords.carol)).said, "200 signed_in");
  }
});

test(`${kCases.length} ways to fail, side by side`, async () => {
  askAt(healthy);
  const ada = await signInWithCode(server, "ada", key);
  await server.restartWeb(60);
  const asked = [];
  for (const [index, { name, settings: more }] of kCases.entries()) {
    askAt(index, more);
    const reached = () => proxy.told.includes(`REACHED ${index}`);
    // Right and wrong passwords, and lists where the search fails.
    const n = index + 1;
    const password = n % 3 || name.includes(":groups") ? passwordOf(n) : "wrong";
    const begun = performance.now();
    const request = name.includes(":search") && n % 2 ? ada.get("/api/enforce/list?type=ldap_user&query=user")
      : signIn(nameOf(n), password).then(({ answer }) => answer);
    const answered = request.then((answer) => ({ name, answer, ms: performance.now() - begun }));
    asked.push(answered);
    await (name.startsWith("refuse") ? answered : until(reached, name));
  }
  const longest = { ms: 0 };
  for (const { name, answer, ms } of await Promise.all(asked)) {
    assert.equal(answer.status, 503, `${name}: ${answer.text}`);
    assert.match(answer.json.err, /^(otp|policy|directory)_unavailable$/, name);
    assert.deepEqual(answer.setCookies, [], name);
    if (ms > longest.ms) {
      Object.assign(longest, { name, ms });
    }
  }
  console.log(`the longest: ${longest.name}, ${Math.round(longest.ms)} ms`);
  assert.ok(longest.ms < 12_000, `${longest.name}: ${longest.ms} ms`);   // ten seconds, and what a busy machine adds
  assert.deepEqual(proxy.told.filter((line) => line.startsWith("ALL-TAKEN") || line === "FOLLOWED"), []);
});

test("afterwards all is as before, and no password was counted", async () => {
  askAt(healthy);
  for (let i = 0; i < 12; i += 1) {   // more than may be wrong
    askAt(0);
    assert.equal((await signIn(nameOf(98), i % 2 ? "wrong" : passwordOf(98))).said, "503 otp_unavailable");
  }
  askAt(healthy);
  for (const n of [1, 2, 98]) {
    assert.equal((await signIn(nameOf(n), passwordOf(n))).said, "200 enrolment_required");
  }
  assert.equal((await signIn(nameOf(98), "wrong")).said, "401 bad_credentials");
});

test("without the LDAP library nobody of the directory is let in, and with it again all is as before", async () => {
  const [file] = run("sh", ["-c", "readlink -f /usr/lib/*/libldap-*.so.*"]).split("\n");
  run("mount", ["--bind", "/dev/null", file]);
  try {
    await server.restartWeb();
    assert.equal((await signIn(nameOf(1), passwordOf(1))).said, "503 otp_unavailable");
    assert.equal((await signIn("carol", server.passwords.carol)).said, "200 signed_in");
    const { status, stderr } = spawnSync("tavrctl", ["directory", "test"], { encoding: "utf8" });
    assert.equal(status, 1);
    assert.match(stderr, /^tavrctl: \S*libldap[^\n]*; install the LDAP library\n$/);
  } finally {
    run("umount", [file]);
  }
  assert.equal((await signIn(nameOf(1), passwordOf(1))).said, "200 enrolment_required");
});
