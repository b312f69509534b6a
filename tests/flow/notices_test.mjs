// Notices: the owner of an account is told by mail what happens to it, through a real mail server, and no code is in it.
import assert from "node:assert/strict";
import { after, test } from "node:test";
import { setTimeout as sleep } from "node:timers/promises";

import { startNotificationServer } from "../support/mail.mjs";
import { run, startServer } from "../support/server.mjs";
import { signIn } from "./client.mjs";
import { enrol } from "./wizard.mjs";

const server = await startServer({ workers: 2, accounts: { alice: ["--mail", "alice@home.example"], bob: [] } });
after(() => server.stop());
const mailServer = await startNotificationServer();
after(() => mailServer.stop());

let told = 0;

// The next notice, which is the only one: its subject without the server's name, and where it went.
async function notice() {
  for (let waited = 0; mailServer.mails().length === told; waited += 20) {
    assert.ok(waited < 20_000, "a notice arrives");
    await sleep(20);
  }
  const mails = mailServer.mails();
  assert.equal(mails.length, told + 1);
  const mail = mails[told++];
  assert.equal(mail.code, undefined, mail.text);
  assert.match(mail.text, /alice/);
  assert.match(mail.text, /When: [0-9-]{10} [0-9:]{8} [A-Z]+ \([+-][0-9]{4}\)/);
  assert.equal(mail.envelope.to.length, 1);
  return `${mail.subject.replace(/ on [^ ]+$/, "")}: ${mail.envelope.to[0]}`;
}

test("set up, three wrong codes, another address, switched off, reset", async () => {
  const alice = await enrol(server, "alice");
  assert.equal(await notice(), "Two-step sign-in is set up: alice@home.example");

  const half = await signIn(server, "alice");
  for (let i = 0; i < 4; ++i) {
    assert.equal((await half.post("/api/signin/code", { code: server.wrongCode(alice.key) })).status, 401);
  }
  assert.equal(await notice(), "Three wrong codes: alice@home.example");

  server.advance(30);
  assert.equal((await alice.mail("alice@away.example", alice.code())).json.saved, true);
  assert.equal(await notice(), "Another recovery address: alice@home.example");

  server.advance(30);
  assert.equal((await alice.disable()).status, 200);
  assert.equal(await notice(), "Two-step sign-in is switched off: alice@away.example");

  run("tavrctl", ["otp", "reset", "alice", "--yes"]);
  assert.equal(await notice(), "Two-step sign-in was reset: alice@away.example");
});

test("without an address nobody is told, and everything works", async () => {
  await enrol(server, "bob");
  run("tavrctl", ["otp", "reset", "bob", "--yes"]);
  assert.deepEqual(run("tavrctl", ["mail", "queue"]).match(/waiting/g), null);
  assert.equal(mailServer.mails().length, told);
});
