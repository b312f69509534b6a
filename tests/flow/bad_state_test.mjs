// What a server meets in its life: state that is gone, locked, damaged or somebody else's, clocks that were wrong, codes
// and cookies that are none. An enrolled account is then let in by nobody's password alone, nobody is told "wrong" or
// "not enrolled" for a fault, and what is put right goes on by itself.
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { copyFileSync, chownSync, mkdirSync, readFileSync, renameSync, rmSync, writeFileSync } from "node:fs";
import { after, before, describe, test } from "node:test";
import { run, startServer } from "../support/server.mjs";
import { Client, send, signIn } from "./client.mjs";
import { enrol, signInWithCode } from "./wizard.mjs";

const kService = 64217;
const kState = "/var/lib/tavr";
const kMachineKey = "/etc/tavr/otp.key";
const secretFile = (user) => `/usr/tavr/etc/preference/${user}/otp_secret`;

let server;
let alice;
before(async () => {
  const names = ["alice", "bob", "codes", "clock", "future", "half"];
  server = await startServer({ accounts: Object.fromEntries(names.map((name) => [name, []])), workers: 2 });
  alice = await enrol(server, "alice");
  await enrol(server, "bob");
});
after(() => server?.stop());

const said = ({ status, json }) => `${status} ${json?.err ?? json?.state ?? ""}`.trim();
const givePassword = (user = "alice") =>
  send(server.url, "POST", "/api/signin", { body: { user, password: server.passwords[user] } });

function owned(path, text) {
  writeFileSync(path, text, { mode: 0o600 });
  chownSync(path, kService, kService);
}

function move(from, to) {
  renameSync(from, to);
  return () => {
    rmSync(from, { force: true, recursive: true });
    renameSync(to, from);
  };
}

// Each begins a fault and gives what ends it. Moved away, not changed in place: the workers have files open.
const kFaults = {
  "the machine key is gone": () => move(kMachineKey, "/etc/tavr/kept"),
  "the machine key is another one": () => {
    const mend = move(kMachineKey, "/etc/tavr/kept");
    writeFileSync(kMachineKey, `tavr-machine-key-1 ${"5".repeat(64)}\n`, { mode: 0o440 });
    chownSync(kMachineKey, 0, kService);
    return mend;
  },
  "the machine key is no key": () => {
    const mend = move(kMachineKey, "/etc/tavr/kept");
    writeFileSync(kMachineKey, "no key\n", { mode: 0o440 });
    chownSync(kMachineKey, 0, kService);
    return mend;
  },
  "the secret file is a directory": () => {
    const mend = move(secretFile("alice"), `${secretFile("alice")}.kept`);
    mkdirSync(secretFile("alice"));
    return mend;
  },
  "the secret file is somebody else's": () => {
    const mend = move(secretFile("alice"), `${secretFile("alice")}.kept`);
    owned(secretFile("alice"), readFileSync(secretFile("bob")));
    return mend;
  },
  "the secret file is a plain one": () => {
    const mend = move(secretFile("alice"), `${secretFile("alice")}.kept`);
    owned(secretFile("alice"), `${"A".repeat(16)}\n" TOTP_AUTH\n12345678\n`);
    return mend;
  },
  "the account lock cannot be used": () => {
    const mend = move(`${kState}/account.lock`, `${kState}/kept.lock`);
    mkdirSync(`${kState}/account.lock`);
    return mend;
  },
};

describe("nobody is let in, told wrong or not enrolled while", () => {
  for (const [what, begin] of Object.entries(kFaults)) {
    test(what, async () => {
      const half = await signIn(server, "alice");
      server.advance(30);
      const end = begin();
      try {
        assert.equal(said(await half.post("/api/signin/code", { code: alice.code() })), "503 otp_unavailable");
        const password = await givePassword();
        assert.ok(["503 otp_unavailable", "200 code_required"].includes(said(password)), said(password));
        assert.ok(!password.setCookies.some((line) => /^sid=[0-9a-f]/.test(line)));
      } finally {
        end();
      }
      assert.equal(said(await half.post("/api/signin/code", { code: alice.code() })), "200 signed_in");
    });
  }

  test("the sign-in database is locked", async () => {
    const half = await signIn(server, "alice");
    server.advance(30);
    const holder = spawn("setpriv", ["--reuid=tavr-web", "--regid=tavr-web", "--clear-groups", "python3", "-c",
      "import sqlite3,sys; c=sqlite3.connect(sys.argv[1]); c.execute('BEGIN EXCLUSIVE'); print('held', flush=True);"
      + " sys.stdin.read()", `${kState}/signin.db`], { stdio: ["pipe", "pipe", "inherit"] });
    await new Promise((resolve) => holder.stdout.once("data", resolve));
    const [code, password] = await Promise.all([half.post("/api/signin/code", { code: alice.code() }), givePassword()]);
    holder.stdin.end();
    await new Promise((resolve) => holder.once("exit", resolve));
    assert.deepEqual([said(code), said(password)], ["503 otp_unavailable", "503 otp_unavailable"]);
    assert.equal(said(await half.post("/api/signin/code", { code: alice.code() })), "200 signed_in");
  });

  for (const [what, spoil] of [
    ["is gone", () => {}],
    ["is no database", (file) => owned(file, "no database at all, but a text\n".repeat(400))],
    ["is damaged", (file, kept) => {
      const bytes = readFileSync(kept);
      bytes.fill(0x5a, 100);
      owned(file, bytes);
    }],
    ["is a directory", (file) => mkdirSync(file)],
  ]) {
    test(`the sign-in database ${what}, for workers that open it anew`, async () => {
      run("setpriv", ["--reuid=tavr-web", "--regid=tavr-web", "--clear-groups", "python3", "-c",
        "import sqlite3,sys; sqlite3.connect(sys.argv[1]).execute('PRAGMA wal_checkpoint(TRUNCATE)')", `${kState}/signin.db`]);
      const ends = ["signin.db", "signin.db-wal", "signin.db-shm"].map((name) => move(`${kState}/${name}`, `${kState}/${name}.kept`));
      spoil(`${kState}/signin.db`, `${kState}/signin.db.kept`);
      const former = server.workers();
      former.forEach((pid) => process.kill(pid, "SIGKILL"));
      try {
        for (let i = 0; i < 4; ++i) {
          assert.equal(said(await givePassword()), "503 otp_unavailable");
        }
      } finally {
        for (const name of ["signin.db-wal", "signin.db-shm"]) {
          rmSync(`${kState}/${name}`, { force: true });
        }
        ends.forEach((end) => end());
        server.workers().forEach((pid) => process.kill(pid, "SIGKILL"));
      }
      await signInWithCode(server, "alice", alice.key);
    });
  }
});

describe("a secret file that is incomplete is written anew", () => {
  for (const [what, spoil] of [
    ["when it is absent", (file) => rmSync(file)],
    ["when it is empty", (file) => owned(file, "")],
    ["when it was cut off", (file) => owned(file, readFileSync(file, "utf8").slice(0, 50))],
  ]) {
    test(what, async () => {
      const whole = readFileSync(secretFile("alice"), "utf8");
      spoil(secretFile("alice"));
      assert.equal(said(await givePassword()), "200 code_required");
      assert.equal(readFileSync(secretFile("alice"), "utf8"), whole);
      await signInWithCode(server, "alice", alice.key);
    });
  }
});

test("a secret file from before a renewal is dead", async () => {
  copyFileSync(secretFile("alice"), "/run/older");
  const client = await signInWithCode(server, "alice", alice.key);
  alice.client = client;
  server.advance(30);
  const { key } = (await alice.renew()).json;
  server.advance(30);
  assert.equal((await alice.confirm(server.code(key))).json.auth_ok, true);
  const newer = readFileSync(secretFile("alice"), "utf8");
  owned(secretFile("alice"), readFileSync("/run/older", "utf8"));
  assert.equal(said(await givePassword()), "503 otp_unavailable");
  owned(secretFile("alice"), newer);
  alice.key = key;
  await signInWithCode(server, "alice", key);
});

test("codes that are none are wrong, count nothing and spend nothing", async () => {
  const { key } = await enrol(server, "codes");
  const half = await signIn(server, "codes");
  server.advance(30);
  const code = server.code(key);
  const digits = (zero) => [...code].map((digit) => String.fromCodePoint(zero + Number(digit))).join("");
  for (const typed of ["", " ", code.slice(1), `${code}0`, `0${code}`, ` ${code}`, `${code} `, `${code}\n`, `${code.slice(0, 3)} ${code.slice(3)}`,
    `+${code}`, `-${code}`, `+${code.slice(1)}`, `-${code.slice(1)}`, `0x${code.slice(2)}`, `${code.slice(0, 5)}.`, digits(0x660), digits(0x966),
    digits(0xff10), digits(0x1d7d8), `${code}\u200b`, "1e5000", "NaN", "1".repeat(65), code.repeat(10000)]) {
    assert.equal(said(await half.post("/api/signin/code", { code: typed })), "401 otp_auth_failed", JSON.stringify(typed));
  }
  for (const wrong of [Number(code), null, [code], { code }, true]) {
    assert.equal(said(await half.post("/api/signin/code", { code: wrong })), "400 bad_request", JSON.stringify(wrong));
  }
  assert.equal(said(await half.post("/api/signin/code", { code })), "200 signed_in");
});

describe("a wall clock that was set", () => {
  // The machine's own clock runs on; only what people read changes.
  const back = { "an hour back": (now) => now - 3600, "to 1970": () => 60 };

  for (const [what, wallOf] of Object.entries(back)) {
    test(`${what} opens no code that was used, and keeps sessions and waits`, async () => {
      const user = what === "to 1970" ? "half" : "clock";
      const wizard = await enrol(server, user);
      const former = wizard.code();
      server.advance(30);
      const live = await signIn(server, user);
      const code = wizard.code();
      assert.equal(said(await live.post("/api/signin/code", { code })), "200 signed_in");
      const half = await signIn(server, user);
      const now = server.wall;
      server.setWall(wallOf(now));
      assert.equal((await live.get("/api/session")).status, 200);
      const then = wizard.code();
      for (const typed of [then, then, code, former]) {
        assert.match(said(await half.post("/api/signin/code", { code: typed })), /^401 otp_(code_used|auth_failed)$/);
      }
      server.setWall(now + 30);
      assert.equal(said(await half.post("/api/signin/code", { code: wizard.code() })), "200 signed_in");
    });
  }

  test("to 2107 leaves what was used there used, and nobody without a way in", async () => {
    const wizard = await enrol(server, "future");
    const half = await signIn(server, "future");
    const now = server.wall;
    server.setWall(4_325_000_000);
    const code = wizard.code();
    assert.equal(said(await half.post("/api/signin/code", { code })), "200 signed_in");
    const again = await signIn(server, "future");
    assert.equal(said(await again.post("/api/signin/code", { code })), "401 otp_code_used");
    server.setWall(now + 30);
    assert.equal(said(await again.post("/api/signin/code", { code: wizard.code() })), "401 otp_code_used");
    const given = run("tavrctl", ["otp", "code", "future"]).trim();
    assert.equal(said(await again.post("/api/signin/code", { code: given })), "200 signed_in");
    run("tavrctl", ["otp", "reset", "future"]);
    const { key } = await enrol(server, "future");
    await signInWithCode(server, "future", key);
  });
});

test("cookies that come twice or with kibibytes around them", async () => {
  const client = await signInWithCode(server, "alice", alice.key);
  const sid = client.cookies.get("sid");
  const ask = async (Cookie) => (await send(server.url, "GET", "/api/session", { headers: { Cookie } })).status;
  assert.equal(await ask(`sid=${sid}`), 200);
  for (const twice of [`sid=${sid}; sid=${sid}`, `sid=${"0".repeat(32)}; sid=${sid}`, `sid=${sid}; sid=`, `sid=; sid=${sid}`]) {
    assert.equal(await ask(twice), 401, twice);
  }
  assert.equal(await ask(`a=${"b".repeat(8192)}; sid=${sid}`), 200);
  assert.equal(await ask(`sid=${sid}${"0".repeat(8192)}`), 401);
  const large = new Client(server.url);
  assert.ok([400, 431].includes(await ask(`sid=${sid}; a=${"b".repeat(40_000)}`)), "beyond the web server's limit");
  assert.equal((await large.get("/api/session")).status, 401, "and the next one is served");
});
