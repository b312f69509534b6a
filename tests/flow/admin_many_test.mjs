// The administrator's page with more accounts than anybody reads: 20,000 of them, with TAVR_ALL_ROUNDS a million, or as many
// as the system takes. How long a step took is printed, and what the benchmarks hold to.
import assert from "node:assert/strict";
import { after, test } from "node:test";
import { spawn } from "node:child_process";
import { existsSync } from "node:fs";
import { setTimeout as sleep } from "node:timers/promises";

import { local, onSystem } from "../support/accounts.mjs";
import { rounds } from "../support/server.mjs";
import { fastCgi } from "./client.mjs";
import { openStage } from "./stage.mjs";
import { message, range as rangeOn, signInWithCode } from "./steps.mjs";
import { enrol } from "./wizard.mjs";

const kMany = rounds(20_000, onSystem ? 50_000 : 1_000_000);   // there are 59,001 uids of people
const kOthers = 2;   // ada and alice
const { server, visit } = await openStage({ ada: ["--admin"], alice: [] });
const ada = await enrol(server, "ada");

local.addManyUsers(Array.from({ length: kMany }, (_, i) =>
  ({ name: `user${String(i * 7919 % 10_000_000).padStart(7, "0")}`, desc: `Person number ${i}` })));

const number = (n) => new Intl.NumberFormat("en").format(n);

async function timed(what, work) {
  const begun = performance.now();
  await work();
  console.log(`${what}: ${Math.round(performance.now() - begun)} ms`);
}

test(`${number(kMany)} accounts are searched, paged, filtered and switched`, async (t) => {
  const page = await visit(t);
  const range = (text) => rangeOn(page, text);
  await signInWithCode(page, ada);

  const all = number(kMany + kOthers);
  await timed("the page", async () => {
    await page.click("#to-admin");
    await range(`1 to 50 of ${all}`);
  });
  await timed("the next page", async () => {
    await page.click("#next");
    await range(`51 to 100 of ${all}`);
  });
  assert.equal(await page.isVisible("#select-all"), false);
  await timed("one of them", async () => {
    await page.fill("#query", "USER0000042");
    await page.locator("#empty:visible, #rows .name").first().waitFor();
    await page.waitForFunction(() => !document.getElementById("table").hasAttribute("aria-busy"));
  });
  await timed("a text that all of them hold", async () => {
    await page.fill("#query", "number");
    await range(`1 to 50 of ${number(kMany)}`);
  });
  await timed("a page of those that are not picked", async () => {
    await page.fill("#query", "");
    await page.selectOption("#filter", "unenforced");
    await range(`1 to 50 of ${all}`);
  });
  await timed("fifty picked", async () => {
    await page.check("#select-page");
    await page.click("#demand");
    await page.locator("#list-message", { hasText: "50 are switched on." }).waitFor();
  });
  await timed("those that are picked", async () => {
    await page.selectOption("#filter", "enforced");
    await range("1 to 50 of 50");
  });
  await timed("everybody has to use it", async () => {
    await page.check("[value=user]");
    await page.click("#save-option");
    await message(page);
    await page.locator("#not-enrolled", { hasText: `${number(kMany + 1)} accounts of this server have to use it` }).waitFor();
  });
  await timed("the picked ones", async () => {
    await page.check("[value=custom]");
    await page.click("#save-option");
    await page.locator("#not-enrolled", { hasText: "49 accounts of this server have to use it" }).waitFor();
  });
});

const kNotThere = onSystem && "a worker keeps what it has read of the system's accounts, which is more than a large answer leaves";
test("a worker that holds more memory than it may is replaced, with its answer out", { skip: kNotThere }, async () => {
  const path = "/run/tavr/small.sock";
  const small = spawn("tavr-otp-web", ["--socket", path, "--workers", "1", "--memory", "1"], { stdio: "inherit" });
  after(() => small.kill("SIGTERM"));
  const until = async (ready) => {
    for (const end = Date.now() + 10_000; !await ready(); await sleep(10)) {
      assert.ok(Date.now() < end);
    }
  };
  await until(() => existsSync(path) && server.workers(small.pid).length === 1);
  const [first] = server.workers(small.pid);
  assert.equal((await fastCgi(path, { REQUEST_URI: "/api/session" })).status, 401);
  assert.deepEqual(server.workers(small.pid), [first], "a small answer");
  const answer = await fastCgi(path, { REQUEST_URI: "/api/enforce/list?type=local_user&filter=unenforced",
    HTTP_COOKIE: ada.client.cookieHeader });
  assert.deepEqual([answer.status, answer.json.rows.length], [200, 50]);
  await until(() => server.workers(small.pid).some((pid) => pid !== first));
  assert.match(server.log(), /a worker holds \d+ KiB after a request, and is replaced/);
  assert.match(server.log(), new RegExp(`worker ${first} ended \\(status 0\\)`));
  assert.equal((await fastCgi(path, { REQUEST_URI: "/api/session" })).status, 401);
});
