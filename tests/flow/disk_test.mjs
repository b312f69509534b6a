// File systems that take nothing: nothing is granted that could not be stored, nothing stored is lost, and with room
// again all goes on by itself.
import assert from "node:assert/strict";
import { after, before, test } from "node:test";
import { chownSync, closeSync, mkdirSync, openSync, readFileSync, rmSync, writeSync } from "node:fs";
import { run, startServer } from "../support/server.mjs";
import { send, signIn } from "./client.mjs";

const kService = 64217;
const kPreference = "/usr/tavr/etc/preference";
let server;
before(async () => {
  for (const [path, mode] of [["/var/lib/tavr", "700"], [kPreference, "700"], ["/tmp", "1777"]]) {
    mkdirSync(path, { recursive: true });
    run("mount", ["-t", "tmpfs", "-o", `size=4m,mode=${mode}`, "small", path]);
  }
  chownSync("/var/lib/tavr", kService, kService);
  chownSync(kPreference, kService, kService);
  server = await startServer({ accounts: { alice: [], bob: [], carol: [], dora: [] }, workers: 1 });
});
after(() => server?.stop());

function assertUnavailable(answer) {
  assert.deepEqual([answer.status, answer.json], [503, { success: false, err: "otp_unavailable" }]);
}

// Runs `work` while `path` has no byte left.
async function whileFull(path, work) {
  const filler = `${path}/filler`;
  const file = openSync(filler, "w");
  for (const size of [65536, 4096, 1]) {
    try {
      for (;;) {
        writeSync(file, Buffer.alloc(size));
      }
    } catch (error) {
      assert.equal(error.code, "ENOSPC");
    }
  }
  closeSync(file);
  try {
    await work();
  } finally {
    rmSync(filler);
  }
}

// Runs a statement on the sign-in database, as the service.
function sql(statement) {
  run("setpriv", ["--reuid=tavr-web", "--regid=tavr-web", "--clear-groups", "python3", "-c",
    "import sqlite3,sys; c=sqlite3.connect('/var/lib/tavr/signin.db'); c.execute(sys.argv[1]); c.commit()", statement]);
}

const body = (user) => ({ user, password: server.passwords[user] });

test("a full disk under the state opens no session, and one that is open lives on", async () => {
  const alice = await signIn(server, "alice");
  await whileFull("/var/lib/tavr", async () => {
    let refused = 0;
    // The log of the database may have room for some more rows.
    for (let i = 0; i < 400 && refused < 5; ++i) {
      const answer = await send(server.url, "POST", "/api/signin", { body: body("bob") });
      if (answer.status !== 200) {
        assertUnavailable(answer);
        assert.deepEqual(answer.setCookies, []);
        ++refused;
      }
    }
    assert.equal(refused, 5);
    assert.equal((await alice.get("/api/session")).status, 200);
  });
  await signIn(server, "bob");
});

test("a full disk under the waiting secrets makes no key, and a later try does", async () => {
  const alice = await signIn(server, "alice");
  const qr = () => alice.post("/api/otp/qr", { password: server.passwords.alice, account_name: "x" });
  await whileFull("/tmp", async () => assertUnavailable(await qr()));
  const { key } = (await qr()).json;
  const confirmed = await alice.post("/api/otp/confirm", { password: server.passwords.alice, code: server.code(key) });
  assert.equal(confirmed.json.auth_ok, true);
});

test("a full disk under the preference tree loses neither the accepted code nor the key", async () => {
  const carol = await signIn(server, "carol");
  const { key } = (await carol.post("/api/otp/qr", { password: server.passwords.carol, account_name: "x" })).json;
  const code = server.code(key);
  await whileFull(kPreference, async () => {
    assertUnavailable(await carol.post("/api/otp/confirm", { password: server.passwords.carol, code }));
  });
  assert.equal((await carol.get("/api/otp/status")).json.enrolled, true);
  assert.match(readFileSync(`${kPreference}/carol/otp_secret`, "utf8"), /^.{16}\n("[^\n]*\n)*(.{16}\n){10}$/);
  const half = await signIn(server, "carol");
  server.advance(30);
  assert.equal((await half.post("/api/signin/code", { code: server.code(key) })).status, 200);
});

test("state that cannot be written grants no second step", async () => {
  const dora = await signIn(server, "dora");
  const { key } = (await dora.post("/api/otp/qr", { password: server.passwords.dora, account_name: "x" })).json;
  await dora.post("/api/otp/confirm", { password: server.passwords.dora, code: server.code(key) });
  const half = await signIn(server, "dora");
  server.advance(30);
  const whileFailing = async (event, code) => {
    sql(`CREATE TRIGGER stop BEFORE ${event} BEGIN SELECT RAISE(ABORT, 'told to fail'); END`);
    const answer = await half.post("/api/signin/code", { code });
    sql("DROP TRIGGER stop");
    assertUnavailable(answer);
    assert.deepEqual(answer.setCookies, []);
  };
  // A step that was not stored as used was not used.
  const code = server.code(key);
  await whileFailing("UPDATE ON account_mark", code);
  // Nor is one whose session could not be stored: it is as good as before.
  await whileFailing("INSERT ON session", code);
  await whileFailing("INSERT ON audit", code);
  assert.equal((await half.post("/api/signin/code", { code })).status, 200);
});
