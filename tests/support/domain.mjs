// A domain of a test's own (domain.py), which the server under test has joined through SSSD.
import { spawn } from "node:child_process";
import { chmodSync, mkdtempSync, readFileSync } from "node:fs";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";

import { kDomain, setUpDirectory } from "./directory.mjs";

const kSupport = dirname(fileURLToPath(import.meta.url));

// Options as controller.py has them.
export async function startDomain(options = []) {
  const parent = mkdtempSync("/tmp/domain-");
  chmodSync(parent, 0o755);
  const folder = join(parent, "d");
  const child = spawn("/usr/bin/python3", [join(kSupport, "domain.py"), folder, ...options],
    { stdio: ["ignore", "pipe", "inherit"] });
  const numbers = await new Promise((resolve, reject) => {
    child.stdout.once("data", (line) => resolve(String(line).trim().split(" ").slice(1).map(Number)));
    child.once("exit", (status) => reject(new Error(`domain.py ended: ${status}`)));
  });
  return new Domain(folder, child, numbers);
}

class Domain {
  #child;
  #controller;
  #sssd;

  constructor(folder, child, [port, , controller, sssd]) {
    this.folder = folder;
    this.#child = child;
    this.port = port;
    this.#controller = controller;
    this.#sssd = sssd;
  }

  // SSSD takes connections and says nothing, until it goes on.
  pause() {
    this.#signal("SIGSTOP");
  }

  goOn() {
    this.#signal("SIGCONT");
  }

  // SSSD is gone.
  killClient() {
    this.#signal("SIGKILL");
  }

  // SSSD has nobody to ask any more.
  killController() {
    process.kill(this.#controller, "SIGKILL");
  }

  async stop() {
    if (this.#child.exitCode === null && this.#child.signalCode === null) {
      const ended = new Promise((resolve) => this.#child.once("exit", resolve));
      this.#child.kill("SIGKILL");
      await ended;
    }
  }

  // Makes it the domain of the server under test, which has been set up.
  setUp() {
    setUpDirectory(kDomain, this.folder, `ldap://127.0.0.1:${this.port}`);
  }

  // The one that would start others anew comes first.
  #signal(name) {
    const children = readFileSync(`/proc/${this.#sssd}/task/${this.#sssd}/children`, "utf8").trim().split(" ").filter(Boolean);
    for (const process_ of [this.#sssd, ...children.map(Number)]) {
      process.kill(process_, name);
    }
  }
}
