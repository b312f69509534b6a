// Accounts of an LDAP directory: signing in, enrolling, being made to, and what is left while the directory is away.
import assert from "node:assert/strict";
import { readFileSync, writeFileSync } from "node:fs";
import test, { after } from "node:test";
import { setTimeout as sleep } from "node:timers/promises";

import { startDirectory } from "../support/directory.mjs";
import { setNotificationServer, startMailServer, trust } from "../support/mail.mjs";
import { run, startServer } from "../support/server.mjs";
import { Client } from "./client.mjs";

const kLea = "lea@office.example";
const kLeaPassword = "lea-password";
const kSettingsFile = "/etc/tavr/tavrinfo.conf";

const server = await startServer({ accounts: { admin: ["--admin"], carol: [] } });
after(() => server.stop());
const directory = await startDirectory();
after(() => directory.stop());
directory.setUp();
const mails = await startMailServer(["--user", "system", "--password", "secret"]);
after(() => mails.stop());
trust([mails]);

async function signIn(user, password) {
  const client = new Client(server.url);
  return { client, answer: await client.post("/api/signin", { user, password }) };
}

const local = (user) => signIn(user, server.passwords[user]);

async function enrol(client, user, password) {
  const { json: { key } } = await client.post("/api/otp/qr", { password, account_name: user });
  const { json: answer } = await client.post("/api/otp/confirm", { password, code: server.code(key) });
  assert.equal(answer.auth_ok, true, JSON.stringify(answer));
  return { key, answer };
}

let key;

test("somebody of the directory signs in, enrols and signs in with a code", async () => {
  const { client, answer } = await signIn(" LEA@Office.Example", kLeaPassword);
  assert.deepEqual([answer.status, answer.json.state, answer.json.user], [200, "signed_in", kLea]);
  let status = await client.get("/api/otp/status");
  assert.deepEqual([status.json.enrolled, status.json.mail, status.json.mail_writable], [false, "l***@home.example", false]);

  const enrolled = await enrol(client, kLea, kLeaPassword);
  key = enrolled.key;
  assert.equal(enrolled.answer.mail, "lea@home.example");
  const saved = await client.post("/api/otp/mail", { password: kLeaPassword, mail: "other@home.example" });
  assert.equal(saved.json.saved, false);
  assert.equal(saved.json.errno.key, "failed_to_set_ldap_otp_mail");

  server.advance(30);
  const again = await signIn(kLea, kLeaPassword);
  assert.equal(again.answer.json.state, "code_required");
  const finished = await again.client.post("/api/signin/code", { code: server.code(key) });
  assert.deepEqual([finished.status, finished.json.state, finished.json.user], [200, "signed_in", kLea]);
  status = await again.client.get("/api/otp/status");
  assert.deepEqual([status.json.enrolled, status.json.codes_left], [true, 10]);
});

test("what is no password of hers is refused, and nobody gets in with none", async () => {
  for (const [user, password] of [[kLea, "wrong"], [kLea, ""], ["nobody@office.example", "x"],
    ["twin@office.example", "one-password"], ["lea@other.example", kLeaPassword], ["*@office.example", "x"]]) {
    const { answer } = await signIn(user, password);
    assert.ok([400, 401].includes(answer.status), `${user}: ${answer.status} ${answer.text}`);
  }
});

test("an emergency code goes to the address in the directory", async () => {
  setNotificationServer(mails, "system", "secret");
  const { client } = await signIn(kLea, kLeaPassword);
  const asked = await client.post("/api/signin/emergency");
  assert.equal(asked.json.success, true, asked.text);
  const [mail] = await mails.codes(1);
  assert.deepEqual(mail.envelope.to, ["lea@home.example"]);
  const finished = await client.post("/api/signin/code", { code: mail.code });
  assert.equal(finished.json.state, "signed_in");
});

test("a group of the directory, nested ones too, can be made to", async () => {
  run("tavrctl", ["enforce", "add", "ldap_group", "outer@office.example"]);
  run("tavrctl", ["enforce", "option", "custom"]);
  const { answer } = await signIn("nomail@office.example", "nomail-password");
  assert.equal(answer.json.state, "enrolment_required");
  const { answer: free } = await signIn("manymail@office.example", "manymail-password");
  assert.equal(free.json.state, "signed_in");
  let binds;
  do {   // the log may be a moment late
    await sleep(20);
    binds = [...server.log().matchAll(/conn=(\d+) op=\d+ BIND dn="([^"]+)" method/g)];
  } while (!binds.at(-1)[2].startsWith("uid=manymail,"));
  const [, last] = binds.at(-1);
  assert.deepEqual(binds.filter(([, connection]) => connection === last).map(([, , dn]) => dn),
    ["cn=reader,dc=office,dc=example", "uid=manymail,ou=people,dc=office,dc=example"], "two binds, over one connection");
  const listed = JSON.parse(run("tavrctl", ["--json", "enforce", "list", "ldap_user", "--filter", "all", "--query",
    "user000", "--limit", "3"]));
  assert.equal(listed.total, 9);
  assert.equal(listed.rows.length, 3);
});

test("the console knows the accounts that were seen here, and tries out the directory", async () => {
  assert.match(run("tavrctl", ["otp", "status", "LEA@office.example"]), /^lea@office.example: enrolled, 9 emergency codes left$/m);
  assert.throws(() => run("tavrctl", ["otp", "status", "unseen@office.example"]), /status 3.*has been seen here yet/s);
  assert.throws(() => run("tavrctl", ["user", "remove", kLea]), /status 2.*not of a local one/s);
  assert.match(run("tavrctl", ["session", "list", kLea]), /lea@office.example\tlive/);
  const tested = run("tavrctl", ["directory", "test", kLea]);
  assert.match(tested, new RegExp(`^settings: accounts are called name@office.example
ldap://127.0.0.1:${directory.port}: connected, encrypted, lets cn=reader,dc=office,dc=example in
accounts: \\d+ below dc=office,dc=example
groups: 11 below dc=office,dc=example
lea@office.example: number 2000000000, address lea@home.example, groups 2
$`));
  const answer = JSON.parse(run("tavrctl", ["--json", "directory", "test"]));
  assert.deepEqual([answer.realm, answer.servers.length, answer.groups], ["office.example", 1, 11]);
  const settings = readFileSync(kSettingsFile, "utf8");
  for (const [line, words] of [
    ['ldap_realm=""', /setting ldap_realm names no realm.*mend the settings/s],
    ['ldap_uri="ldap://127.0.0.1:1"', /Connection refused; see that the server runs/],
    ['ldap_ca_file="/etc/ssl/certs/ca-certificates.crt"', /no encryption with .*; see that ldap_ca_file/],
    ['ldap_bind_dn="cn=other,dc=office,dc=example"', /does not let cn=other.* in: Invalid credentials; see ldap_bind_dn/],
    ['ldap_user_base="dc=elsewhere"', /No such object.*; see ldap_base/],
    ['ldap_id="absent"', /there are no accounts with a name and an identifier \(ldap_id\).*; see ldap_base/],
  ]) {
    writeFileSync(kSettingsFile, `${settings}${line}\n`);
    assert.throws(() => run("tavrctl", ["directory", "test"]), words, line);
  }
  writeFileSync(kSettingsFile, settings);
  assert.throws(() => run("tavrctl", ["directory", "test", "twin@office.example"]), /status 3.*or several entries have the name/s);
  assert.throws(() => run("tavrctl", ["directory", "test", "carol"]), /status 2/);
});

test("while the directory is away its accounts wait, and local ones do not", async () => {
  const before = (await signIn("manymail@office.example", "manymail-password")).client;
  directory.pause();
  const started = Date.now();
  const [lea, carol, admin] = await Promise.all([signIn(kLea, kLeaPassword), local("carol"), local("admin")]);
  assert.ok(Date.now() - started < 12_000, `${Date.now() - started} ms`);
  assert.deepEqual([lea.answer.status, lea.answer.json.err], [503, "otp_unavailable"]);
  assert.equal(carol.answer.json.state, "signed_in");
  assert.equal(admin.answer.json.state, "signed_in");
  directory.goOn();
  assert.equal((await signIn(kLea, kLeaPassword)).answer.json.state, "code_required");

  await directory.stop();
  for (const [user, password] of [[kLea, kLeaPassword], [kLea, "wrong"], ["nomail@office.example", "nomail-password"]]) {
    assert.equal((await signIn(user, password)).answer.status, 503, user);
  }
  assert.equal((await local("carol")).answer.json.state, "signed_in");
  // Who was signed in stays so; whether the policy demands something of her cannot be told.
  assert.equal((await before.get("/api/session")).status, 200);
  const status = await before.get("/api/otp/status");
  assert.deepEqual([status.status, status.json.err], [503, "policy_unavailable"]);
});
