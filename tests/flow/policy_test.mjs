// Two-step sign-in that the administrator demands, through the interface and the console: from the password straight to
// the enrolment, never switched off, in force whatever becomes of its file, and nobody is let in when it cannot be told.
import assert from "node:assert/strict";
import { chownSync, existsSync, mkdirSync, readFileSync, renameSync, rmSync, writeFileSync } from "node:fs";
import { after, before, describe, test } from "node:test";
import { local } from "../support/accounts.mjs";
import { run, startServer } from "../support/server.mjs";
import { Client, signIn } from "./client.mjs";
import { Wizard, enrol } from "./wizard.mjs";

const kPicks = "/usr/tavr/etc/tavr_otp_enforce_custom_setting";
const kCopy = "/var/lib/tavr/policy.copy";
const kService = 64217;
const kNames = ["alice", "bob", "carol", "dora", "emil", "fred", "gina", "hugo"];

let server;
before(async () => {
  server = await startServer({ accounts: Object.fromEntries(kNames.map((name) => [name, []])), workers: 3 });
  local.addGroup("crew");
});
after(() => server?.stop());

const enforce = (...words) => run("tavrctl", ["enforce", ...words]);
const said = ({ status, json }) => `${status} ${json?.err ?? json?.state ?? ""}`.trim();
const numberOf = (user) =>
  JSON.parse(run("tavrctl", ["user", "list", "--json"])).users.find(({ name }) => name === user).uid;
const audited = (outcome) => JSON.parse(run("tavrctl", ["audit", "--json"])).audit
  .filter((row) => row.event === "policy" && row.outcome === outcome);

// As the service's own, as an editor of root's would leave it.
function spoil(text) {
  rmSync(kPicks, { force: true, recursive: true });
  writeFileSync(kPicks, text);
  chownSync(kPicks, kService, kService);
}

describe("enrolment that is demanded", () => {
  before(() => {
    enforce("option", "custom");
    enforce("add", "local_user", "alice");
    enforce("add", "local_group", "crew");
    local.join("crew", "bob");
  });

  test("stands between password and session", async () => {
    for (const user of ["alice", "bob"]) {
      const client = await signIn(server, user);
      assert.ok(client.cookies.has("pending") && !client.cookies.has("sid"), user);
      const asked = await client.get("/api/session");
      assert.deepEqual([asked.status, asked.json.state, asked.json.user], [401, "enrolment_required", user]);
      const wizard = Object.assign(new Wizard(), { server, user, client });
      assert.deepEqual([(await wizard.status()).enforced, (await wizard.status()).enrolled], [true, false]);
      for (const path of ["/api/otp/renew", "/api/otp/disable"]) {
        const body = { password: wizard.password, code: "123456", account_name: "x" };
        assert.equal(said(await client.post(path, body)), "401 not_signed_in", path);
      }
      assert.equal((await wizard.qr()).status, 200);
      assert.equal((await wizard.confirm(server.wrongCode(wizard.key))).json.errno.key, "otp_auth_failed");
      assert.ok(!client.cookies.has("sid"), "not by a wrong code");
      assert.equal((await wizard.confirm()).json.auth_ok, true);
      assert.ok(client.cookies.has("sid") && !client.cookies.has("pending"));
      assert.equal((await client.get("/api/session")).json.user, user);
      assert.equal((await wizard.status()).enforced, true);
    }
    const carol = await signIn(server, "carol");
    assert.ok(carol.cookies.has("sid"), "of whom it is not demanded");
  });

  test("waits half an hour", async () => {
    enforce("add", "local_user", "dora");
    const wizard = Object.assign(new Wizard(), { server, user: "dora", client: await signIn(server, "dora") });
    server.advance(29 * 60);
    assert.equal((await wizard.qr()).status, 200);
    server.advance(2 * 60);
    assert.equal(said(await wizard.confirm()), "401 not_signed_in");
  });

  test("cannot be switched off, and a phone can be replaced", async () => {
    const wizard = await enrol(server, "emil");
    server.advance(30);
    enforce("add", "local_user", "emil");
    const code = wizard.code();
    assert.equal(said(await wizard.disable(code)), "403 otp_enforced");
    const renewed = await wizard.renew(code);
    assert.equal(renewed.status, 200, "the code was not used up by the refusal");
    wizard.key = renewed.json.key;
    server.advance(30);
    assert.equal((await wizard.confirm()).json.auth_ok, true);
    server.advance(30);
    enforce("remove", "local_user", "emil");
    assert.equal((await wizard.disable()).status, 200);
  });

  test("is asked for at the next sign-in of who is signed in", async () => {
    const fred = await signIn(server, "fred");
    enforce("add", "local_user", "fred");
    assert.equal((await fred.get("/api/session")).status, 200);
    assert.equal((await fred.get("/api/otp/status")).json.enforced, true);
    assert.ok((await signIn(server, "fred")).cookies.has("pending"));
  });
});

describe("a file that is spoilt", () => {
  const signInState = async (user) => {
    const client = new Client(server.url);
    return said(await client.post("/api/signin", { user, password: server.passwords[user] }));
  };

  test("is restored while people sign in", async () => {
    enforce("option", "custom");
    enforce("add", "local_user", "gina");
    const picks = readFileSync(kPicks, "utf8");
    const before = audited("restored").length;
    let rounds = 0;
    for (const text of ["", "[]", picks.slice(0, 20), "{\"local_user\":{}}\n"]) {
      spoil(text);
      const states = await Promise.all(Array.from({ length: 6 }, () => signInState("gina")));
      assert.deepEqual(states, Array(6).fill("200 enrolment_required"), text);
      assert.equal(readFileSync(kPicks, "utf8"), picks);
      rounds += 1;
    }
    rmSync(kPicks);
    assert.equal(await signInState("gina"), "200 enrolment_required");
    assert.equal(audited("restored").length - before, rounds + 1, "each is told once");
    assert.match(server.log(), /tavr_otp_enforce_custom_setting was gone, and is restored from its last good copy/);
  });

  test("by nobody else's mistake is taken as it stands", async () => {
    const before = audited("adopted").length;
    spoil(`{"local_user":["${numberOf("hugo")}"]}`);
    assert.equal(await signInState("hugo"), "200 enrolment_required");
    assert.equal(await signInState("gina"), "200 signed_in");
    assert.equal(audited("adopted").length - before, 1);
  });

  test("lets nobody in when there is no good copy, and everybody when it is mended", async () => {
    enforce("add", "local_user", "gina");
    const picks = readFileSync(kPicks, "utf8");
    rmSync(kCopy);
    spoil("[]");
    for (const user of ["carol", "gina", "alice"]) {
      assert.equal(await signInState(user), "503 policy_unavailable", user);
    }
    for (const option of ["none", "admin"]) {
      enforce("option", option);
      assert.equal(await signInState("carol"), "200 signed_in", `${option} needs no picks`);
    }
    enforce("option", "user");
    assert.equal(await signInState("carol"), "200 enrolment_required");
    spoil(picks);
    enforce("option", "custom");
    assert.equal(await signInState("carol"), "200 signed_in");
    assert.equal(await signInState("gina"), "200 enrolment_required");
    assert.ok(existsSync(kCopy));
  });

  test("is not alone: settings that are gone let nobody in either", async () => {
    renameSync("/etc/tavr/tavrinfo.conf", "/etc/tavr/kept.conf");
    assert.equal(await signInState("carol"), "503 policy_unavailable");
    writeFileSync("/etc/tavr/tavrinfo.conf", "");
    assert.equal(await signInState("carol"), "503 policy_unavailable");
    rmSync("/etc/tavr/tavrinfo.conf");
    mkdirSync("/etc/tavr/tavrinfo.conf");
    // A worker that had no request since the option was "user" goes on with that.
    assert.match(await signInState("carol"), /^(503 policy_unavailable|200 enrolment_required)$/);
    rmSync("/etc/tavr/tavrinfo.conf", { recursive: true });
    renameSync("/etc/tavr/kept.conf", "/etc/tavr/tavrinfo.conf");
    assert.equal(await signInState("carol"), "200 signed_in");
  });

  test("is never seen by who signs in while others are picked", async () => {
    const signIns = (async () => {
      const states = [];
      for (let i = 0; i < 30; i += 1) {
        states.push(await signInState("gina"));
      }
      return states;
    })();
    for (let i = 0; i < 15; i += 1) {
      enforce(i % 2 === 0 ? "add" : "remove", "local_user", "hugo", "carol");
      await new Promise((resolve) => { setImmediate(resolve); });
    }
    assert.deepEqual(new Set(await signIns), new Set(["200 enrolment_required"]));
  });
});
