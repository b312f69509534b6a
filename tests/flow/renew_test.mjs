// A new phone and the way out: renewing and switching off through the interface, and what they leave of sessions.
import assert from "node:assert/strict";
import { after, before, describe, test } from "node:test";
import { existsSync, readFileSync, renameSync } from "node:fs";
import { local } from "../support/accounts.mjs";
import { run, startServer } from "../support/server.mjs";
import { signIn } from "./client.mjs";
import { Wizard, enrol, signInWithCode } from "./wizard.mjs";

const kNames = ["alice", "bob", "carol", "dora", "emil", "fred", "gina", "hugo", "ines", "jack", "kim", "lea", "mia"];
const kFile = (user) => `/usr/tavr/etc/preference/${user}/otp_secret`;
let server;
before(async () => {
  server = await startServer({ accounts: Object.fromEntries(kNames.map((name) => [name, []])), workers: 3 });
});
after(() => server?.stop());

function assertRefused(answer, status, err, what = "") {
  assert.deepEqual([answer.status, answer.json], [status, { success: false, err }], what);
}

// On every worker: more requests than there are workers, side by side.
async function assertEnded(client, what = "") {
  const answers = await Promise.all(Array.from({ length: 12 }, () => client.get("/api/session")));
  answers.forEach((answer) => assert.equal(answer.status, 401, what));
}

function asService(python, ...args) {
  return run("setpriv", ["--reuid=tavr-web", "--regid=tavr-web", "--clear-groups", "python3", "-c", python, ...args]);
}

// An enrolled account whose next code is there to be used.
async function enrolled(user) {
  const wizard = await enrol(server, user);
  server.advance(30);
  return wizard;
}

describe("renewing", () => {
  test("puts a new key in place of the old one, which holds until then", async () => {
    const alice = await enrolled("alice");
    const other = await signInWithCode(server, "alice", alice.key);
    server.advance(30);
    const used = alice.code();
    const renewed = await alice.renew(used, "new phone");
    assert.equal(renewed.status, 200, renewed.text);
    assert.deepEqual(Object.keys(renewed.json).sort(), ["img", "key", "success"]);
    const next = renewed.json.key;
    assert.match(next, /^[A-Z2-7]{32}$/);
    assert.notEqual(next, alice.key);
    assertRefused(await alice.renew(used), 401, "otp_code_used");

    // The old key still signs in and is what the page shows; the new one does not.
    assert.equal((await alice.qr()).json.key, alice.key);
    await signInWithCode(server, "alice", alice.key);
    server.advance(30);
    const half = await signIn(server, "alice");
    assertRefused(await half.post("/api/signin/code", { code: server.code(next) }), 401, "otp_auth_failed");

    const asked = alice.client.copy();
    const wrong = await alice.confirm(server.code(alice.key));
    assert.equal(wrong.json.errno.key, "otp_auth_failed");
    const confirmed = await alice.confirm(server.code(next));
    assert.deepEqual(Object.keys(confirmed.json).sort(), ["TavrToken", "auth_ok", "sid", "success"]);
    assert.equal(alice.client.cookies.get("sid"), confirmed.json.sid);
    await assertEnded(asked, "the session that asked");
    await assertEnded(other, "another one");
    assertRefused(await half.post("/api/signin/code", { code: server.code(next) }), 403, "no_pending_signin");
    assert.equal((await alice.client.get("/api/session")).status, 200);

    server.advance(30);
    const again = await signIn(server, "alice");
    assertRefused(await again.post("/api/signin/code", { code: server.code(alice.key) }), 401, "otp_auth_failed");
    assert.equal((await again.post("/api/signin/code", { code: server.code(next) })).status, 200);
    assert.equal((await alice.status()).codes_left, 10);
  });

  test("is refused without the right password and a right code, and makes no key then", async () => {
    const bob = await enrolled("bob");
    const { uid } = (await bob.client.get("/api/session")).json;
    const body = { password: bob.password, code: bob.code(), account_name: "x" };
    assertRefused(await bob.client.post("/api/otp/renew", { ...body, password: "wrong" }), 401, "bad_credentials");
    assertRefused(await bob.renew(server.wrongCode(bob.key)), 401, "otp_auth_failed");
    for (const member of Object.keys(body)) {
      assertRefused(await bob.client.post("/api/otp/renew", { ...body, [member]: undefined }), 400, "bad_request", member);
    }
    assert.ok(!existsSync(`/tmp/OTP_${uid}`));
    assertRefused(await bob.confirm(), 409, "no_setup");
    // None of these used the code up, nor does what is refused for the label or for want of the tool.
    renameSync("/usr/bin/qrencode", "/usr/bin/qrencode.away");
    try {
      assert.equal((await bob.renew()).json.err, "qr_unavailable");
    } finally {
      renameSync("/usr/bin/qrencode.away", "/usr/bin/qrencode");
    }
    assert.equal((await bob.renew(body.code)).json.success, true);
  });

  test("has nothing to renew where nothing is enrolled", async () => {
    const carol = await Wizard.start(server, "carol");
    assertRefused(await carol.renew("123456"), 401, "otp_auth_failed");
    assertRefused(await carol.disable("123456"), 401, "otp_auth_failed");
    assert.equal((await carol.status()).enrolled, false);
  });

  test("that is undone leaves the old key, and the code that it took is used", async () => {
    const dora = await enrolled("dora");
    const kWays = {
      "by sign-out": async () => { await dora.client.post("/api/signout"); },
      "by 30 minutes": async () => {
        for (let i = 0; i < 3; ++i) {
          server.advance(10 * 60);
          assert.equal((await dora.client.get("/api/session")).status, 200);
        }
      },
      "by a restart": () => server.restartWeb(),
      "by a renewal elsewhere": async () => {
        const other = await Wizard.start(server, "dora");
        other.client = await signInWithCode(server, "dora", dora.key);
        server.advance(30);
        assert.equal((await other.renew(server.code(dora.key))).json.success, true);
      },
    };
    for (const [way, undo] of Object.entries(kWays)) {
      const code = dora.code();
      const { key } = (await dora.renew(code)).json;
      assert.match(key ?? "", /^[A-Z2-7]{32}$/, way);
      if (way === "by sign-out") {
        await undo();
        const half = await signIn(server, "dora");
        assertRefused(await half.post("/api/signin/code", { code }), 401, "otp_code_used", way);
      } else {
        await undo();
        assertRefused(await dora.confirm(server.code(key)), 409, "no_setup", way);
      }
      dora.client = await signInWithCode(server, "dora", dora.key);
      assertRefused(await dora.confirm(server.code(key)), 409, "no_setup", way);
      server.advance(30);
    }
  });

  test("goes by the session that asked for it", async () => {
    const emil = await enrolled("emil");
    const other = await Wizard.start(server, "emil");
    other.client = await signInWithCode(server, "emil", emil.key);
    server.advance(30);
    const { key } = (await emil.renew()).json;
    server.advance(30);
    assertRefused(await other.confirm(server.code(key)), 409, "no_setup");
    assert.equal((await emil.confirm(server.code(key))).json.auth_ok, true);
  });

  test("that cannot put the new key in place is a fault, and the old one holds", async () => {
    const fred = await enrolled("fred");
    const { key } = (await fred.renew()).json;
    server.advance(30);
    const text = readFileSync(kFile("fred"), "utf8");
    renameSync("/bin/mv", "/bin/mv.away");
    try {
      assertRefused(await fred.confirm(server.code(key)), 503, "otp_unavailable");
    } finally {
      renameSync("/bin/mv.away", "/bin/mv");
    }
    assert.equal(readFileSync(kFile("fred"), "utf8"), text);
    await signInWithCode(server, "fred", fred.key);
    // And the same session's next try gets there.
    server.advance(30);
    assert.equal((await fred.confirm(server.code(key))).json.auth_ok, true);
    await signInWithCode(server, "fred", key);
  });
});

describe("switching off", () => {
  test("needs password and code, and ends every other session", async () => {
    const gina = await enrolled("gina");
    const other = await signInWithCode(server, "gina", gina.key);
    const half = await signIn(server, "gina");
    server.advance(30);
    assertRefused(await gina.client.post("/api/otp/disable", { password: "wrong", code: gina.code() }), 401, "bad_credentials");
    assertRefused(await gina.disable(server.wrongCode(gina.key)), 401, "otp_auth_failed");
    assertRefused(await gina.client.post("/api/otp/disable", { password: gina.password }), 400, "bad_request");
    assert.equal((await gina.status()).enrolled, true);

    const asked = gina.client.copy();
    const off = await gina.disable();
    assert.equal(off.status, 200, off.text);
    assert.deepEqual(Object.keys(off.json).sort(), ["TavrToken", "success"]);
    assert.notEqual(gina.client.cookies.get("sid"), asked.cookies.get("sid"));
    assert.ok(!existsSync(kFile("gina")));
    await assertEnded(asked, "the one that asked");
    await assertEnded(other, "another one");
    assertRefused(await half.post("/api/signin/code", { code: gina.code() }), 403, "no_pending_signin");
    assert.deepEqual([(await gina.status()).enrolled, (await gina.status()).codes_left], [false, 0]);
    assert.equal((await (await signIn(server, "gina")).get("/api/session")).status, 200);

    // And on again, with another key.
    const former = gina.key;
    await gina.qr();
    assert.notEqual(gina.key, former);
    server.advance(30);
    assert.equal((await gina.confirm()).json.auth_ok, true);
  });

  test("takes a renewal that waits along", async () => {
    const hugo = await enrolled("hugo");
    const { uid } = (await hugo.client.get("/api/session")).json;
    const { key } = (await hugo.renew()).json;
    server.advance(30);
    assert.equal((await hugo.disable()).status, 200);
    assert.ok(!existsSync(`/tmp/OTP_${uid}`));
    assertRefused(await hugo.confirm(server.code(key)), 409, "no_setup");
  });

  test("does not happen when it cannot be stored", async () => {
    const ines = await enrolled("ines");
    const sql = (statement) => asService("import sqlite3,sys; c=sqlite3.connect('/var/lib/tavr/signin.db');" +
      "c.execute(sys.argv[1]); c.commit()", statement);
    sql("CREATE TRIGGER full BEFORE UPDATE OF switching_off ON account_mark BEGIN SELECT RAISE(FAIL, 'full'); END");
    assertRefused(await ines.disable(), 503, "otp_unavailable");
    sql("DROP TRIGGER full");
    assert.equal((await ines.status()).enrolled, true);   // and the session that asked is alive
    assert.ok(existsSync(kFile("ines")));
    server.advance(30);
    assert.equal((await ines.disable()).status, 200);
  });

  test("that cannot remove the file ends by itself once it can", async () => {
    const jack = await enrolled("jack");
    run("chmod", ["0500", "/usr/tavr/etc/preference/jack"]);
    assertRefused(await jack.disable(), 503, "otp_unavailable");
    assert.match((await signIn(server, "jack").catch((error) => error)).message ?? "opened", /503 .*otp_unavailable/);
    run("chmod", ["0700", "/usr/tavr/etc/preference/jack"]);
    const client = await signIn(server, "jack");
    assert.equal((await client.get("/api/otp/status")).json.enrolled, false);
    assert.ok(!existsSync(kFile("jack")));
  });
});

test("wrong codes are counted for renewing, switching off and the address alike, and a right one then waits", async () => {
  const mia = await enrolled("mia");
  const wrong = server.wrongCode(mia.key);
  for (const guess of [() => mia.renew(wrong), () => mia.disable(wrong), () => mia.renew(wrong), () => mia.disable(wrong),
    () => mia.renew(wrong)]) {
    const answer = await guess();
    assert.deepEqual([answer.status, answer.json.err], [401, "otp_auth_failed"]);
  }
  for (const ask of [() => mia.renew(), () => mia.disable()]) {
    const answer = await ask();
    assertRefused(answer, 429, "too_many_attempts");
    assert.match(answer.headers["retry-after"], /^[1-9][0-9]*$/);
  }
  assert.equal((await mia.status()).enrolled, true);
  server.advance(60);
  assert.equal((await mia.disable()).status, 200);
});

describe("sessions end at their next request, on every worker,", () => {
  test("when a password is changed by root", async () => {
    const kim = await enrolled("kim");
    const half = await signIn(server, "kim");
    server.passwords.kim = "another pässword 2";
    local.setPassword("kim", server.passwords.kim);
    await assertEnded(kim.client);
    assertRefused(await half.post("/api/signin/code", { code: kim.code() }), 403, "no_pending_signin");
    await signInWithCode(server, "kim", kim.key);
  });

  test("when the account is removed, and one of the same name inherits nothing", async () => {
    const lea = await enrolled("lea");
    local.remove("lea");
    await assertEnded(lea.client);
    local.add("lea", server.passwords.lea);
    await assertEnded(lea.client);
    const client = await signIn(server, "lea");
    assert.equal((await client.get("/api/otp/status")).json.enrolled, false);
  });
});

test("a half sign-in is over after an hour, whatever was asked in between", async () => {
  const half = await signIn(server, "alice");
  for (let minutes = 0; minutes < 60; minutes += 4) {
    server.advance(4 * 60);
    await half.get("/api/session");
  }
  assert.equal((await half.get("/api/session")).json.state, undefined);
  assertRefused(await half.post("/api/signin/code", { code: "123456" }), 403, "no_pending_signin");
});

test("no key and no code stands in the log", () => {
  assert.doesNotMatch(server.log(), /[A-Z2-7]{32}/);
  assert.doesNotMatch(server.log(), /code=\d{6}/);
});
