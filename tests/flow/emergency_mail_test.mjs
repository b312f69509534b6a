// Emergency codes by mail, through real mail servers: from the user's own mail account, else as a notification.
import assert from "node:assert/strict";
import { after, test } from "node:test";

import { addMailAccount, setNotificationServer, startMailServer, trust } from "../support/mail.mjs";
import { run, startServer } from "../support/server.mjs";
import { signIn } from "./client.mjs";
import { enrol } from "./wizard.mjs";

const names = ["alice", "bob", "carol", "dave", "erin"];
const server = await startServer({ workers: 2,
  accounts: Object.fromEntries(names.map((name) => [name, ["--mail", `${name}@home.example`]])) });
after(() => server.stop());
const personal = await startMailServer(["--port", "587", "--user", "login", "--password", "right"]);
after(() => personal.stop());
const hanging = await startMailServer(["--port", "25", "--user", "login", "--password", "right", "--fault", "hang-data"]);
after(() => hanging.stop());
const system = await startMailServer(["--user", "system", "--password", "secret"]);
after(() => system.stop());
trust([personal, hanging, system]);
for (const name of names) {
  await enrol(server, name);
}

const ask = (client) => client.post("/api/signin/emergency");
const type = (client, code) => client.post("/api/signin/code", { code });

function assertLibrary(answer, body) {
  assert.deepEqual([answer.status, answer.json], [200, body], answer.text);
}

function assertRefused(answer, status, err) {
  assert.deepEqual([answer.status, answer.json.success, answer.json.err], [status, false, err], answer.text);
}

test("without a mail account and without notifications the answer says so", async () => {
  const carol = await signIn(server, "carol");
  assertLibrary(await ask(carol), { success: false, err: "mail_service_not_enable", warning: null });
});

test("codes come from the user's own mail account, one after the other, and the last one warns", async () => {
  addMailAccount("alice", personal, "login", "right");
  const codes = [];
  for (let i = 1; i <= 10; ++i) {
    server.advance(3601);
    const half = await signIn(server, "alice");
    assertLibrary(await ask(half), { success: true, warning: i === 10 ? true : null });
    const mails = await personal.codes(i);
    assert.equal(mails.length, i);
    const mail = mails.at(-1);
    assert.deepEqual([mail.envelope.tls, mail.envelope.auth, mail.envelope.from, mail.envelope.to],
      [true, true, "alice@office.example", ["alice@home.example"]]);
    assert.equal(/last emergency code/.test(mail.text), i === 10, mail.text);
    assert.ok(!codes.includes(mail.code), "another one");
    codes.push(mail.code);
    const opened = await type(half, mail.code);
    assert.deepEqual([opened.status, opened.json.state], [200, "signed_in"], opened.text);
    assert.equal((await half.get("/api/session")).json.user, "alice");
    assertRefused(await type(await signIn(server, "alice"), mail.code), 401, "otp_auth_failed");
  }
  server.advance(24 * 3600);
  assertLibrary(await ask(await signIn(server, "alice")), { success: false, err: "otp_no_emergency_code" });

  const told = server.log() + run("tavrctl", ["audit"]);
  assert.match(told, /code-mail/);
  assert.match(told, /Send OTP Code with user\[alice\] mail account/);
  for (const secret of [...codes, "alice@home.example", "alice@office.example"]) {
    assert.ok(!told.includes(secret), "neither code nor address in log and audit");
  }
});

test("when the mail account fails, the notification road delivers to the recovery address", async () => {
  addMailAccount("bob", personal, "login", "wrong", ["--no-test"]);
  setNotificationServer(system, "system", "secret");
  const half = await signIn(server, "bob");
  assertLibrary(await ask(half), { success: true, warning: null });
  const [mail] = await system.codes(1);
  assert.deepEqual([mail.envelope.tls, mail.envelope.auth, mail.envelope.from, mail.envelope.to],
    [true, true, "server@nas.example", ["bob@home.example"]]);
  assert.equal((await type(half, mail.code)).json.state, "signed_in");
});

test("three an hour, then 429 until the first is an hour old", async () => {
  const half = await signIn(server, "carol");
  for (let i = 0; i < 3; ++i) {
    assertLibrary(await ask(half), { success: true, warning: null });
  }
  const answer = await ask(half);
  assertRefused(answer, 429, "too_many_attempts");
  const wait = Number(answer.headers["retry-after"]);
  assert.ok(wait > 3500 && wait <= 3600, String(wait));
  await server.restartWeb();
  assertRefused(await ask(await signIn(server, "carol")), 429, "too_many_attempts");
  server.advance(3601);
  assertLibrary(await ask(await signIn(server, "carol")), { success: true, warning: null });
});

test("a mail server that hangs leaves the other users served", async () => {
  addMailAccount("dave", hanging, "login", "right", ["--no-test"]);
  const [dave, erin] = [await signIn(server, "dave"), await signIn(server, "erin")];
  let answered = false;
  const waiting = ask(dave).finally(() => { answered = true; });
  await hanging.heard("DATA");
  for (let i = 0; i < 50; ++i) {
    assert.equal((await erin.get("/api/session")).json.state, "code_required");
  }
  const busy = await ask(erin);
  assertRefused(busy, 503, "busy");
  assert.equal(busy.headers["retry-after"], "5");
  assert.equal(answered, false, "all that while");

  await hanging.stop();
  assertLibrary(await waiting, { success: true, warning: null });
  assertLibrary(await ask(erin), { success: true, warning: null });
});
