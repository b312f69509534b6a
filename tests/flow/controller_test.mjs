// Accounts of a domain whose controller is a real one, as a member sees them: who signs in, in which groups, what is left
// of her when she is renamed, moved, removed and made anew, and what while the controller is away.
import assert from "node:assert/strict";
import { spawnSync } from "node:child_process";
import { appendFileSync } from "node:fs";
import test, { after } from "node:test";
import { setTimeout as sleep } from "node:timers/promises";

import { startSamba } from "../support/samba.mjs";
import { run, startServer } from "../support/server.mjs";
import { Client } from "./client.mjs";
import { enrol } from "./wizard.mjs";

const kSettingsFile = "/etc/tavr/tavrinfo.conf";
const kDan = "CORP\\dan";
const kDanPassword = "dan-password";

const domain = await startSamba();
after(() => domain.stop());
const server = await startServer({ accounts: { ada: ["--admin"], dan: [] } });
after(() => server.stop());
domain.setUp("ldap://dc1.corp.test");
appendFileSync(kSettingsFile, 'domain_page_size="10"\n');
const { client: ada } = await enrol(server, "ada");

const set = (key, value) => appendFileSync(kSettingsFile, `${key}="${value}"\n`); // the last one counts
const list = async (query) => (await ada.get(`/api/enforce/list?${new URLSearchParams(query)}`)).json;
const names = ({ rows }) => rows.map(({ name }) => name);
const numberOf = (name) => /^account\t(\d+),/m.exec(run("tavrctl", ["enforce", "explain", name]))[1];

async function signIn(user, password = `${user.split("\\")[1]}-password`) {
  const client = new Client(server.url);
  const answer = await client.post("/api/signin", { user, password });
  return { client, status: answer.status, state: answer.json.state, user: answer.json.user };
}

// SSSD's own number of an account. Empty: it does not know the name.
function numberAtClient(user) {
  const { stdout } = spawnSync("getent", ["-s", "sss", "passwd", user], { encoding: "utf8" });
  return stdout.split(":")[2] ?? "";
}

// Until SSSD, which remembers for a second or so what it was told, knows the name of another account than before.
async function learned(user, before) {
  const end = Date.now() + 30_000;
  while (["", before].includes(numberAtClient(user))) {
    assert.ok(Date.now() < end, user);
    await sleep(100);
  }
}

async function enrolInDomain(user, password) {
  const { client } = await signIn(user, password);
  const { json: { key } } = await client.post("/api/otp/qr", { password, account_name: user });
  const { json: confirmed } = await client.post("/api/otp/confirm", { password, code: server.code(key) });
  assert.equal(confirmed.auth_ok, true, JSON.stringify(confirmed));
  return key;
}

let key;

test("by every spelling it is one account, and the password is the domain's", async () => {
  for (const user of [kDan, "corp\\DAN", "dan@corp.test", "corp.test\\Dan"]) {
    const { status, state, user: called } = await signIn(user, kDanPassword);
    assert.deepEqual([status, state, called], [200, "signed_in", kDan], user);
  }
  for (const [user, password] of [[kDan, "wrong"], [kDan, server.passwords.dan], ["dan", kDanPassword], ["CORP\\nobody", "x"]]) {
    assert.equal((await signIn(user, password)).status, 401, user);
  }
});

test("the directory is copied page by page, encrypted, and only from whom its certificate names", async () => {
  const copied = "CORP: 31 accounts, 18 groups, 0 left out\n";
  assert.equal(run("tavrctl", ["domain", "sync"]), copied);
  set("domain_uri", "ldaps://dc1.corp.test");
  assert.equal(run("tavrctl", ["domain", "sync"]), copied);
  for (const [setting, value, usual] of [["domain_uri", "ldaps://localhost", "ldaps://dc1.corp.test"],
    ["domain_ca_file", "/srv/tls/other.pem", "/srv/tls/ca.pem"]]) {
    set(setting, value);
    assert.throws(() => run("tavrctl", ["domain", "sync"]), /no encryption with ldaps:/, setting);
    set(setting, usual);
  }
});

test("the console finds it in order", () => {
  assert.match(run("tavrctl", ["directory", "test", kDan]), new RegExp(`^settings: .*
ldaps://dc1.corp.test: connected, encrypted, lets cn=reader,cn=users,dc=corp,dc=test in
CORP: 31 accounts, 18 groups below dc=corp,dc=test
SSSD: answers, and knows CORP.dan
CORP.dan: number ${numberOf(kDan)}, SID S-1-5-21-[0-9-]+, groups 4
$`));
});

test("the administrator's lists have its people and groups", async () => {
  const users = Array.from({ length: 24 }, (_, i) => `CORP\\user${String(i + 1).padStart(2, "0")}`);
  const people = await list({ type: "domain_user", limit: -1 });
  assert.deepEqual(names(people), ["CORP\\administrator", kDan, "CORP\\dns-dc1", "CORP\\eve", "CORP\\guest", "CORP\\krbtgt",
    "CORP\\reader", ...users]);
  assert.deepEqual(people.rows[1], { id: numberOf(kDan), name: kDan, desc: "Dan the Man", is_enforced: false });
  assert.deepEqual(names(await list({ type: "domain_user", domain: "Sales/Inner" })), [kDan]);
  assert.deepEqual(names(await list({ type: "domain_user", domain: "Berlin", offset: 20, limit: 10 })), users.slice(20));
  const groups = await list({ type: "domain_group", domain: "Sales" });
  assert.deepEqual(names(groups), ["CORP\\inner circle", "CORP\\night shift", "CORP\\storage admins"]);
  assert.ok(names(await list({ type: "domain_group", limit: -1 })).includes("CORP\\domain users"));
});

test("a group demands it of who is in a group of a group of it", async () => {
  const [{ id }] = (await list({ type: "domain_group", query: "storage admins" })).rows;
  assert.equal((await ada.post("/api/enforce/set", { type: "domain_group", settings: [{ id, is_enforced: true }] })).status, 200);
  run("tavrctl", ["enforce", "option", "custom"]);
  assert.equal((await signIn("CORP\\user01")).state, "enrolment_required"); // a member herself
  assert.equal((await signIn("CORP\\user02")).state, "signed_in");
  assert.equal((await signIn(kDan)).state, "enrolment_required");
  key = await enrolInDomain(kDan, kDanPassword);
  assert.equal((await signIn(kDan)).state, "code_required");
  assert.equal((await signIn("dan", server.passwords.dan)).state, "signed_in");
});

test("who is not let in by the domain is not let in here", async () => {
  domain.tool("user", "disable", "user03");
  assert.equal((await signIn("CORP\\user03")).status, 401);
  domain.tool("user", "setpassword", "user04", "--newpassword=another");
  assert.equal((await signIn("CORP\\user04")).status, 401);
  assert.equal((await signIn("CORP\\user04", "another")).state, "signed_in");
});

test("who is renamed and moved keeps number and second step", async () => {
  const renamed = "CORP\\daniel";
  const number = numberOf(kDan);
  domain.tool("user", "rename", "dan", "--samaccountname=daniel", "--upn=daniel@corp.test");
  domain.tool("user", "move", "daniel", "ou=Berlin");
  await learned(renamed, "");
  assert.equal((await signIn(renamed, kDanPassword)).state, "code_required");
  assert.equal(numberOf(renamed), number);
  server.advance(30);
  const { client } = await signIn(renamed, kDanPassword);
  assert.equal((await client.post("/api/signin/code", { code: server.code(key) })).json.user, renamed);
  assert.notEqual((await signIn(kDan, kDanPassword)).status, 200);

  run("tavrctl", ["domain", "sync"]);
  const { rows } = await list({ type: "domain_user", domain: "Berlin", query: "Dan the" });
  assert.deepEqual(rows, [{ id: number, name: renamed, desc: "Dan the Man", is_enforced: false }]);
});

test("who is removed and made anew is somebody else", async () => {
  const eve = "CORP\\eve";
  await enrolInDomain(eve, "eve-password");
  assert.equal((await signIn(eve)).state, "code_required");
  const [number, before] = [numberOf(eve), numberAtClient(eve)];
  domain.tool("user", "delete", "eve");
  assert.notEqual((await signIn(eve)).status, 200);
  domain.tool("user", "create", "eve", "eve-password");
  await learned(eve, before);
  assert.equal((await signIn(eve)).state, "signed_in");
  assert.notEqual(numberOf(eve), number);
});

test("through winbind they are the same accounts", async () => {
  const number = numberOf("CORP\\user01");
  set("domain_client", "winbind");
  assert.equal(numberOf("CORP\\user01"), number);
  for (const [user, password, expected] of [["CORP\\user01", "user01-password", "enrolment_required"],
    ["user02@corp.test", "user02-password", "signed_in"], ["CORP\\user02", "wrong", undefined],
    ["CORP\\nobody", "x", undefined],
    ["CORP\\daniel", kDanPassword, "code_required"],
    ["CORP\\user24", "user24-password", "enrolment_required"]]) { // in a group of a group, and never here before
    const { status, state } = await signIn(user, password);
    assert.deepEqual([status, state], [expected ? 200 : 401, expected], user);
  }
  set("domain_client", "sssd");
});

test("while the controller is away what it demanded is demanded, and local accounts are not disturbed", async () => {
  const [{ client: member }, { client: other }] = [await signIn("CORP\\user01"), await signIn("CORP\\user02")];
  domain.killController();
  for (const user of ["CORP\\user01", "CORP\\user02"]) {
    assert.equal((await signIn(user)).status, 503, user);
  }
  // SSSD remembers whom it was asked about.
  assert.equal((await member.get("/api/otp/status")).json.enforced, true);
  assert.equal((await other.get("/api/session")).status, 200);
  assert.equal((await signIn("dan", server.passwords.dan)).state, "signed_in");
  assert.equal((await signIn("ada", server.passwords.ada)).state, "code_required");
  assert.throws(() => run("tavrctl", ["domain", "sync"]), /the copy of it stays as it is/);
  assert.equal((await list({ type: "domain_user" })).total, 31);
});
