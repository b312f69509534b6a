// Accounts of a domain: signing in, enrolling, being made to, the address that is kept here, and what is left while the
// domain is away.
import assert from "node:assert/strict";
import { chownSync, existsSync, readFileSync, readdirSync, utimesSync, writeFileSync } from "node:fs";
import { join } from "node:path";
import test, { after } from "node:test";

import { startDomain } from "../support/domain.mjs";
import { startNotificationServer } from "../support/mail.mjs";
import { run, startServer } from "../support/server.mjs";
import { Client } from "./client.mjs";

const kDan = "CORP\\dan";
const kDanPassword = "dan-password";
const kOther = "CORP\\user000002"; // in group0002 alone
const kOtherPassword = "pw-000002";
const kMail = "dan@home.example";
const kPreferences = "/usr/tavr/etc/preference";
const kSettingsFile = "/etc/tavr/tavrinfo.conf";
const kService = 64217;

const server = await startServer({ accounts: { admin: ["--admin"], dan: [] } });
after(() => server.stop());
const domain = await startDomain();
after(() => domain.stop());
domain.setUp();
const mails = await startNotificationServer();
after(() => mails.stop());

async function signIn(user, password) {
  const client = new Client(server.url);
  return { client, answer: await client.post("/api/signin", { user, password }) };
}

const local = (user) => signIn(user, server.passwords[user]);

function settingsFile() {
  const folder = readdirSync(kPreferences).find((name) => name.startsWith("%43%4F%52%50"));
  return join(kPreferences, folder, "usersettings");
}

// As somebody else leaves it, a while ago.
function leaveSettings(text) {
  writeFileSync(settingsFile(), text);
  chownSync(settingsFile(), kService, kService);
  utimesSync(settingsFile(), 1_000_000_000, 1_000_000_000);
}

let key;
let danClient;

test("by every spelling it is one account, and no local one of the same name", async () => {
  for (const user of [kDan, " corp\\DAN ", "dan@corp.test", "Dan@CORP", "corp.test\\dan"]) {
    const { answer } = await signIn(user, kDanPassword);
    assert.deepEqual([answer.status, answer.json.state, answer.json.user], [200, "signed_in", kDan], user);
  }
  const other = await local("dan");
  assert.equal(other.answer.json.user, "dan");
  for (const [user, password] of [[kDan, server.passwords.dan], ["dan", kDanPassword], [kDan, "wrong"], [kDan, ""],
    ["CORP\\nobody", "x"], ["OTHER\\dan", kDanPassword], ["CORP\\root", "x"], ["dan@other.test", kDanPassword]]) {
    const { answer } = await signIn(user, password);
    assert.ok([400, 401].includes(answer.status), `${user}: ${answer.status} ${answer.text}`);
  }
});

test("a group of the domain, one inside another too, can be made to", async () => {
  run("tavrctl", ["enforce", "add", "domain_group", "CORP\\storage"]);
  run("tavrctl", ["enforce", "option", "custom"]);
  const { client, answer } = await signIn(kDan, kDanPassword);
  assert.equal(answer.json.state, "enrolment_required");
  assert.equal((await signIn(kOther, kOtherPassword)).answer.json.state, "signed_in");
  assert.equal((await local("dan")).answer.json.state, "signed_in");

  const { json: { key: shown } } = await client.post("/api/otp/qr", { password: kDanPassword, account_name: kDan });
  const { json: confirmed } = await client.post("/api/otp/confirm", { password: kDanPassword, code: server.code(shown) });
  assert.equal(confirmed.auth_ok, true, JSON.stringify(confirmed));
  key = shown;
  danClient = client;
});

test("the recovery address is kept here", async () => {
  const saved = await danClient.post("/api/otp/mail", { password: kDanPassword, mail: kMail });
  assert.deepEqual([saved.status, saved.json.success, saved.json.saved], [200, true, true], saved.text);
  const status = await danClient.get("/api/otp/status");
  assert.deepEqual([status.json.enrolled, status.json.enforced, status.json.mail, status.json.mail_writable],
    [true, true, "d***@home.example", true]);
  assert.equal(existsSync(`${settingsFile()}.before`), false);
});

test("she signs in with a code, and with one that was mailed", async () => {
  server.advance(30);
  const { client, answer } = await signIn("dan@corp.test", kDanPassword);
  assert.equal(answer.json.state, "code_required");
  const finished = await client.post("/api/signin/code", { code: server.code(key) });
  assert.deepEqual([finished.status, finished.json.state, finished.json.user], [200, "signed_in", kDan]);

  const again = await signIn(kDan, kDanPassword);
  const asked = await again.client.post("/api/signin/emergency");
  assert.equal(asked.json.success, true, asked.text);
  const [mail] = await mails.codes(1);
  assert.deepEqual(mail.envelope.to, [kMail]);
  assert.equal((await again.client.post("/api/signin/code", { code: mail.code })).json.state, "signed_in");
});

test("settings that are no object are put aside, and no worker falls", async () => {
  const workers = server.workers().join();
  server.advance(3600);
  for (const hostile of ["[1]", "17", "", "{\"TAVR.Ombra.App.PersonalSettings.Instance\":[]}",
    `{"TAVR.Ombra.App.PersonalSettings.Instance":{"otp_mail":{"a":1}}}`,
    "[".repeat(60_000) + "]".repeat(60_000), `{"a":${"[".repeat(5000)}${"]".repeat(5000)}}`]) {
    leaveSettings(hostile);
    const { client } = await signIn(kDan, kDanPassword);
    const asked = await client.post("/api/signin/emergency");
    const words = hostile.slice(0, 60);
    assert.deepEqual([asked.status, asked.json.success, asked.json.err], [200, false, "no_mail_address"], words);
    assert.equal(readFileSync(settingsFile(), "utf8"), "{}\n", words);
    assert.equal(readFileSync(`${settingsFile()}.unusable`, "utf8"), hostile, words);
  }
  assert.equal(server.workers().join(), workers);

  leaveSettings("[1]");
  server.advance(30);
  const { client } = await signIn(kDan, kDanPassword);
  const finished = await client.post("/api/signin/code", { code: server.code(key) });
  assert.equal(finished.json.state, "signed_in", finished.text);
  server.advance(30);
  const saved = await client.post("/api/otp/mail", { password: kDanPassword, mail: kMail, code: server.code(key) });
  assert.deepEqual([saved.status, saved.json.saved], [200, true], saved.text);
});

test("the console knows the account", () => {
  assert.match(run("tavrctl", ["otp", "status", "dan@corp.test"]), /^CORP\\dan: enrolled, 9 emergency codes left$/m);
  assert.match(run("tavrctl", ["session", "list", kDan]), /CORP\\dan\tlive/);
  assert.throws(() => run("tavrctl", ["user", "remove", kDan]), /status 2.*not of a local one/s);
});

test("the console tries out the domain, step by step", () => {
  const tryOut = (...words) => run("tavrctl", ["directory", "test", ...words]);
  assert.match(tryOut("dan@corp.test"), new RegExp(String.raw`^settings: accounts are called CORP\\name or name@corp\.test
ldap://127\.0\.0\.1:${domain.port}: connected, encrypted, lets cn=reader,dc=test in
CORP: 23 accounts, 7 groups below dc=corp,dc=test
SSSD: answers, and knows CORP\\dan
CORP\\dan: number 2000000000, SID S-1-5-21-1-2-3-1111, groups 2
$`));
  const { domain: told } = JSON.parse(run("tavrctl", ["--json", "directory", "test"]));
  assert.deepEqual(told, { name: "CORP", realm: "corp.test", servers: [`ldap://127.0.0.1:${domain.port}`], accounts: 23,
    groups: 7, client: "SSSD" });

  assert.throws(() => tryOut("CORP\\nobody"), /status 3.*SSSD does not know CORP\\nobody; see that it serves the domain as CORP/s);
  assert.throws(() => tryOut("OTHER\\dan"), /status 2.*no name of an account of the domain/s);
  assert.throws(() => tryOut("carol"), /status 2.*no name of an account of a directory that is set up/s);
  const settings = readFileSync(kSettingsFile, "utf8");
  for (const [line, words] of [
    ['domain_client="other"', /setting domain_client is neither .*; mend the settings domain_\*/],
    ['domain_uri="ldap://127.0.0.1:1"', /Connection refused; see that the server runs, and host and port in domain_uri/],
    ['domain_ca_file="/etc/ssl/certs/ca-certificates.crt"', /no encryption with .*; see that domain_ca_file/],
    ['domain_bind_dn="cn=other,dc=test"', /does not let cn=other.* in: Invalid credentials; see domain_bind_dn/],
    ['domain_base="dc=elsewhere"', /No such object.*; see domain_base, and what the reading account may read/],
    ['domain_base="ou=Nobody,dc=corp,dc=test"', /No such object.*; see domain_base/],
    ['domain_client="winbind"', /winbind was asked for an account: .*; see that its service runs and serves the domain as CORP, and that domain_client/],
    ['domain_name="THEIRS"', /SSSD .*; see that .* serves the domain as THEIRS/],
  ]) {
    writeFileSync(kSettingsFile, `${settings}${line}\n`);
    assert.throws(() => tryOut("dan@corp.test"), words, line);
  }
  writeFileSync(kSettingsFile, settings);
});

test("while the domain is away its accounts wait, and local ones do not", async () => {
  const before = (await signIn(kOther, kOtherPassword)).client;
  domain.pause();
  const started = Date.now();
  const [dan, other, admin] = await Promise.all([signIn(kDan, kDanPassword), local("dan"), local("admin")]);
  assert.ok(Date.now() - started < 20_000, `${Date.now() - started} ms`);
  assert.deepEqual([dan.answer.status, dan.answer.json.err], [503, "otp_unavailable"]);
  assert.equal(other.answer.json.state, "signed_in");
  assert.equal(admin.answer.json.state, "signed_in");
  domain.goOn();
  assert.equal((await signIn(kDan, kDanPassword)).answer.json.state, "code_required");

  domain.killClient();
  for (const [user, password] of [[kDan, kDanPassword], [kDan, "wrong"], [kOther, kOtherPassword]]) {
    assert.equal((await signIn(user, password)).answer.status, 503, user);
  }
  assert.equal((await local("admin")).answer.json.state, "signed_in");
  assert.throws(() => run("tavrctl", ["directory", "test"]), /SSSD was asked for an account: .*; see that its service runs/);
  // Who was signed in stays so; whether the policy demands something of her cannot be told.
  assert.equal((await before.get("/api/session")).status, 200);
  const status = await before.get("/api/otp/status");
  assert.deepEqual([status.status, status.json.err], [503, "policy_unavailable"]);
});
