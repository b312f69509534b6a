// The reference's own examples, run as they stand: what the document shows is what comes out.
import assert from "node:assert/strict";
import { after, before, test } from "node:test";
import { spawnSync } from "node:child_process";
import { readFileSync } from "node:fs";
import { join } from "node:path";
import { startServer } from "../support/server.mjs";

// Waiting for the next code moves the server's clock, and that is the one that the examples look at.
const kClock = `sleep() { now=$((now + 30)); echo "=$now 0" >/run/tavr-test-clock; }
date() { echo "$now"; }
`;
let server;
before(async () => {
  server = await startServer({ accounts: { alice: [], admin: ["--admin"] } });
});
after(() => server?.stop());

test("the examples of doc/http-api.md print what they say", () => {
  const text = readFileSync(join(process.env.TEST_SOURCE, "doc/http-api.md"), "utf8");
  const blocks = [...text.matchAll(/^```(sh|output)\n(.*?)^```$/gms)].map(([, kind, content]) => ({ kind, content }));
  const script = blocks.filter((block) => block.kind === "sh").map((block) => block.content).join("");
  const expected = blocks.filter((block) => block.kind === "output").map((block) => block.content).join("");
  assert.ok(expected.split("\n").length > 15);

  const result = spawnSync("bash", ["-eu", "-o", "pipefail", "-s"], { input: kClock + script, encoding: "utf8",
    env: { ...process.env, now: String(server.wall), base: server.url, user: "alice", password: server.passwords.alice,
      admin: "admin", admin_password: server.passwords.admin } });
  assert.deepEqual([result.stderr, result.status], ["", 0]);
  assert.equal(result.stdout, expected);
});
