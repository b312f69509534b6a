// The whole server for a test: system log, accounts, tavr-webapid, tavr-otp-web, lighttpd. Runs in a private view, where
// the fixed paths are real and fresh; everything ends with stop(), and with the view at the latest.
import { spawn } from "node:child_process";
import { closeSync, constants, existsSync, mkdirSync, openSync, readFileSync, rmSync, writeSync } from "node:fs";
import { createServer } from "node:net";
import { setTimeout as sleep } from "node:timers/promises";

import { local } from "./accounts.mjs";
import { run } from "./run.mjs";

export { run };

const kClockFile = "/run/tavr-test-clock";
const kLogFile = "/var/log/messages";
const kServiceSocket = "/run/tavrscgi-fastapi.sock";
const kStartMs = 60_000;

// `accounts`: { name: [options of `tavrctl user add`] }, each with a password of its own, made by accounts.mjs.
export async function startServer({ accounts = { alice: [] }, workers = 2 } = {}) {
  const server = new Server();
  try {
    await server.start(accounts, workers);
  } catch (error) {
    await server.stop();
    throw error;
  }
  return server;
}

// How often a test does what is worth more rounds than every run can wait for: `all` when the environment has
// TAVR_ALL_ROUNDS.
export function rounds(usual, all) {
  return process.env.TAVR_ALL_ROUNDS === undefined ? usual : all;
}

// The code that an app with this key shows at this time.
export function codeAt(key, seconds) {
  return run("oathtool", ["--totp", "--base32", `--now=@${seconds}`, "-"], `${key}\n`).trim();
}

class Server {
  passwords = {};
  wall = Math.floor(Date.now() / 1000);   // what the server's clock shows
  #ahead = 0;                             // of the time since the machine's start
  #processes = [];
  #workers = 0;

  async start(accounts, workers) {
    this.setWall(this.wall);
    this.#spawn("busybox", ["syslogd", "-n", "-O", kLogFile]);
    await this.#until(() => existsSync("/dev/log"), "the system log");
    mkdirSync("/run/tavr", { recursive: true });
    run("tavrctl", ["setup"]);
    local.use();
    for (const [name, options] of Object.entries(accounts)) {
      this.passwords[name] = `${name}'s pässword 1`;
      local.add(name, this.passwords[name], options);
    }
    const port = await freePort();
    this.url = `http://127.0.0.1:${port}`;
    this.#workers = workers;
    rmSync(kServiceSocket, { force: true });
    this.service = this.#spawn("tavr-webapid", []);
    await this.#until(() => existsSync(kServiceSocket), "tavr-webapid");
    this.web = this.#spawn("tavr-otp-web", ["--workers", String(workers)]);
    this.lighttpd = this.#spawn("lighttpd", ["-D", "-f", "/usr/share/tavr-otp/lighttpd.conf"],
      { ...process.env, TAVR_PORT: String(port) });
    await this.#untilServed();
  }

  async stopWeb() {
    this.#processes = this.#processes.filter((child) => child !== this.web);
    await end(this.web);
  }

  // Ends the web program and starts it anew, beside the same web server.
  async restartWeb(workers = this.#workers) {
    this.#workers = workers;
    await this.stopWeb();
    this.web = this.#spawn("tavr-otp-web", ["--workers", String(this.#workers)]);
    await this.#untilServed();
  }

  // Ends what was started last first, and waits for it.
  async stop() {
    for (const child of this.#processes.reverse()) {
      await end(child);
    }
    this.#processes = [];
    rmSync(kClockFile, { force: true });
  }

  // Sets the server's wall clock. It stands until it is set or moved again: no code ends while a test uses it.
  setWall(wall) {
    this.wall = wall;
    const file = openSync(kClockFile, constants.O_WRONLY | constants.O_CREAT, 0o644);
    writeSync(file, `=${wall} ${this.#ahead}`.padEnd(100));   // one write of one size: nobody reads a part of it
    closeSync(file);
  }

  // Moves both clocks `seconds` ahead. Nothing has to wait for the next code.
  advance(seconds) {
    this.#ahead += seconds;
    this.setWall(this.wall + seconds);
  }

  // The code that an app with this key shows `ahead` seconds after what the server's clock shows.
  code(key, ahead = 0) {
    return codeAt(key, this.wall + ahead);
  }

  // One that is wrong now, before and after.
  wrongCode(key) {
    const near = run("oathtool", ["--totp", "--base32", `--now=@${this.wall - 90}`, "--window=6", "-"], `${key}\n`);
    return ["000000", "111111", "222222", "333333", "444444", "555555", "666666", "777777"].find((c) => !near.includes(c));
  }

  // Process numbers of the web program's workers.
  workers(parent = this.web.pid) {
    return readFileSync(`/proc/${parent}/task/${parent}/children`, "utf8").trim().split(" ").filter(Boolean).map(Number);
  }

  log() {
    return readFileSync(kLogFile, "utf8");
  }

  #spawn(command, args, env = process.env) {
    const child = spawn(command, args, { env, stdio: ["ignore", "inherit", "inherit"] });
    child.on("error", (error) => { child.failed = error; });
    this.#processes.push(child);
    return child;
  }

  #untilServed() {
    return this.#until(async () => {
      const headers = { Cookie: `sid=${"0".repeat(32)}` };   // nobody's, and looked up
      const answer = await fetch(`${this.url}/api/session`, { headers }).catch(() => null);
      await answer?.body?.cancel();
      return answer?.status === 401;
    }, "the web program");
  }

  async #until(ready, what) {
    const end = Date.now() + kStartMs;
    while (!await ready()) {
      const dead = this.#processes.find((child) => child.failed || child.exitCode !== null);
      if (dead || Date.now() > end) {
        throw new Error(`${what} did not start${dead ? `: ${dead.spawnfile} ended, ${dead.failed ?? dead.exitCode}` : ""}`);
      }
      await sleep(20);
    }
  }
}

async function end(child) {
  if (child.exitCode === null && child.signalCode === null) {
    const ended = new Promise((resolve) => child.once("exit", resolve));
    child.kill("SIGTERM");
    await ended;
  }
}

export function freePort() {
  return new Promise((resolve, reject) => {
    const probe = createServer();
    probe.once("error", reject);
    probe.listen(0, "127.0.0.1", () => {
      const { port } = probe.address();
      probe.close(() => resolve(port));
    });
  });
}
