// A domain's people and groups in the administrator's lists: out of the copy that the console has made, through the workers.
import assert from "node:assert/strict";
import { appendFileSync, readFileSync } from "node:fs";
import test, { after } from "node:test";

import { startController } from "../support/directory.mjs";
import { run, startServer } from "../support/server.mjs";
import { signIn } from "./client.mjs";
import { enrol } from "./wizard.mjs";

const kPicks = "/usr/tavr/etc/tavr_otp_enforce_custom_setting";
const kTypes = ["domain_user", "domain_group"];

const server = await startServer({ accounts: { ada: ["--admin"], cora: ["--admin"] } });
after(() => server.stop());
const controller = await startController(["--users", "120", "--groups", "7"]);
after(() => controller.stop());
const { client: ada } = await enrol(server, "ada");
const cora = await signIn(server, "cora"); // not enrolled

const ask = (query) => ada.get(`/api/enforce/list?${new URLSearchParams(query)}`);
const list = async (query) => (await ask(query)).json;
const set = (type, changes, client = ada) => client.post("/api/enforce/set",
  { type, settings: Object.entries(changes).map(([id, is_enforced]) => ({ id, is_enforced })) });
const names = ({ rows }) => rows.map(({ name }) => name);
const user = (number) => `CORP\\user${String(number).padStart(6, "0")}`;
const users = (from, to) => Array.from({ length: to - from + 1 }, (_, i) => user(from + i));
const groups = Array.from({ length: 7 }, (_, i) => `CORP\\group000${i + 1}`);
const picks = () => JSON.parse(readFileSync(kPicks, "utf8"));

function assertRefused(answer, status, err, what) {
  assert.deepEqual([answer.status, answer.json], [status, { success: false, err }], what);
}

test("without a domain there is nothing to list, and without a copy it is said", async () => {
  for (const type of kTypes) {
    assertRefused(await ask({ type }), 409, "directory_not_configured", type);
    assert.throws(() => run("tavrctl", ["enforce", "list", type]), /no domain is set up; see the settings domain_\*/);
  }
  controller.setUp();
  for (const filter of ["all", "enforced", "unenforced"]) {
    for (let i = 0; i < 4; i += 1) { // whichever worker
      assertRefused(await ask({ type: "domain_group", filter }), 503, "domain_not_copied", filter);
    }
    // Who has signed in here would be known: nobody has.
    assert.deepEqual(await list({ type: "domain_user", filter }), { success: true, total: 0, rows: [] }, filter);
  }
  assert.throws(() => run("tavrctl", ["enforce", "list", "domain_group"]), /no copy .* make it with tavrctl domain sync/);
  assert.equal((await list({ type: "local_user" })).total, 2);
});

test("the copy is made, and every worker lists it", async () => {
  assert.equal(run("tavrctl", ["domain", "sync"]), "CORP: 121 accounts, 7 groups, 6 left out\n");
  for (let i = 0; i < 6; i += 1) {
    assert.equal((await list({ type: "domain_user" })).total, 121);
    assert.deepEqual(names(await list({ type: "domain_group" })), groups);
  }
});

test("pages are in the order of names, with the total of all", async () => {
  const everybody = ["CORP\\dan", ...users(1, 120)];
  for (const [offset, limit, expected] of [[0, 50, everybody.slice(0, 50)], [50, 50, everybody.slice(50, 100)],
    [100, 50, everybody.slice(100)], [120, 500, [user(120)]], [121, 50, []], [2147483647, 50, []], [0, 0, []],
    [0, -1, everybody], [119, -1, users(119, 120)]]) {
    const answer = await list({ type: "domain_user", offset, limit });
    assert.deepEqual([answer.total, names(answer)], [121, expected], `${offset} ${limit}`);
  }
  const answer = await list({ type: "domain_group", offset: 2, limit: 3 });
  assert.deepEqual([answer.total, names(answer)], [7, groups.slice(2, 5)]);
  const [row] = answer.rows;
  assert.match(row.id, /^[1-9][0-9]*$/);
  assert.deepEqual(row, { id: row.id, name: groups[2], desc: "Group 0003", is_enforced: false });
});

test("nobody's number is another's, and it is the same on every page", async () => {
  const everybody = (await list({ type: "domain_user", limit: -1 })).rows;
  assert.equal(new Set(everybody.map(({ id }) => id)).size, 121);
  const [row] = (await list({ type: "domain_user", offset: 60, limit: 1 })).rows;
  assert.deepEqual(row, everybody[60]);
});

test("a text is found in names and descriptions, and its characters stand for themselves", async () => {
  for (const [query, expected] of [["USER00001", users(10, 19)], ["user 000042", [user(42)]], ["the man", ["CORP\\dan"]],
    ["%", []], ["_", []], ["*", []], ["(", []], ["a' OR 1=1 --", []], ["pc1", []], ["twin", []], ["é", []]]) {
    const answer = await list({ type: "domain_user", query });
    assert.deepEqual([answer.total, names(answer)], [expected.length, expected], query);
  }
  const page = await list({ type: "domain_user", query: "user00001", offset: 8, limit: 1 });
  assert.deepEqual([page.total, names(page)], [10, [user(18)]]);
  for (const [query, expected] of [["GROUP0003", [groups[2]]], ["group 0004", [groups[3]]], ["mailing", []],
    ["administrators", []]]) {
    assert.deepEqual(names(await list({ type: "domain_group", query })), expected, query);
  }
});

test("a unit of the directory has its own people", async () => {
  const berlin = users(1, 120).filter((_, i) => i % 2 === 1);
  for (const [domain, expected] of [["Berlin", berlin], ["ou=Inner,ou=Sales", ["CORP\\dan"]], ["sales/inner", ["CORP\\dan"]],
    ["Nowhere", []], ["=,", []]]) {
    const answer = await list({ type: "domain_user", domain, limit: -1 });
    assert.deepEqual([answer.total, names(answer)], [expected.length, expected], domain);
  }
});

test("picks are saved, shown and filtered, people's and groups' apart", async () => {
  const { rows } = await list({ type: "domain_user", query: "user00001" });
  const [{ id: group }] = (await list({ type: "domain_group", query: "group0002" })).rows;
  assert.equal((await set("domain_user", { [rows[3].id]: true, [rows[5].id]: true, [rows[7].id]: true })).status, 200);
  assert.equal((await set("domain_user", { [rows[5].id]: false })).status, 200);
  assert.equal((await set("domain_group", { [group]: true })).status, 200);
  assert.deepEqual(picks(), { domain_group: [group], domain_user: [rows[3].id, rows[7].id].sort() });

  for (const [query, total, expected] of [
    [{ filter: "enforced" }, 2, [user(13), user(17)]],
    [{ filter: "enforced", offset: 1, limit: 1 }, 2, [user(17)]],
    [{ filter: "enforced", query: "000013" }, 1, [user(13)]],
    [{ filter: "enforced", domain: "Berlin" }, 0, []],
    [{ filter: "unenforced", offset: 12, limit: 4 }, 119, [user(12), user(14), user(15), user(16)]],
    [{ filter: "unenforced", query: "user00001" }, 8, [...users(10, 12), ...users(14, 16), ...users(18, 19)]],
  ]) {
    const answer = await list({ type: "domain_user", ...query });
    assert.deepEqual([answer.total, names(answer)], [total, expected], JSON.stringify(query));
  }
  const all = await list({ type: "domain_user", limit: -1 });
  assert.deepEqual(all.rows.filter((row) => row.is_enforced).map(({ name }) => name), [user(13), user(17)]);
  assert.deepEqual(names(await list({ type: "domain_group", filter: "enforced" })), [groups[1]]);
  assert.equal((await list({ type: "domain_group", filter: "unenforced" })).total, 6);
});

test("an administrator who is not enrolled picks nobody", async () => {
  const before = readFileSync(kPicks);
  const [{ id }] = (await list({ type: "domain_user", query: "dan" })).rows;
  for (const type of kTypes) {
    assertRefused(await set(type, { [id]: true }, cora), 409, "enrol_first", type);
  }
  assert.deepEqual(readFileSync(kPicks), before);
});

test("the list needs no controller, and a copy that cannot be made anew leaves it as it is", async () => {
  await controller.stop();
  assert.throws(() => run("tavrctl", ["domain", "sync"]), /the copy of it stays as it is/);
  assert.equal((await list({ type: "domain_user" })).total, 121);
  assert.deepEqual(names(await list({ type: "domain_user", filter: "enforced" })), [user(13), user(17)]);
});

test("a trusted domain of which there is no copy yet does not hide the own one", async () => {
  appendFileSync("/etc/tavr/tavrinfo.conf", 'domain_trusted="OTHER=other.test"\n');
  for (const domain of ["", "CORP", "corp.test"]) {
    assert.equal((await list({ type: "domain_user", domain })).total, 121, domain);
  }
  assertRefused(await ask({ type: "domain_group", domain: "OTHER" }), 503, "domain_not_copied");
});
