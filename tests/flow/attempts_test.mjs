// Too many tries, as whoever speaks HTTP meets them: what is refused, for how long, and who is not kept out by it.
import assert from "node:assert/strict";
import { after, test } from "node:test";
import { Client, send, signIn } from "./client.mjs";
import { local } from "../support/accounts.mjs";
import { rounds, run, startServer } from "../support/server.mjs";

const server = await startServer({ accounts: { alice: [], bob: [], carol: [], dave: [], rita: [], sam: [] }, workers: 4 });
after(() => server.stop());

function assertRefused(answer, status, err) {
  assert.deepEqual([answer.status, answer.json.success, answer.json.err], [status, false, err], answer.text);
}

// 429 with a wait of up to `most` seconds, which run since `begun`.
function assertLater(answer, most, begun = performance.now()) {
  assertRefused(answer, 429, "too_many_attempts");
  const wait = Number(answer.headers["retry-after"]);
  const gone = (performance.now() - begun) / 1000;
  assert.ok(Number.isInteger(wait) && wait > most - 10 - gone && wait <= most, answer.headers["retry-after"]);
}

const tryPassword = (user, password = "wrong") => send(server.url, "POST", "/api/signin", { body: { user, password } });

async function enrol(user) {
  const client = await signIn(server, user);
  const password = server.passwords[user];
  const qr = await client.post("/api/otp/qr", { password, account_name: user });
  const answer = await client.post("/api/otp/confirm", { password, code: server.code(qr.json.key) });
  assert.equal(answer.json.auth_ok, true, answer.text);
  server.advance(30);
  return { client, key: qr.json.key, password };
}

test("five wrong codes, then a wait that is told and ends", async () => {
  const { key } = await enrol("alice");
  const half = await signIn(server, "alice");
  for (let i = 0; i < 5; ++i) {
    const answer = await half.post("/api/signin/code", { code: server.wrongCode(key) });
    assertRefused(answer, 401, "otp_auth_failed");
    assert.equal(answer.json.clock_ahead_minutes, undefined);
  }
  assertLater(await half.post("/api/signin/code", { code: server.code(key) }), 30);
  const another = await signIn(server, "alice");
  assertLater(await another.post("/api/signin/code", { code: server.code(key) }), 30);
  server.advance(31);
  const answer = await half.post("/api/signin/code", { code: server.code(key) });
  assert.deepEqual([answer.status, answer.json.state], [200, "signed_in"], answer.text);
});

test("a confirmation is throttled as a sign-in is, and not called wrong", async () => {
  const client = await signIn(server, "bob");
  const password = server.passwords.bob;
  const { key } = (await client.post("/api/otp/qr", { password, account_name: "bob" })).json;
  for (let i = 0; i < 5; ++i) {
    const answer = await client.post("/api/otp/confirm", { password, code: server.wrongCode(key) });
    assert.equal(answer.json.errno.key, "otp_auth_failed", answer.text);
  }
  assertLater(await client.post("/api/otp/confirm", { password, code: server.code(key) }), 30);
  server.advance(31);
  assert.equal((await client.post("/api/otp/confirm", { password, code: server.code(key) })).json.auth_ok, true);
});

test("somebody who sets up hears how far the phone's clock is off", async () => {
  const client = await signIn(server, "carol");
  const password = server.passwords.carol;
  const { key } = (await client.post("/api/otp/qr", { password, account_name: "carol" })).json;
  server.advance(-180);
  const early = server.code(key);
  server.advance(180);
  const answer = await client.post("/api/otp/confirm", { password, code: early });
  assert.equal(answer.json.clock_ahead_minutes, -3, answer.text);
  assert.equal((await client.post("/api/otp/confirm", { password, code: server.code(key) })).json.auth_ok, true);
  server.advance(30);

  const half = await signIn(server, "carol");
  server.advance(-180);
  const old = server.code(key);
  server.advance(180);
  const refused = await half.post("/api/signin/code", { code: old });
  assert.equal(refused.status, 401);
  assert.equal(refused.json.clock_ahead_minutes, undefined, "never at sign-in");
});

test("a used code is refused as used in whatever session it comes", async () => {
  const times = rounds(20, 2500);   // in each of four
  const { client, key, password } = await enrol("rita");
  const older = await signIn(server, "rita");
  const code = server.code(key);
  const posts = [async () => (await signIn(server, "rita")).post("/api/signin/code", { code })];
  assert.equal((await posts[0]()).status, 200);
  const newer = await signIn(server, "rita");
  const replay = async (post) => {
    for (let i = 0; i < times; i += 10) {
      const answers = await Promise.all(Array.from({ length: 10 }, post));
      answers.forEach((answer) => assertRefused(answer, 401, "otp_code_used"));
    }
  };
  await replay(() => older.post("/api/signin/code", { code }));
  await replay(() => newer.post("/api/signin/code", { code }));
  await replay(() => client.post("/api/otp/renew", { password, code, account_name: "rita" }));
  await server.restartWeb();
  await replay(() => older.post("/api/signin/code", { code }));
});

// Eight half sign-ins, so that one that is used up leaves others.
test("of 64 posts of one good code at once one signs in", async () => {
  const { key } = await enrol("sam");
  let halves = [];
  for (let round = 0; round < rounds(3, 1000); ++round) {
    server.advance(30);
    if (round % 9 === 0) {   // they end after five minutes
      halves = [];
    }
    while (halves.length < 8) {
      halves.push(await signIn(server, "sam"));
    }
    const code = server.code(key);
    const answers = await Promise.all(Array.from({ length: 64 }, (_, i) =>
      halves[i % 8].copy().post("/api/signin/code", { code })));
    const granted = answers.flatMap((answer, i) => (answer.status === 200 ? [i] : []));
    assert.equal(granted.length, 1, `round ${round}`);
    for (const answer of answers.filter(({ status }) => status !== 200)) {
      assert.ok(["otp_code_used", "no_pending_signin"].includes(answer.json.err), `round ${round}: ${answer.text}`);
    }
    halves.splice(granted[0] % 8, 1);
  }
});

test("fifty wrong codes close the second step", async () => {
  const { client, key } = await enrol("dave");
  for (let i = 0; i < 50; ++i) {
    const half = await signIn(server, "dave");
    assertRefused(await half.post("/api/signin/code", { code: server.wrongCode(key) }), 401, "otp_auth_failed");
    server.advance(3601);
  }
  const half = await signIn(server, "dave");
  assertRefused(await half.post("/api/signin/code", { code: server.code(key) }), 403, "otp_closed");
  assert.match(run("tavrctl", ["audit", "--account", "dave"]), /second-step.*closed/);
  assert.equal((await client.get("/api/session")).status, 401, "it has ended by itself long ago");
});

test("ten wrong passwords throttle a name, known or not, and not a session of it", async () => {
  const inside = await signIn(server, "bob");   // half: bob is enrolled by now
  const unknown = [];
  const known = [];
  for (let i = 0; i < 10; ++i) {
    known.push(await tryPassword("bob"));
    unknown.push(await tryPassword("nobody"));
  }
  for (const answer of [...known, ...unknown]) {
    assertRefused(answer, 401, "bad_credentials");
  }
  assertLater(await tryPassword("nobody"), 900);
  assertLater(await tryPassword("bob", server.passwords.bob), 900);
  assertLater(await tryPassword(" BOB ", server.passwords.bob), 900);
  assert.equal((await inside.get("/api/session")).json.state, "code_required", "who is in goes on");
  server.advance(901);
  assert.equal((await tryPassword("bob", server.passwords.bob)).status, 200);
});

test("thirty wrong passwords throttle an address", async () => {
  server.advance(901);
  const begun = performance.now();
  for (let i = 0; i < 30; ++i) {
    assertRefused(await tryPassword(`name${i}`), 401, "bad_credentials");
  }
  assertLater(await tryPassword("another"), 900, begun);
  assertLater(await tryPassword("alice", server.passwords.alice), 900, begun);
  server.advance(901);
});

test("repeated passwords are a session's own", async () => {
  server.passwords.erin = "erin's password";
  local.add("erin", server.passwords.erin);
  const one = await signIn(server, "erin");
  const other = await signIn(server, "erin");
  const ask = (client, password) => client.post("/api/otp/qr", { password, account_name: "erin" });
  for (let i = 0; i < 10; ++i) {
    assertRefused(await ask(one, "wrong"), 401, "bad_credentials");
  }
  assertLater(await ask(one, server.passwords.erin), 900);
  assert.equal((await ask(other, server.passwords.erin)).json.success, true);
  assert.ok(await signIn(server, "erin") instanceof Client, "nor does it touch the sign-in");
});
