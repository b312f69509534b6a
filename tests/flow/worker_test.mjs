// The program itself: whom its workers run as, what happens when one dies, what is left of 10,000 requests.
import assert from "node:assert/strict";
import { after, before, describe, test } from "node:test";
import { spawn, spawnSync } from "node:child_process";
import { existsSync, lstatSync, readFileSync, readdirSync, readlinkSync } from "node:fs";
import { setTimeout as sleep } from "node:timers/promises";
import { startServer } from "../support/server.mjs";
import { beginFastCgi, fastCgi, send, signIn } from "./client.mjs";

const kMostResident = 24 * 1024;   // KiB
let server;
before(async () => {
  server = await startServer({ accounts: { alice: [], bob: [] }, workers: 2 });
});
after(() => server?.stop());

function status(pid) {
  return Object.fromEntries(readFileSync(`/proc/${pid}/status`, "utf8").split("\n")
    .map((line) => line.split(":\t")).map(([name, value]) => [name, value?.trim()]));
}

const workers = (parent) => server.workers(parent);

// Ended, whether or not the view's first process has taken note of it.
function hasEnded(pid) {
  return !existsSync(`/proc/${pid}`) || status(pid).State.startsWith("Z");
}

async function until(what, ready, seconds = 5) {
  const end = Date.now() + seconds * 1000;
  while (!await ready()) {
    assert.ok(Date.now() < end, what);
    await sleep(10);
  }
}

describe("a worker", () => {
  test("runs as the service with root as its saved ids, and with no other groups", () => {
    assert.equal(workers().length, 2);
    for (const pid of workers()) {
      const { Uid, Gid, Groups } = status(pid);
      assert.deepEqual([Uid, Gid, Groups], ["64217\t64217\t0\t64217", "64217\t64217\t0\t64217", ""]);
    }
  });

  test("leaves no core and cannot be looked into", () => {
    for (const pid of workers()) {
      assert.match(readFileSync(`/proc/${pid}/limits`, "utf8"), /^Max core file size\s+0\s+0\s/m);
      const seen = spawnSync("setpriv", ["--reuid=64217", "--regid=64217", "--clear-groups", "cat", `/proc/${pid}/environ`]);
      assert.notEqual(seen.status, 0);
    }
  });

  test("has its own descriptors from 3 on, all closed on exec but for the request's", () => {
    for (const pid of workers()) {
      for (const fd of readdirSync(`/proc/${pid}/fd`)) {
        const flags = parseInt(/flags:\t(\d+)/.exec(readFileSync(`/proc/${pid}/fdinfo/${fd}`, "utf8"))[1], 8);
        assert.ok(fd <= 2 || (flags & 0o2000000) !== 0, `${fd} ${readlinkSync(`/proc/${pid}/fd/${fd}`)}`);
      }
    }
  });

  test("serves 10,000 requests in 24 MiB and with the descriptors that it had", async () => {
    const alice = await signIn(server, "alice");
    const kinds = [
      () => alice.get("/api/session"), () => alice.get("/api/otp/status"), () => alice.get("/api/none"),
      () => send(server.url, "POST", "/api/signin", { body: "{", headers: { "Content-Type": "application/json" } }),
      () => send(server.url, "POST", "/api/otp/qr", { body: {} }),
    ];
    const some = async (count) => {
      for (let i = 0; i < count; i += 20) {
        await Promise.all(Array.from({ length: 20 }, (_, j) => kinds[(i + j) % kinds.length]()));
      }
    };
    // The fewest of a while: a worker closes its connection a moment after the answer has come.
    const descriptors = async () => {
      let fewest = [];
      for (let i = 0; i < 20; i += 1) {
        const now = workers().map((pid) => readdirSync(`/proc/${pid}/fd`).length);
        fewest = now.map((count, worker) => Math.min(count, fewest[worker] ?? count));
        await sleep(10);
      }
      return fewest;
    };
    await alice.post("/api/otp/qr", { password: server.passwords.alice, account_name: "x" });
    await some(200);
    const pids = workers();
    const before = await descriptors();
    await some(10_000);
    assert.deepEqual(workers(), pids);
    assert.deepEqual(await descriptors(), before);
    for (const pid of pids) {
      const resident = parseInt(status(pid).VmRSS, 10);
      console.log(`worker ${pid}: ${resident} KiB resident`);
      // A sanitizer's own memory is not ours.
      assert.ok(resident < kMostResident || readFileSync(`/proc/${pid}/maps`, "utf8").includes("libasan"), `${resident}`);
    }
  });

  test("that is killed is replaced, and its sessions live on", async () => {
    const alice = await signIn(server, "alice");
    const [first, second] = workers();
    process.kill(first, "SIGKILL");
    await until("a new worker", () => workers().length === 2 && !workers().includes(first));
    assert.ok(workers().includes(second));
    for (let i = 0; i < 20; ++i) {
      assert.equal((await alice.get("/api/session")).status, 200);
    }
    assert.match(server.log(), new RegExp(`worker ${first} ended \\(signal 9\\)`));
  });

  test("that dies does not forget the wizard of another session", async () => {
    const bob = await signIn(server, "bob");
    const { key } = (await bob.post("/api/otp/qr", { password: server.passwords.bob, account_name: "x" })).json;
    const former = workers();
    former.forEach((pid) => process.kill(pid, "SIGKILL"));
    await until("new workers", () => workers().length === 2 && !workers().some((pid) => former.includes(pid)));
    const answer = await bob.post("/api/otp/confirm", { password: server.passwords.bob, code: server.code(key) });
    assert.equal(answer.json.auth_ok, true, answer.text);
  });

  test("that dies again and again is put off, and comes back", async () => {
    const deadline = Date.now() + 1500;
    const killed = new Set();
    while (Date.now() < deadline) {
      for (const pid of workers().filter((each) => !killed.has(each))) {   // one that was killed may not be gone yet
        process.kill(pid, "SIGKILL");
        killed.add(pid);
      }
      await sleep(5);
    }
    assert.ok(killed.size > 2 && killed.size < 40, `${killed.size} starts in 1.5 s`);
    await until("both again", () => workers().length === 2, 12);
    await until("an answer", async () => (await send(server.url, "GET", "/api/session")).status === 401);
  });
});

describe("the program", () => {
  const started = [];
  after(() => started.forEach((child) => child.kill("SIGKILL")));

  // Beside the server, on a socket of its own.
  async function start(count = 2) {
    const path = `/run/tavr/other-${Math.floor(Math.random() * 1e9)}.sock`;
    const child = spawn("tavr-otp-web", ["--socket", path, "--workers", String(count)],
      { stdio: ["ignore", "inherit", "inherit"] });
    started.push(child);
    const ended = new Promise((resolve) => child.once("exit", (code, signal) => resolve({ code, signal })));
    await until("the socket", () => existsSync(path) && workers(child.pid).length === count);
    return { path, child, ended };
  }
  const kSession = { REQUEST_URI: "/api/session" };

  test("makes its socket for the web server alone", async () => {
    const { mode, uid, gid } = lstatSync("/run/tavr/otp-web.sock");
    assert.deepEqual([mode & 0o777, uid, gid], [0o660, 0, 33]);
  });

  test("ends with SIGTERM within 2 s, and takes its workers and its socket along", async () => {
    const { path, child, ended } = await start(3);
    const pids = workers(child.pid);
    assert.equal(pids.length, 3);
    const begun = Date.now();
    child.kill("SIGTERM");
    assert.deepEqual(await ended, { code: 0, signal: null });
    assert.ok(Date.now() - begun < 1000);
    assert.ok(!existsSync(path));
    assert.ok(pids.every(hasEnded));
  });

  test("lets the running request finish", async () => {
    const { path, child, ended } = await start(1);
    await until("the worker", async () => (await fastCgi(path, kSession))?.status === 401);
    const body = JSON.stringify({ user: "alice", password: server.passwords.alice });
    const running = await beginFastCgi(path,
      { REQUEST_METHOD: "POST", REQUEST_URI: "/api/signin", CONTENT_TYPE: "application/json" }, body);
    await sleep(200);
    child.kill("SIGTERM");
    await sleep(300);
    assert.equal((await running.finish())?.status, 200);
    assert.deepEqual(await ended, { code: 0, signal: null });
  });

  test("does not wait longer than 2 s for one that does not end", async () => {
    const { path, child, ended } = await start(1);
    await until("the worker", async () => (await fastCgi(path, kSession))?.status === 401);
    await beginFastCgi(path, { REQUEST_METHOD: "POST", REQUEST_URI: "/api/signin", CONTENT_TYPE: "application/json" }, "{}");
    await sleep(200);
    const begun = Date.now();
    child.kill("SIGTERM");
    await ended;
    assert.ok(Date.now() - begun < 2100, `${Date.now() - begun} ms`);
  });

  // Asks over and over, four at a time, until `done`; gives how often, and fails when one request is not answered.
  async function askUntil(path, done) {
    let answers = 0, ended = false;
    const asking = Array.from({ length: 4 }, async () => {
      while (!ended) {
        assert.equal((await fastCgi(path, kSession))?.status, 401, `request ${answers + 1}`);
        answers++;
      }
    });
    await Promise.race([done(() => answers), Promise.all(asking)]).finally(() => { ended = true; });
    await Promise.all(asking);
    return answers;
  }

  test("replaces its workers at SIGHUP and drops no request", async () => {
    const { path, child } = await start(2);
    await askUntil(path, async (answers) => {
      for (let round = 0; round < 3; round++) {
        const former = workers(child.pid), before = answers();
        await until("answers in between", () => answers() > before + 8);
        child.kill("SIGHUP");
        await until("other workers", () => {
          const now = workers(child.pid);
          return now.length === 2 && !now.some((pid) => former.includes(pid));
        }, 12);
      }
    });
  });

  test("takes a socket that is handed over, leaves it there, and is restarted without a request dropped", async () => {
    const path = "/run/tavr/handed-over.sock";
    const holder = spawn("python3", [`${process.env.TEST_SOURCE}/tests/support/hand_over.py`, path, "tavr-otp-web"],
      { stdio: ["ignore", "inherit", "inherit"] });
    started.push(holder);
    const program = () => workers(holder.pid)[0];
    await until("the program", async () => existsSync(path) && (await fastCgi(path, kSession).catch(() => null))?.status === 401);
    await askUntil(path, async (answers) => {
      for (let round = 0; round < 3; round++) {
        await until("a program", () => program() !== undefined);   // the system's list of children may miss one for a moment
        const former = program(), before = answers();
        await until("answers in between", () => answers() > before + 8);
        process.kill(former, "SIGTERM");
        await until("another program", () => program() !== undefined && program() !== former, 12);
        assert.ok(existsSync(path));
      }
    });
    holder.kill("SIGTERM");
    await new Promise((resolve) => holder.once("exit", resolve));
  });

  test("takes nothing else that is handed over", () => {
    const call = (count, input) => spawnSync("sh", ["-c", `exec 3<${input}; LISTEN_FDS=${count} LISTEN_PID=$$ exec tavr-otp-web`],
      { encoding: "utf8" });
    assert.deepEqual([call(1, "/dev/null").status, call(1, "/dev/null").stderr],
      [1, "tavr-otp-web: what was handed over is no listening Unix stream socket\n"]);
    assert.deepEqual([call(2, "/dev/null").status, call(2, "/dev/null").stderr], [1, "tavr-otp-web: takes exactly one socket\n"]);
  });

  test("that is killed leaves no worker behind", async () => {
    const { path, child, ended } = await start();
    await until("the workers", async () => (await fastCgi(path, kSession))?.status === 401);
    await fastCgi(path, { REQUEST_METHOD: "POST", REQUEST_URI: "/api/signin", CONTENT_TYPE: "application/json" },
      JSON.stringify({ user: "alice", password: "wrong" }));   // raises and lowers ids
    const pids = workers(child.pid);
    child.kill("SIGKILL");
    await ended;
    await until("the workers' end", () => pids.every(hasEnded));
    // The socket that it left is no hindrance.
    const next = spawn("tavr-otp-web", ["--socket", path], { stdio: ["ignore", "inherit", "inherit"] });
    started.push(next);
    await until("an answer", async () => (await fastCgi(path, kSession).catch(() => null))?.status === 401);
    next.kill("SIGTERM");
  });

  test("refuses wrong options, a socket in use and whoever is not root", () => {
    const call = (...args) => spawnSync("tavr-otp-web", args, { encoding: "utf8" });
    for (const args of [["--workers", "0"], ["--workers", "65"], ["--workers", "2x"], ["--workers", ""], ["--wrong"], ["x"],
      ["--memory", "0"], ["--memory", "1025"], ["--memory", "1M"],
      ["--socket", ""], ["--socket", `/${"x".repeat(108)}`]]) {
      assert.equal(call(...args).status, 2, args.join(" "));
    }
    const used = call();
    assert.equal(used.status, 1);
    assert.match(used.stderr, /another one listens on \/run\/tavr\/otp-web.sock/);
    const other = spawnSync("setpriv", ["--reuid=64217", "--regid=64217", "--clear-groups", "tavr-otp-web"], { encoding: "utf8" });
    assert.deepEqual([other.status, other.stderr], [1, "tavr-otp-web: has to be started as root\n"]);
    assert.equal(call("--help").status, 0);
    assert.match(call("--version").stdout, /^tavr-otp-web \d/);
  });
});
