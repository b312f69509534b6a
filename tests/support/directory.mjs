// An LDAP directory of a test's own (directory.py), and how the server under test is told of it.
import { spawn } from "node:child_process";
import { once } from "node:events";
import { appendFileSync, chmodSync, chownSync, mkdtempSync } from "node:fs";
import { dirname, join } from "node:path";
import { createInterface } from "node:readline";
import { fileURLToPath } from "node:url";

const kSupport = dirname(fileURLToPath(import.meta.url));
const kSettingsFile = "/etc/tavr/tavrinfo.conf";
const kSecretsFile = "/etc/tavr/secrets";
const kServiceGroup = 64217;

// What the settings say of them, beside how to get there.
const kLdap = { prefix: "ldap", realm: "office.example", base: "dc=office,dc=example",
  bind_dn: "cn=reader,dc=office,dc=example" };
export const kDomain = { prefix: "domain", name: "CORP", realm: "corp.test", bind_dn: "cn=reader,dc=test" };

// Options as directory.py has them.
export const startDirectory = (options = []) => start("directory.py", options, kLdap);

// A controller's directory, for lists; options as controller.py has them. One whose accounts sign in: domain.mjs.
export const startController = (options = []) => start("controller.py", options, kDomain);

async function start(program, options, settings) {
  const folder = mkdtempSync("/tmp/directory-");
  chmodSync(folder, 0o755);
  const child = spawn("/usr/bin/python3", [join(kSupport, program), folder, ...options],
    { stdio: ["ignore", "pipe", "inherit"] });
  const port = await new Promise((resolve, reject) => {
    child.stdout.once("data", (line) => resolve(Number(String(line).split(" ")[1])));
    child.once("exit", (status) => reject(new Error(`${program} ended: ${status}`)));
  });
  return new Directory(folder, child, port, settings);
}

// Makes it the directory of the server under test, which has been set up. In `folder` are its certificates.
export function setUpDirectory({ prefix, ...settings }, folder, uri) {
  const all = Object.entries({ ...settings, uri, ca_file: `${folder}/ca.pem` });
  appendFileSync(kSettingsFile, all.map(([key, value]) => `${prefix}_${key}="${value}"\n`).join(""));
  appendFileSync(kSecretsFile, `${prefix}_bind_password="reader-password"\n`);
  chownSync(kSecretsFile, 0, kServiceGroup);
  chmodSync(kSecretsFile, 0o440);
}

// Stands between a server and the directory, and misbehaves: ldap_proxy.py has the cases.
export async function startProxy(directory, cases) {
  const child = spawn("/usr/bin/python3", [join(kSupport, "ldap_proxy.py"), directory.folder, String(directory.port), ...cases],
    { stdio: ["ignore", "pipe", "inherit"] });
  const lines = createInterface({ input: child.stdout });
  const told = [];
  const proxy = { told, stop: () => child.kill("SIGKILL") };
  lines.on("line", (line) => told.push(line));
  const [first] = await once(lines, "line");
  proxy.ports = first.split(" ").slice(1).map(Number);
  return proxy;
}

class Directory {
  #child;
  #settings;

  constructor(folder, child, port, settings) {
    this.folder = folder;
    this.#child = child;
    this.#settings = settings;
    this.port = port;
  }

  // It takes connections and says nothing, until it goes on.
  pause() {
    this.#child.kill("SIGSTOP");
  }

  goOn() {
    this.#child.kill("SIGCONT");
  }

  async stop() {
    if (this.#child.exitCode === null && this.#child.signalCode === null) {
      const ended = new Promise((resolve) => this.#child.once("exit", resolve));
      this.#child.kill("SIGKILL");
      await ended;
    }
  }

  // Makes it the directory of the server under test, which has been set up, or what stands in front of it.
  setUp(uri = `ldap://127.0.0.1:${this.port}`) {
    setUpDirectory(this.#settings, this.folder, uri);
  }
}
