// Accounts of the system: what becomes of them when the system's own programs change them, and of those of the embedded
// store. Other flows run on them as well (CMakeLists.txt).
import assert from "node:assert/strict";
import { appendFileSync, existsSync, readFileSync, renameSync, writeFileSync } from "node:fs";
import { after, test } from "node:test";

import { system } from "../support/accounts.mjs";
import { startNotificationServer } from "../support/mail.mjs";
import { run, startServer } from "../support/server.mjs";
import { Client, signIn } from "./client.mjs";
import { enrol, signInWithCode, Wizard } from "./wizard.mjs";

const kSettings = "/etc/tavr/tavrinfo.conf";

const server = await startServer({ accounts: { admin: ["--admin"], alice: [] } });
after(() => server.stop());
const mails = await startNotificationServer();
after(() => mails.stop());

function setPassword(name, password) {
  system.setPassword(name, password);
  server.passwords[name] = password;
}

function addPerson(name, ...options) {
  run("useradd", [...options, "--", name]);
  setPassword(name, `${name} of the system`);
}

const ask = (client) => client.post("/api/signin/emergency");
const type = (client, code) => client.post("/api/signin/code", { code });
const post = (user, password) => new Client(server.url).post("/api/signin", { user, password });
const state = async (user) => (await signIn(server, user)).token && (await post(user, server.passwords[user])).json.state;
const sessionOf = async (client) => (await client.get("/api/session")).status;
const doctor = () => run("sh", ["-c", "tavrctl doctor || true"]);
const uidOf = (name) => JSON.parse(run("tavrctl", ["--json", "otp", "status", name])).uid;
const list = async (client, query) =>
  (await client.get(`/api/enforce/list?${new URLSearchParams({ offset: 0, limit: -1, filter: "all", ...query })}`)).json;

const embedded = await signIn(server, "alice");
system.use();
addPerson("ada", "--groups", "sudo", "--comment", "Ada, Room 7");
for (const name of ["ben", "cora", "dora", "eve"]) {
  addPerson(name);
}

let ada;

test("nobody of the embedded store is anybody any more", async () => {
  assert.equal(await sessionOf(embedded), 401);
  for (const name of ["alice", "admin", "root", "daemon", "tavr-web"]) {
    const answer = await post(name, server.passwords[name] ?? "x");
    assert.deepEqual([answer.status, answer.json.err], [401, "bad_credentials"], name);
  }
});

test("sessions end with a change of the setting, in either direction, and do not wake up when it is undone", async () => {
  const ben = await signIn(server, "ben");
  appendFileSync(kSettings, 'accounts="embedded"\n');
  assert.equal(await sessionOf(embedded), 401);
  const alice = await signIn(server, "alice");
  assert.equal(await sessionOf(alice), 200);
  assert.equal(await sessionOf(ben), 401);
  appendFileSync(kSettings, 'accounts="system"\n');
  assert.equal(await sessionOf(ben), 401);
  await signIn(server, "ben");
  appendFileSync(kSettings, 'accounts="embedded"\n');
  assert.equal(await sessionOf(alice), 401);
  appendFileSync(kSettings, 'accounts="system"\n');
});

test("she signs in by any spelling with her own password, sets a second step up and gets in with its code", async () => {
  const answer = await post(" ADA ", server.passwords.ada);
  assert.deepEqual([answer.status, answer.json.state, answer.json.user], [200, "signed_in", "ada"], answer.text);
  assert.equal((await post("ada", "wrong")).status, 401);
  assert.equal((await post("ada", "")).status, 401);
  ada = await enrol(server, "ada");
  assert.equal((await post("ada", server.passwords.ada)).json.state, "code_required");
  ada.client = await signInWithCode(server, "ada", ada.key);
  assert.equal((await ada.client.get("/api/session")).json.is_admin, true);
});

test("members of sudo administer, and nobody else", async () => {
  const ben = await signIn(server, "ben");
  assert.deepEqual((await ben.get("/api/enforce/option")).json.err, "not_admin");
  assert.deepEqual((await ada.client.get("/api/enforce/option")).json, { success: true, option: "none", not_enrolled: 0 });
  const users = await list(ada.client, { type: "local_user" });
  assert.deepEqual(users.rows.map(({ name, desc }) => [name, desc]),
    [["ada", "Ada"], ["ben", ""], ["cora", ""], ["dora", ""], ["eve", ""]]);
  assert.equal(users.total, 5);
  assert.deepEqual((await list(ada.client, { type: "local_user", offset: 1, limit: 2 })).rows.map(({ name }) => name),
    ["ben", "cora"]);
  assert.deepEqual((await list(ada.client, { type: "local_group", query: "UDO" })).rows.map(({ name }) => name), ["sudo"]);
});

test("who is picked, alone or by a group, has to enrol", async () => {
  run("groupadd", ["staff-2"]);
  run("usermod", ["--append", "--groups", "staff-2", "cora"]);
  const [group] = (await list(ada.client, { type: "local_group", query: "staff-2" })).rows;
  for (const [picked, id] of [["local_user", String(uidOf("ben"))], ["local_group", group.id]]) {
    const saved = await ada.client.post("/api/enforce/set", { type: picked, settings: [{ id, is_enforced: true }] });
    assert.equal(saved.json.success, true, saved.text);
  }
  assert.equal((await ada.client.post("/api/enforce/option", { option: "custom" })).json.success, true);
  assert.equal((await ada.client.get("/api/enforce/option")).json.not_enrolled, 2);
  assert.equal(await state("ben"), "enrolment_required");
  assert.equal(await state("cora"), "enrolment_required");
  assert.equal(await state("dora"), "signed_in");
  run("gpasswd", ["--delete", "cora", "staff-2"]);
  assert.equal(await state("cora"), "signed_in");
});

test("an emergency code goes to the address that is kept here", async () => {
  const wizard = await Wizard.start(server, "ben");
  await wizard.qr();
  assert.equal((await wizard.confirm()).json.auth_ok, true);
  const saved = await wizard.mail("ben@home.example");
  assert.deepEqual([saved.status, saved.json.saved], [200, true], saved.text);
  run("tavrctl", ["user", "set", "cora", "--mail", "cora@home.example"]);
  const half = await signIn(server, "ben");
  assert.equal((await ask(half)).json.success, true);
  const [mail] = await mails.codes(1);
  assert.deepEqual(mail.envelope.to, ["ben@home.example"]);
  assert.equal((await type(half, mail.code)).json.state, "signed_in");
  assert.equal(await sessionOf(half), 200);
  // Another password ends it; the second step stays.
  const former = server.passwords.ben;
  setPassword("ben", "another");
  assert.equal(await sessionOf(half), 401);
  assert.equal((await post("ben", former)).status, 401);
  assert.equal((await post("ben", "another")).json.state, "code_required");
});

test("who was deleted and made anew, or got another uid, is somebody else", async () => {
  const changes = [
    () => { run("userdel", ["ben"]); assert.equal(JSON.parse(run("tavrctl", ["--json", "user", "list"])).users.length, 4);
      addPerson("ben", "--uid", "1777"); },
    () => { run("usermod", ["--uid", "1888", "ben"]); },
  ];
  for (const change of changes) {
    const number = uidOf("ben");
    const former = existsSync("/usr/tavr/etc/preference/ben/otp_secret");
    const half = await signIn(server, "ben");
    change();
    assert.equal(await sessionOf(half), 401);
    assert.notEqual(uidOf("ben"), number);
    assert.equal(await state("ben"), "signed_in", "nothing is demanded of him, nothing is set up");
    assert.equal(former, true);
    assert.equal(existsSync("/usr/tavr/etc/preference/ben/otp_secret"), false);
    await enrol(server, "ben");
  }
  assert.match(run("tavrctl", ["audit"]), /\taccount\tremoved\t\S+\tsystem\tben$/m);
});

test("who is locked or has expired is out at once, and who left sudo administers no more", async () => {
  for (const [command, back] of [[["usermod", "--lock", "dora"], ["usermod", "--unlock", "dora"]],
    [["chage", "--expiredate", "2020-01-01", "dora"], ["chage", "--expiredate", "-1", "dora"]],
    [["chage", "--lastday", "0", "dora"], ["chage", "--lastday", "10000", "dora"]]]) {
    const dora = await signIn(server, "dora");
    assert.equal(await sessionOf(dora), 200);
    run(command[0], command.slice(1));
    assert.equal(await sessionOf(dora), 401, command.join(" "));
    assert.equal((await post("dora", server.passwords.dora)).status, 401, command.join(" "));
    run(back[0], back.slice(1));
    assert.equal((await post("dora", server.passwords.dora)).status, 200, back.join(" "));
  }
  run("usermod", ["--append", "--groups", "sudo", "eve"]);
  const eve = await signIn(server, "eve");
  assert.equal((await eve.get("/api/enforce/option")).status, 200);
  run("gpasswd", ["--delete", "eve", "sudo"]);
  assert.equal((await eve.get("/api/enforce/option")).status, 401);
  assert.equal((await (await signIn(server, "eve")).get("/api/enforce/option")).json.err, "not_admin");
});

test("while the system's files cannot be read nobody gets in, and nobody is forgotten", async () => {
  const dora = await signIn(server, "dora");
  const number = uidOf("ben");
  renameSync("/etc/passwd", "/etc/passwd.away");
  writeFileSync("/etc/passwd", readFileSync("/etc/passwd.away", "utf8").slice(0, -30));
  try {
    const answer = await post("dora", server.passwords.dora);
    assert.equal(answer.status, 503, answer.text);
    assert.equal(await sessionOf(dora), 503);
    assert.throws(() => run("tavrctl", ["user", "list"]), /\/etc\/passwd is not whole/);
    assert.match(doctor(), /^broken\taccounts\tnobody can sign in: \/etc\/passwd is not whole/m);
  } finally {
    renameSync("/etc/passwd.away", "/etc/passwd");
  }
  assert.equal(await sessionOf(dora), 200);
  assert.equal(uidOf("ben"), number);
  assert.equal((await post("ben", server.passwords.ben)).json.state, "code_required");

  renameSync("/etc/pam.d/tavr-otp", "/etc/pam.d/away");
  try {
    assert.equal((await post("dora", server.passwords.dora)).status, 503);
    assert.equal(await sessionOf(dora), 200, "who is in stays so");
    assert.match(doctor(), /^broken\taccounts\t\/etc\/pam.d\/tavr-otp is missing/m);
  } finally {
    renameSync("/etc/pam.d/away", "/etc/pam.d/tavr-otp");
  }
});

test("the console says that accounts are the system's, and changes none", () => {
  for (const args of [["user", "add", "new", "--password-stdin"], ["user", "passwd", "ben", "--password-stdin"],
    ["user", "remove", "ben"], ["user", "disable", "ben"], ["user", "enable", "ben"], ["user", "set", "ben", "--desc", "x"],
    ["group", "add", "new"], ["group", "remove", "staff-2"], ["group", "join", "sudo", "ben"], ["group", "leave", "sudo", "ada"]]) {
    assert.throws(() => run("tavrctl", args, "pass word"), /status 4.*accounts come from the system/s, args.join(" "));
  }
  assert.match(run("tavrctl", ["user", "list"]), /^[0-9]+\tada\tadministrator\t-\tAda$/m);
  assert.match(run("tavrctl", ["group", "list"]), /^65536\tsudo\tada\t$/m);
  run("tavrctl", ["otp", "reset", "ben", "--yes"]);
  assert.match(doctor(), /^ok\taccounts\t5 of the system, 1 of them in sudo$/m);
  run("gpasswd", ["--delete", "ada", "sudo"]);
  assert.match(doctor(), /^warning\taccounts\t5 of the system, 0 of them in sudo; nobody administers/m);
});
