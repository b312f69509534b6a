// The administrator's routes: who must use two-step sign-in, the list of picks, another account's reset.
import assert from "node:assert/strict";
import { after, before, beforeEach, describe, test } from "node:test";
import { chownSync, mkdirSync, readFileSync, renameSync, rmSync, writeFileSync } from "node:fs";
import { local } from "../support/accounts.mjs";
import { run, startServer } from "../support/server.mjs";
import { send, signIn } from "./client.mjs";
import { enrol, signInWithCode } from "./wizard.mjs";

const kService = 64217;
const kFolder = "/usr/tavr/etc";
const kPicks = `${kFolder}/tavr_otp_enforce_custom_setting`;
const kSettings = "/etc/tavr/tavrinfo.conf";

let server;
let ada;     // enrolled administrators
let ben;
let cora;    // an administrator who is not enrolled
before(async () => {
  mkdirSync(kFolder, { recursive: true });
  run("mount", ["-t", "tmpfs", "-o", "size=1m,mode=755", "small", kFolder]);
  chownSync(kFolder, kService, kService);
  server = await startServer({ accounts: { ada: ["--admin"], ben: ["--admin"], cora: ["--admin"],
    alice: ["--desc", "Accounts receivable"], bob: [], dora: [] } });
  ada = (await enrol(server, "ada")).client;
  ben = (await enrol(server, "ben")).client;
  cora = await signIn(server, "cora");
});
after(() => server?.stop());

function assertRefused(answer, status, err, what) {
  assert.deepEqual([answer.status, answer.json], [status, { success: false, err }], what);
}

const picks = () => JSON.parse(readFileSync(kPicks, "utf8"));
const settings = () => readFileSync(kSettings, "utf8");
const audit = () => JSON.parse(run("tavrctl", ["audit", "--json"])).audit;
const uidOf = (name) => JSON.parse(run("tavrctl", ["--json", "otp", "status", name])).uid;
const list = async (query, client = ada) => (await client.get(`/api/enforce/list?${new URLSearchParams(query)}`)).json;
const names = ({ rows }) => rows.map(({ name }) => name);
const set = (type, changes, client = ada) => client.post("/api/enforce/set",
  { type, settings: Object.entries(changes).map(([id, is_enforced]) => ({ id, is_enforced })) });
const choose = (option, client = ada) => client.post("/api/enforce/option", { option });
const option = async () => (await ada.get("/api/enforce/option")).json;

// As an editor would: no test finds the picks of the one before.
beforeEach(() => writeFileSync(kPicks, "{}\n"));

describe("the option", () => {
  test("is none at first, and what was saved last from then on, on every worker", async () => {
    assert.deepEqual(await option(), { success: true, option: "none", not_enrolled: 0 });
    for (const value of ["user", "admin", "custom", "none"]) {
      assert.deepEqual((await choose(value)).json, { success: true });
      for (let i = 0; i < 6; i += 1) {
        assert.equal((await option()).option, value);
      }
      assert.match(settings(), new RegExp(`^otp_enforce_option="${value}"$`, "m"));
    }
  });

  test("comes with the number of local accounts that it is demanded of and that are not enrolled", async () => {
    await choose("user");
    assert.equal((await option()).not_enrolled, 4);
    await choose("admin");
    assert.equal((await option()).not_enrolled, 1);
    await choose("custom");
    assert.equal((await option()).not_enrolled, 0);
    await set("local_user", { [uidOf("alice")]: true, [uidOf("ada")]: true });
    assert.equal((await option()).not_enrolled, 1);
    local.addGroup("crew");
    local.join("crew", "bob");
    local.join("crew", "alice");
    const [{ id }] = (await list({ type: "local_group", query: "crew" })).rows;
    await set("local_group", { [id]: true });
    assert.equal((await option()).not_enrolled, 2);
    await choose("none");
    assert.equal((await option()).not_enrolled, 0);
  });

  test("is one of four words", async () => {
    const before = settings();
    for (const body of [{ option: "User" }, { option: "" }, { option: "none " }, { option: "nobody" }, { option: 1 }, {},
      { option: null }, { option: ["none"] }, { option: "none\nx=\"1" }, { option: "x".repeat(17) }]) {
      assertRefused(await ada.post("/api/enforce/option", body), 400, "bad_request", JSON.stringify(body));
    }
    assert.equal(settings(), before);
  });

  test("is none alone from an administrator who is not enrolled, until she is", async () => {
    const before = settings();
    for (const value of ["user", "admin", "custom"]) {
      assertRefused(await choose(value, cora), 409, "enrol_first", value);
    }
    assertRefused(await set("local_user", { 1026: true }, cora), 409, "enrol_first");
    assertRefused(await set("local_user", { 1026: false }, cora), 409, "enrol_first");
    assert.equal(settings(), before);
    assert.deepEqual(picks(), {});
    assert.equal((await choose("none", cora)).status, 200);
  });

  test("stands in the audit with who changed it and from where", async () => {
    await choose("admin");
    await choose("none");
    const [first, second] = audit().slice(-2);
    for (const [row, detail] of [[first, "admin"], [second, "none"]]) {
      assert.deepEqual([row.event, row.detail, row.account, row.address], ["policy", detail, "ada", "127.0.0.1"]);
    }
  });
});

describe("the list", () => {
  test("gives pages in the order of names, with the total of all", async () => {
    const everybody = ["ada", "alice", "ben", "bob", "cora", "dora"];
    assert.deepEqual(names(await list({ type: "local_user" })), everybody);
    for (const [offset, limit, expected] of [[0, 2, ["ada", "alice"]], [2, 2, ["ben", "bob"]], [5, 500, ["dora"]],
      [6, 50, []], [2147483647, 50, []], [0, 0, []], [0, -1, everybody], [4, -1, ["cora", "dora"]]]) {
      const answer = await list({ type: "local_user", offset, limit });
      assert.deepEqual([answer.total, names(answer)], [6, expected], `${offset} ${limit}`);
    }
    const { rows: [row] } = await list({ type: "local_user", query: "ALICE" });
    assert.deepEqual(row, { id: String(uidOf("alice")), name: "alice", desc: "Accounts receivable", is_enforced: false });
  });

  test("finds texts in names and descriptions, whose characters stand for themselves", async () => {
    for (const [query, expected] of [["ali", ["alice"]], ["RECEIVABLE", ["alice"]], ["%", []], ["_", []], ["*", []],
      ["a' OR 1=1 --", []], ["o", ["alice", "bob", "cora", "dora"]], ["b\u202eo", []], ["é", []]]) {
      const answer = await list({ type: "local_user", query });
      assert.deepEqual([answer.total, names(answer)], [expected.length, expected], query);
    }
  });

  test("filters, and counts what the filter lets through", async () => {
    await set("local_user", { [uidOf("bob")]: true, [uidOf("dora")]: true, [uidOf("ben")]: true });
    for (const [query, total, expected] of [
      [{ filter: "enforced", limit: 2 }, 3, ["ben", "bob"]],
      [{ filter: "enforced", offset: 2 }, 3, ["dora"]],
      [{ filter: "unenforced" }, 3, ["ada", "alice", "cora"]],
      [{ filter: "unenforced", offset: 9 }, 3, []],
      [{ filter: "enforced", query: "o" }, 2, ["bob", "dora"]],
    ]) {
      const answer = await list({ type: "local_user", ...query });
      assert.deepEqual([answer.total, names(answer)], [total, expected], JSON.stringify(query));
    }
    const all = await list({ type: "local_user" });
    assert.deepEqual(all.rows.filter((row) => row.is_enforced).map(({ name }) => name), ["ben", "bob", "dora"]);
  });

  test("gives groups with their descriptions", async () => {
    const { rows } = await list({ type: "local_group", query: local.administrators });
    assert.deepEqual(rows,
      [{ id: "65536", name: local.administrators, desc: local.administratorsDesc, is_enforced: false }]);
  });

  test("is given whole up to 10,000 entries, and not beyond", async () => {
    const { total } = await list({ type: "local_group", limit: 1 });
    local.addManyGroups(Array.from({ length: 10_000 - total }, (_, i) => `many${String(i).padStart(5, "0")}`));
    const whole = await list({ type: "local_group", limit: -1 });
    assert.deepEqual([whole.total, whole.rows.length], [10_000, 10_000]);
    local.addGroup("one-more");
    assertRefused(await ada.get("/api/enforce/list?type=local_group&limit=-1"), 400, "list_too_long");
    assert.equal((await list({ type: "local_group", limit: -1, query: "many0" })).rows.length, 10_000 - total);
    assert.equal((await list({ type: "local_group", limit: 500, offset: 9_800 })).rows.length, 201);
  });

  test("refuses what is not as it should be", async () => {
    for (const query of ["", "type=", "type=users", "type=local_user&offset=-1", "type=local_user&offset=99999999999",
      "type=local_user&offset=x", "type=local_user&limit=501", "type=local_user&limit=-2", "type=local_user&limit=",
      "type=local_user&filter=Enforced", "type=local_user&filter=", "type=local_user&type=local_user",
      "type=local_user&query=%f", `type=local_user&query=${"x".repeat(1025)}`]) {
      assertRefused(await ada.get(`/api/enforce/list?${query}`), 400, "bad_request", query);
    }
    for (const query of ["query=%ff", "query=%00"]) {   // by the web server
      assert.equal((await ada.get(`/api/enforce/list?type=local_user&${query}`)).status, 400, query);
    }
  });

  test("says that there is no directory", async () => {
    for (const type of ["domain_user", "domain_group", "ldap_user", "ldap_group"]) {
      for (const filter of ["all", "enforced"]) {
        assertRefused(await ada.get(`/api/enforce/list?type=${type}&filter=${filter}`), 409, "directory_not_configured", type);
      }
    }
  });
});

describe("picks", () => {
  test("come and go one by one, of each type for itself, and stand in the file sorted", async () => {
    assert.equal((await set("local_user", { 999: true, 1000: true, 5: true })).status, 200);
    assert.equal((await set("ldap_group", { 7: true })).status, 200);
    assert.equal((await set("local_user", { 5: false, 6: false })).status, 200);
    assert.equal(readFileSync(kPicks, "utf8"), '{"ldap_group":["7"],"local_user":["1000","999"]}\n');
  });

  test("stand in the audit, each number with who picked it and from where", async () => {
    await set("local_user", { 1026: true, 4000: true }, ben);
    await set("local_user", { 4000: false }, ben);
    const rows = audit().filter(({ event }) => event === "policy").slice(-3);
    assert.deepEqual(rows.map(({ outcome, detail, account, address }) => [outcome, detail, account, address]), [
      ["picked", "local-user-1026", "ben", "127.0.0.1"], ["picked", "local-user-4000", "ben", "127.0.0.1"],
      ["unpicked", "local-user-4000", "ben", "127.0.0.1"]]);
  });

  test("that are not as they should be leave the file untouched", async () => {
    await set("local_user", { 1026: true });
    const before = readFileSync(kPicks);
    const good = { id: "1027", is_enforced: true };
    for (const body of [{}, { type: "local_user" }, { settings: [good] }, { type: "users", settings: [good] },
      { type: "", settings: [good] }, { type: 1, settings: [good] }, { type: "local_user", settings: good },
      { type: "local_user", settings: "x" }, { type: "local_user", settings: null }, { type: "local_user", settings: [[good]] },
      ...["alice", "", "-1", "+1", "01027", "1e3", "0x10", " 1", "1 ", "4294967296", "99999999999999999999", "1\0", "１"]
        .map((id) => ({ type: "local_user", settings: [good, { ...good, id }] })),
      ...[{ ...good, id: 1027 }, { is_enforced: true }, { id: "1" }, { ...good, is_enforced: 1 }, { ...good, is_enforced: "true" }]
        .map((row) => ({ type: "local_user", settings: [good, row] })),
    ]) {
      assertRefused(await ada.post("/api/enforce/set", body), 400, "bad_request", JSON.stringify(body));
    }
    assert.deepEqual(readFileSync(kPicks), before);
    assertRefused(await ada.post("/api/enforce/set", { type: "local_user",
      settings: Array.from({ length: 3000 }, (_, i) => ({ id: String(i), is_enforced: true })) }), 413, "too_large");
    assert.deepEqual(readFileSync(kPicks), before);
  });

  test("of an account that was removed since the list was shown harm nobody", async () => {
    local.add("erin", "x y z");
    const { rows: [row] } = await list({ type: "local_user", query: "erin" });
    local.remove("erin");
    assert.equal((await set("local_user", { [row.id]: true })).status, 200);
    await choose("custom");
    assert.deepEqual([await option(), (await list({ type: "local_user", filter: "enforced" })).total],
      [{ success: true, option: "custom", not_enrolled: 0 }, 0]);
    local.add("erin", "x y z");
    assert.equal((await list({ type: "local_user", filter: "enforced" })).total, 0, "another number");
    local.remove("erin");
    await choose("none");
  });

  test("of two administrators who save at once are all kept", async () => {
    const saves = Array.from({ length: 40 }, (_, i) => set("local_user", { [5000 + i]: true }, i % 2 ? ada : ben));
    assert.deepEqual((await Promise.all(saves)).map(({ status }) => status), Array(40).fill(200));
    assert.deepEqual(picks().local_user, Array.from({ length: 40 }, (_, i) => String(5000 + i)));
    const changes = Array.from({ length: 40 }, (_, i) => set("local_user", i % 2 ? { [5000 + i]: false } : { [6000 + i]: true },
      i % 4 < 2 ? ada : ben));
    await Promise.all([...changes, choose("admin", ada), choose("admin", ben)]);
    assert.deepEqual(picks().local_user, Array.from({ length: 20 }, (_, i) => [5000 + 2 * i, 6000 + 2 * i]).flat()
      .map(String).sort());
    await choose("none");
  });
});

describe("a file of picks", () => {
  test("that is broken is put back before it is read", async () => {
    await set("local_user", { [uidOf("bob")]: true });
    for (const broken of ["", "{", '{"local_user":["10', "[]", "null", "no JSON", '{"local_user":5}']) {
      writeFileSync(kPicks, broken);
      assert.deepEqual(names(await list({ type: "local_user", filter: "enforced" })), ["bob"], broken);
      assert.equal((await set("local_user", { 4000: true })).status, 200);
      assert.deepEqual(picks(), { local_user: [String(uidOf("bob")), "4000"] }, broken);
      await set("local_user", { 4000: false });
    }
  });

  test("that cannot be put back leaves the policy unknown", async () => {
    await choose("custom");
    const copy = "/var/lib/tavr/policy.copy";
    renameSync(copy, `${copy}.away`);
    writeFileSync(kPicks, "{");
    assertRefused(await ada.get("/api/enforce/list?type=local_user"), 503, "policy_unavailable");
    assertRefused(await ada.get("/api/enforce/option"), 503, "policy_unavailable");
    assertRefused(await set("local_user", { 1026: true }), 503, "policy_unavailable");
    // What does not look at the picks can be chosen, and is known.
    assert.equal((await choose("admin")).status, 200);
    assert.deepEqual(await option(), { success: true, option: "admin", not_enrolled: 1 });
    assertRefused(await choose("custom"), 503, "policy_unavailable");
    assert.equal((await option()).option, "admin");
    assert.equal(readFileSync(kPicks, "utf8"), "{");
    renameSync(`${copy}.away`, copy);
    assert.equal((await choose("custom")).status, 200);
    assert.equal((await option()).option, "custom");
    await choose("none");
  });

  test("on a full disk stays as it is", async () => {
    await set("local_user", { [uidOf("ada")]: true });
    const before = readFileSync(kPicks);
    const filler = `${kFolder}/filler`;
    try {
      assert.throws(() => writeFileSync(filler, Buffer.alloc(2 << 20)), { code: "ENOSPC" });
      assertRefused(await set("local_user", { 1027: true }), 500, "write_failed");
      assert.deepEqual(readFileSync(kPicks), before);
      assert.equal((await list({ type: "local_user", filter: "enforced" })).total, 1);
    } finally {
      rmSync(filler, { force: true });
    }
    assert.equal((await set("local_user", { 1027: true })).status, 200);
  });
});

describe("a reset", () => {
  const reset = (user, password = server.passwords.ada, client = ada) =>
    client.post("/api/admin/otp_reset", { user, password });

  test("removes an account's second step, and its sessions end", async () => {
    const alice = await enrol(server, "alice");
    const other = await signInWithCode(server, "alice", alice.key);
    const half = await signIn(server, "alice");
    assert.deepEqual((await reset("ALICE")).json, { success: true });
    for (const client of [alice.client, other]) {
      assertRefused(await client.get("/api/otp/status"), 401, "not_signed_in");
    }
    assertRefused(await half.post("/api/signin/code", { code: server.code(alice.key) }), 403, "no_pending_signin");
    const again = await signIn(server, "alice");
    assert.equal((await again.get("/api/otp/status")).json.enrolled, false);
    const row = audit().filter(({ event }) => event === "reset").at(-1);
    assert.deepEqual([row.account, row.detail, row.address], ["alice", `by-${uidOf("ada")}`, "127.0.0.1"]);
    assert.equal((await reset("alice")).status, 200, "again");
  });

  test("wants an account that there is, and the administrator's own password", async () => {
    assertRefused(await reset("nobody-of-this-name"), 404, "no_such_user");
    assertRefused(await reset("no/name"), 404, "no_such_user");
    const bob = await enrol(server, "bob");
    assertRefused(await reset("bob", "wrong"), 401, "bad_credentials");
    assertRefused(await reset("bob", server.passwords.bob), 401, "bad_credentials");
    assertRefused(await reset("bob", server.passwords.ada, cora), 401, "bad_credentials");
    assert.equal((await bob.client.get("/api/otp/status")).json.enrolled, true);
  });

  test("is throttled after wrong passwords, in this session alone", async () => {
    const other = await signIn(server, "cora");
    let answer;
    for (let i = 0; i < 11; i += 1) {
      answer = await reset("bob", "wrong", cora);
    }
    assertRefused(answer, 429, "too_many_attempts");
    assert.ok(Number(answer.headers["retry-after"]) > 0);
    assertRefused(await reset("bob", server.passwords.cora, cora), 429, "too_many_attempts");
    assert.equal((await reset("bob", server.passwords.cora, other)).status, 200);
  });
});

test("nothing of this is for others", async () => {
  const dora = await signIn(server, "dora");
  const calls = [["GET", "/api/enforce/option"], ["POST", "/api/enforce/option"], ["GET", "/api/enforce/list?type=local_user"],
    ["POST", "/api/enforce/set"], ["POST", "/api/admin/otp_reset"]];
  for (const [method, path] of calls) {
    const body = method === "POST" ? { body: {} } : {};
    assertRefused(await dora.send(method, path, body), 403, "not_admin", path);
    assertRefused(await send(server.url, method, path, body), 401, "not_signed_in", path);
  }
  local.leave(local.administrators, "cora");
  assertRefused(await cora.get("/api/enforce/option"), 401, "not_signed_in");
});
