// The set-up wizard through the interface, on the real servers: the whole way, and everything that may come between.
import assert from "node:assert/strict";
import { after, before, describe, test } from "node:test";
import { spawnSync } from "node:child_process";
import { chmodSync, existsSync, mkdirSync, readFileSync, readdirSync, renameSync, rmdirSync, rmSync, writeFileSync } from "node:fs";
import { run, startServer } from "../support/server.mjs";
import { signIn } from "./client.mjs";
import { Wizard, enrol, signInWithCode } from "./wizard.mjs";

const kNames = ["alice", "bob", "carol", "dora", "emil", "fred", "gina", "hugo", "ines", "jack", "kim", "lea", "max"];
const kPreference = "/usr/tavr/etc/preference";
let server;
before(async () => {
  server = await startServer({ accounts: Object.fromEntries(kNames.map((name) => [name, []])) });
});
after(() => server?.stop());

function assertRefused(answer, status, err, what = "") {
  assert.deepEqual([answer.status, answer.json], [status, { success: false, err }], what);
}

function pngOf(answer) {
  const png = Buffer.from(answer.json.img, "base64");
  assert.equal(png.subarray(0, 8).toString("latin1"), "\x89PNG\r\n\x1a\n");
  assert.equal(png.subarray(-8, -4).toString(), "IEND");
  return png;
}

function readQr(answer) {
  writeFileSync("/tmp/qr-of-a-test.png", pngOf(answer));
  const { stdout } = spawnSync("zbarimg", ["-q", "--raw", "/tmp/qr-of-a-test.png"], { encoding: "utf8" });
  rmSync("/tmp/qr-of-a-test.png");
  return stdout.trim();
}

test("an account enrols, and from then on signs in with password and code", async () => {
  const alice = await Wizard.start(server, "alice");
  assert.deepEqual(await alice.status(),
    { success: true, enrolled: false, closed: false, enforced: false, mail_writable: true, codes_left: 0 });

  const qr = await alice.qr("alice at home");
  assert.deepEqual(Object.keys(qr.json).sort(), ["img", "key", "success"]);
  assert.equal(qr.json.success, true);
  assert.match(qr.json.key, /^[A-Z2-7]{32}$/);   // 160 bits
  assert.ok(readQr(qr).startsWith(`otpauth://totp/alice%20at%20home?secret=${alice.key}&issuer=Morvane%20Orbis`));

  const relabelled = await alice.label("another");
  assert.equal(relabelled.json.key, alice.key);
  assert.ok(readQr(relabelled).startsWith(`otpauth://totp/another?secret=${alice.key}&`));

  const wrong = await alice.confirm(server.wrongCode(alice.key));
  assert.equal(wrong.status, 200);
  assert.deepEqual(wrong.json,
    { success: true, errno: { section: "personal_settings", key: "otp_auth_failed", line: 104 } });
  assert.deepEqual(wrong.setCookies, []);

  const former = alice.client.copy();
  const confirming = server.code(alice.key);
  const confirmed = await alice.confirm(confirming);
  assert.equal(confirmed.status, 200);
  assert.deepEqual(Object.keys(confirmed.json).sort(), ["TavrToken", "auth_ok", "sid", "success"]);
  assert.deepEqual([confirmed.json.auth_ok, confirmed.json.success], [true, true]);
  assert.equal(alice.client.cookies.get("sid"), confirmed.json.sid);
  assert.notEqual(former.cookies.get("sid"), confirmed.json.sid);
  assertRefused(await former.get("/api/session"), 401, "not_signed_in");
  assert.equal((await alice.client.get("/api/session")).json.TavrToken, confirmed.json.TavrToken);

  assert.deepEqual((await alice.mail("alice@home.example")).json, { success: true, saved: true });
  assert.deepEqual(await alice.status(), { success: true, enrolled: true, closed: false, enforced: false,
    mail: "a***@home.example", mail_writable: true, codes_left: 10 });

  const shown = await alice.qr();
  assert.equal(shown.json.key, qr.json.key);
  await alice.client.post("/api/signout");

  const again = await signIn(server, "alice");
  assert.deepEqual([...again.cookies.keys()], ["pending"]);
  const half = await again.get("/api/session");
  assert.deepEqual([half.status, half.json], [401,
    { success: false, err: "not_signed_in", state: "code_required", user: "alice", TavrToken: again.token }]);
  assertRefused(await again.post("/api/otp/qr", { password: server.passwords.alice, account_name: "x" }), 401, "not_signed_in");
  assertRefused(await again.get("/api/otp/status"), 401, "not_signed_in");
  assertRefused(await again.post("/api/signin/code", { code: server.wrongCode(alice.key) }), 401, "otp_auth_failed");
  assertRefused(await again.post("/api/signin/code", { code: confirming }), 401, "otp_code_used");
  for (const code of ["", " ", "12345", "1234567", `${confirming} `, "１２３４５６", "+12345", "x".repeat(64)]) {
    assertRefused(await again.post("/api/signin/code", { code }), 401, "otp_auth_failed", code);
  }
  server.advance(30);
  const pending = again.copy();
  const code = server.code(alice.key);
  const done = await again.post("/api/signin/code", { code });
  assert.deepEqual([done.status, { ...done.json, TavrToken: "" }],
    [200, { success: true, state: "signed_in", user: "alice", TavrToken: "" }]);
  assert.deepEqual([...again.cookies.keys()], ["sid"]);
  assertRefused(await pending.post("/api/signin/code", { code }), 403, "no_pending_signin");
  const replayed = await signIn(server, "alice");
  assertRefused(await replayed.post("/api/signin/code", { code }), 401, "otp_code_used");
});

describe("a half sign-in", () => {
  test("lives 5 minutes, and is no session", async () => {
    const { key } = await enrol(server, "bob");
    const bob = await signIn(server, "bob");
    const asSession = bob.copy();
    asSession.cookies = new Map([["sid", bob.cookies.get("pending")]]);
    assertRefused(await asSession.get("/api/session"), 401, "not_signed_in");
    assertRefused(await bob.post("/api/otp/mail", { password: server.passwords.bob, mail: "", code: "1" }), 401, "not_signed_in");
    assertRefused(await (() => { const b = bob.copy(); b.token = "x"; return b.post("/api/signin/code", { code: "1" }); })(),
      403, "bad_token");
    server.advance(5 * 60);
    assertRefused(await bob.post("/api/signin/code", { code: server.code(key) }), 403, "no_pending_signin");
  });

  test("ends at sign-out", async () => {
    const bob = await signIn(server, "bob");
    const stolen = bob.copy();
    assert.equal((await bob.post("/api/signout")).status, 200);
    assert.equal((await stolen.get("/api/session")).json.state, undefined);
  });
});

describe("each step", () => {
  test("tests the password first", async () => {
    const carol = await Wizard.start(server, "carol");
    await carol.qr();
    const code = server.code(carol.key);
    for (const [path, body] of [["qr", { account_name: "x" }], ["label", { account_name: "x", key: carol.key }],
      ["confirm", { code }], ["mail", { mail: "carol@home.example" }]]) {
      assertRefused(await carol.client.post(`/api/otp/${path}`, { ...body, password: "wrong" }), 401, "bad_credentials", path);
      assertRefused(await carol.client.post(`/api/otp/${path}`, { ...body, password: server.passwords.bob }), 401,
        "bad_credentials", path);
      assertRefused(await carol.client.post(`/api/otp/${path}`, body), 400, "bad_request", path);
    }
    assert.deepEqual(await carol.status(),
      { success: true, enrolled: false, closed: false, enforced: false, mail_writable: true, codes_left: 0 });
  });

  test("keeps to the limits of its members", async () => {
    const carol = await Wizard.start(server, "carol");
    await carol.qr();
    const at64 = await carol.label("x".repeat(64));
    assert.equal(at64.status, 200);
    pngOf(at64);
    assertRefused(await carol.qr("x".repeat(65)), 400, "bad_request");
    assertRefused(await carol.label("x".repeat(65)), 400, "bad_request");
    assertRefused(await carol.mail(`${"m".repeat(241)}@example.com12`), 400, "bad_request");
    for (const key of ["", "A".repeat(15), "A".repeat(65), `${"A".repeat(31)}1`, "a".repeat(32), `${"A".repeat(30)}==`]) {
      assertRefused(await carol.label("x", key), 400, "bad_request", key);
    }
    assert.equal((await carol.label("x", "A".repeat(16))).json.success, true);
    assert.equal((await carol.label("x", "A".repeat(64))).json.success, true);
  });

  test("shows a whole picture or none, whatever the label", async () => {
    const carol = await Wizard.start(server, "carol");
    await carol.qr();
    for (const label of ["", "%".repeat(64), "ä".repeat(32), "\u0001".repeat(64), "0123456789".repeat(6), "&?=\\ ".repeat(12)]) {
      for (const answer of [await carol.label(label), await carol.qr(label)]) {
        if (answer.status === 400) {
          assertRefused(answer, 400, "label_too_long", label);
        } else {
          pngOf(answer);
        }
      }
    }
  });

  test("takes the account from the session, not from the body", async () => {
    const carol = await Wizard.start(server, "carol");
    const answer = await carol.client.post("/api/otp/mail",
      { password: server.passwords.carol, mail: "carol@home.example", user: "alice", uid: 1026 });
    assert.deepEqual(answer.json, { success: true, saved: true });
    assert.equal((await carol.status()).mail, "c***@home.example");
    assert.deepEqual((await carol.mail("")).json, { success: true, saved: true });
    assert.equal((await carol.status()).mail, undefined);
  });
});

describe("a confirmation", () => {
  test("needs a secret that this session made", async () => {
    const first = await Wizard.start(server, "dora");
    assertRefused(await first.confirm("123456"), 409, "no_setup");
    await first.qr();
    const second = await Wizard.start(server, "dora");
    assertRefused(await second.confirm(server.code(first.key)), 409, "no_setup");
    await second.qr();
    assert.notEqual(second.key, first.key);
    assertRefused(await first.confirm(), 409, "no_setup");
    assert.equal((await second.confirm()).json.auth_ok, true);
    // The other one knew the password alone.
    assertRefused(await first.client.get("/api/session"), 401, "not_signed_in");
  });

  test("goes by the last picture: a reload or a second tab makes a new key", async () => {
    const emil = await Wizard.start(server, "emil");
    await emil.qr();
    const old = emil.key;
    await emil.qr();
    assert.notEqual(emil.key, old);
    assert.equal((await emil.confirm(server.code(old))).json.errno.key, "otp_auth_failed");
    assert.equal((await emil.confirm()).json.auth_ok, true);
  });

  test("comes too late after 30 minutes", async () => {
    const fred = await Wizard.start(server, "fred");
    await fred.qr();
    for (let i = 0; i < 3; ++i) {
      server.advance(10 * 60);
      await fred.client.get("/api/session");
    }
    assertRefused(await fred.confirm(), 409, "no_setup");
    await fred.qr();
    assert.equal((await fred.confirm()).json.auth_ok, true);
  });

  test("is over with the sign-out", async () => {
    const gina = await Wizard.start(server, "gina");
    await gina.qr();
    const file = readdirSync("/tmp").filter((name) => name.startsWith("OTP_"));
    assert.notEqual(file.length, 0);
    await gina.client.post("/api/signout");
    const again = await Wizard.start(server, "gina");
    assertRefused(await again.confirm(server.code(gina.key)), 409, "no_setup");
    const uid = (await again.client.get("/api/session")).json.uid;
    assert.ok(!existsSync(`/tmp/OTP_${uid}`));
  });

  test("tells a used code from a wrong one", async () => {
    const wizard = await enrol(server, "gina");
    const code = server.code(wizard.key);
    const half = await signIn(server, "gina");
    assertRefused(await half.post("/api/signin/code", { code }), 401, "otp_code_used");
  });

  test("in which a directory stands at the secret's place is a fault, and nothing is lost", async () => {
    const hugo = await Wizard.start(server, "hugo");
    await hugo.qr();
    mkdirSync(`${kPreference}/hugo/otp_secret`);
    assertRefused(await hugo.confirm(), 503, "otp_unavailable");
    rmdirSync(`${kPreference}/hugo/otp_secret`);
    server.advance(30);
    assert.equal((await hugo.confirm()).json.auth_ok, true);
  });

  test("that cannot write into the preference directory is a fault, and mended once it can", async () => {
    const ines = await Wizard.start(server, "ines");
    await ines.qr();
    chmodSync(`${kPreference}/ines`, 0o500);
    assertRefused(await ines.confirm(), 503, "otp_unavailable");
    chmodSync(`${kPreference}/ines`, 0o700);
    // The accepted code counts: the account is enrolled, and the next code signs in.
    assert.equal((await ines.status()).enrolled, true);
    await signInWithCode(server, "ines", ines.key);
  });
});

describe("the recovery address", () => {
  test("needs a code from an enrolled account, but for 10 minutes after the confirmation", async () => {
    const wizard = await enrol(server, "jack");
    assert.deepEqual((await wizard.mail("jack@one.example")).json, { success: true, saved: true });
    server.advance(10 * 60);
    assertRefused(await wizard.mail("jack@two.example"), 400, "bad_request");
    assertRefused(await wizard.mail("jack@two.example", server.wrongCode(wizard.key)), 401, "otp_auth_failed");
    const code = server.code(wizard.key);
    assert.deepEqual((await wizard.mail("jack@two.example", code)).json, { success: true, saved: true });
    assertRefused(await wizard.mail("jack@three.example", code), 401, "otp_code_used");
    assert.equal((await wizard.status()).mail, "j***@two.example");

    wizard.client = await signInWithCode(server, "jack", wizard.key);
    assertRefused(await wizard.mail("jack@four.example"), 400, "bad_request");
  });
});

describe("an enrolled account's key", () => {
  test("is shown in a session only that has seen a code", async () => {
    const passwordOnly = await Wizard.start(server, "kim");
    await enrol(server, "kim");
    assertRefused(await passwordOnly.qr(), 401, "not_signed_in");

    // Even where the other session had outlived the enrolment.
    const wizard = new Wizard();
    wizard.server = server;
    wizard.user = "kim";
    wizard.key = "";
    wizard.client = await (async () => {
      const client = await Wizard.start(server, "lea");
      return client.client;
    })();
    const uid = JSON.parse(run("tavrctl", ["user", "list", "--json"])).users.find((u) => u.name === "kim").uid;
    run("setpriv", ["--reuid=tavr-web", "--regid=tavr-web", "--clear-groups", "python3", "-c",
      "import sqlite3,sys; c=sqlite3.connect('/var/lib/tavr/signin.db');" +
      "c.execute('UPDATE session SET account=? WHERE account=(SELECT max(account) FROM session WHERE second_step=0)'," +
      "(int(sys.argv[1]),)); c.commit()", String(uid)]);
    assert.equal((await wizard.client.get("/api/session")).json.user, "kim");
    assertRefused(await wizard.qr(), 401, "not_signed_in");
    assertRefused(await wizard.confirm("123456"), 401, "not_signed_in");
    assertRefused(await wizard.mail("x@evil.example", "123456"), 401, "not_signed_in");
  });
});

describe("where something is missing", () => {
  test("no qrencode is told before the step, and the log holds no key", async () => {
    const max = await Wizard.start(server, "max");
    await max.qr();
    renameSync("/usr/bin/qrencode", "/usr/bin/qrencode.away");
    try {
      for (const answer of [await max.qr(), await max.label("x")]) {
        assert.deepEqual([answer.status, answer.json], [200, { success: false, err: "qr_unavailable" }]);
      }
    } finally {
      renameSync("/usr/bin/qrencode.away", "/usr/bin/qrencode");
    }
    assert.ok(!server.log().includes(max.key));
    assert.equal((await max.confirm()).json.auth_ok, true);
  });

  test("no machine key is a fault and neither a wrong code nor not enrolled", async () => {
    const half = await signIn(server, "max");
    const { key } = await enrol(server, "lea");
    renameSync("/etc/tavr/otp.key", "/etc/tavr/otp.key.away");
    try {
      assertRefused(await half.post("/api/signin/code", { code: "123456" }), 503, "otp_unavailable");
      const nobody = await Wizard.start(server, "carol").catch((error) => error);
      assert.ok(nobody instanceof Wizard || /503/.test(nobody.message));
    } finally {
      renameSync("/etc/tavr/otp.key.away", "/etc/tavr/otp.key");
    }
    await signInWithCode(server, "lea", key);
  });

  test("a damaged secret file is a fault and opens nothing", async () => {
    const { key } = await enrol(server, "carol");
    const file = `${kPreference}/carol/otp_secret`;
    const text = readFileSync(file, "utf8");
    for (const damaged of [`x${text.slice(1)}`, `${text}12345678\n`, "\n", "A".repeat(16) + "\n"]) {
      writeFileSync(file, damaged);
      const answer = await signIn(server, "carol").catch((error) => error);
      assert.match(answer.message ?? "opened", /503 .*otp_unavailable/, damaged.slice(0, 20));
    }
    writeFileSync(file, text);
    await signInWithCode(server, "carol", key);
  });

  test("a secret file that is gone or cut short is written anew, not taken for not enrolled", async () => {
    const file = `${kPreference}/lea/otp_secret`;
    const text = readFileSync(file, "utf8");
    for (const [damage, change] of [["gone", () => rmSync(file)], ["empty", () => writeFileSync(file, "")],
      ["cut short", () => writeFileSync(file, text.slice(0, 10))]]) {
      change();
      const lea = await signIn(server, "lea");
      assert.deepEqual([...lea.cookies.keys()], ["pending"], damage);
      assert.equal(readFileSync(file, "utf8"), text, damage);
    }
  });
});

test("no key and no code stands in the log", () => {
  const log = server.log();
  assert.doesNotMatch(log, /[A-Z2-7]{32}/);
  assert.doesNotMatch(log, /code=\d{6}/);
});
