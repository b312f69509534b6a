// Codes that are good once, in place of the app's: an account's emergency codes, and one that an administrator gave
// out. They go through the same field as the app's.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { readFileSync } from "node:fs";
import { after, before, test } from "node:test";
import { rounds, run, startServer } from "../support/server.mjs";
import { signIn } from "./client.mjs";
import { enrol } from "./wizard.mjs";

const kWorkers = 4;
const kTries = 64;   // at once
const kHalves = 8;   // half sign-ins that they come from

let server;
before(async () => {
  const names = ["alice", "many", "wrong", "given", "renewed"];
  server = await startServer({ accounts: Object.fromEntries(names.map((name) => [name, []])), workers: kWorkers });
});
after(() => server?.stop());

const codesOf = (user) =>
  execFileSync(`${process.env.TEST_BUILD}/tests/web/list_codes`, [user], { encoding: "utf8" }).trim().split("\n");
const linesOf = (user) => readFileSync(`/usr/tavr/etc/preference/${user}/otp_secret`, "utf8").trim().split("\n");

function assertRefused(answer, status, err) {
  assert.deepEqual([answer.status, answer.json], [status, { success: false, err }], answer.text);
}

async function giveCode(user, code) {
  const half = await signIn(server, user);
  return { client: half, answer: await half.post("/api/signin/code", { code }) };
}

// `kTries` posts of one code at the same moment, over all half sign-ins. What they were answered; a half sign-in
// that led to a session is taken out.
async function giveAtOnce(user, halves, code) {
  while (halves.length < kHalves) {
    halves.push(await signIn(server, user));
  }
  const answers = await Promise.all(Array.from({ length: kTries }, (_, i) =>
    halves[i % kHalves].copy().post("/api/signin/code", { code })));
  const won = answers.findIndex(({ status }) => status === 200);
  if (won >= 0) {
    halves.splice(won % kHalves, 1);
  }
  return answers.map(({ status, json }) => `${status} ${json.err ?? json.state}`);
}

// One was let in. The others were wrong, of which too many have to wait, or came from the half sign-in that is gone.
function assertOneWon(answers) {
  assert.equal(answers.filter((answer) => answer === "200 signed_in").length, 1, answers.join(", "));
  const others = new Set(answers.filter((answer) => answer !== "200 signed_in"));
  assert.deepEqual([...others].filter((answer) => !["401 otp_auth_failed", "429 too_many_attempts",
    "403 no_pending_signin"].includes(answer)), []);
}

test("an emergency code signs in once, whatever order they are taken in", async () => {
  const wizard = await enrol(server, "alice");
  const codes = codesOf("alice");
  assert.equal(codes.length, 10);
  assert.equal(new Set(codes).size, 10);
  for (const [taken, code] of [codes[4], codes[0], codes[9]].entries()) {
    assert.match(code, /^[0-9]{8}$/);
    const before = linesOf("alice");
    const { client, answer } = await giveCode("alice", code);
    assert.deepEqual([answer.status, answer.json.state, answer.json.user], [200, "signed_in", "alice"]);
    assert.equal((await client.get("/api/otp/status")).json.codes_left, 9 - taken);
    assert.equal(linesOf("alice").filter((line) => before.includes(line)).length, before.length - 1);
    assertRefused((await giveCode("alice", code)).answer, 401, "otp_auth_failed");
  }
  server.advance(30);
  assert.equal((await giveCode("alice", wizard.code())).answer.status, 200, "the app's codes are as good as ever");
});

test("of 64 posts of one emergency code at once one wins, and the other codes stay", async () => {
  const wizard = await enrol(server, "many");
  let halves = [];
  for (let round = 0; round < rounds(4, 1000); ++round) {
    const [code, ...others] = codesOf("many");
    const before = linesOf("many");
    assertOneWon(await giveAtOnce("many", halves, code));
    assert.deepEqual(codesOf("many"), others, `round ${round}`);
    const gone = before.filter((line) => !linesOf("many").includes(line));
    assert.equal(gone.length, 1);
    assert.deepEqual(linesOf("many"), before.filter((line) => line !== gone[0]), "the rest of the file");
    run("tavrctl", ["otp", "open", "many"]);
    if (others.length === 1) {   // ten new ones come with a new secret
      server.advance(30);
      const { key } = (await wizard.renew()).json;
      server.advance(30);
      assert.equal((await wizard.confirm(server.code(key))).json.auth_ok, true);
      wizard.key = key;
      halves = [];   // ended by that
    }
  }
  assert.ok(codesOf("many").length > 0);
});

test("wrong emergency codes count with the others, and blanks or other digits are no code at all", async () => {
  await enrol(server, "wrong");
  const [code] = codesOf("wrong");
  const wrong = String((Number(code) + 1) % 100_000_000).padStart(8, "0");
  assert.ok(!codesOf("wrong").includes(wrong));
  for (const typed of [`${code} `, ` ${code}`, `${code.slice(0, 4)} ${code.slice(4)}`, `+${code}`, `${code}0`, code.slice(1),
    [...code].map((digit) => String.fromCodePoint(0x660 + Number(digit))).join(""), ""]) {
    assertRefused((await giveCode("wrong", typed)).answer, 401, "otp_auth_failed");
  }
  for (let i = 0; i < 5; ++i) {
    assertRefused((await giveCode("wrong", wrong)).answer, 401, "otp_auth_failed");
  }
  assertRefused((await giveCode("wrong", code)).answer, 429, "too_many_attempts");
  assert.ok(codesOf("wrong").includes(code), "it is not spent by that");
  server.advance(31);
  assert.equal((await giveCode("wrong", code)).answer.status, 200);
});

test("a code that the administrator gave out is good once, of many tries at once too", async () => {
  const wizard = await enrol(server, "given");
  const codes = codesOf("given");
  const give = () => run("tavrctl", ["otp", "code", "given"]).trim();
  assertOneWon(await giveAtOnce("given", [], give()));
  server.advance(3601);
  assert.equal((await giveCode("given", wizard.code())).answer.status, 200);
  const [first, second] = [give(), give()];
  assertRefused((await giveCode("given", first)).answer, 401, "otp_auth_failed");
  assert.equal((await giveCode("given", second)).answer.status, 200);
  assert.deepEqual(codesOf("given"), codes, "no emergency code was taken for it");
});

test("a renewal takes the old codes away and brings ten new ones", async () => {
  const wizard = await enrol(server, "renewed");
  const [old] = codesOf("renewed");
  server.advance(30);
  const renewed = await wizard.renew();
  server.advance(30);
  assert.equal((await wizard.confirm(server.code(renewed.json.key))).json.auth_ok, true);
  const codes = codesOf("renewed");
  assert.equal(codes.length, 10);
  assert.ok(!codes.includes(old));
  assertRefused((await giveCode("renewed", old)).answer, 401, "otp_auth_failed");
  assert.equal((await giveCode("renewed", codes[0])).answer.status, 200);
});

test("no code stands in the log", () => {
  for (const user of ["alice", "many", "wrong", "given", "renewed"]) {
    for (const code of codesOf(user)) {
      assert.ok(!server.log().includes(code));
    }
  }
});
