// Mail servers of a test's own (smtp_sink.py), what they took, and how the server under test is told of them.
import { spawn, spawnSync } from "node:child_process";
import { appendFileSync, existsSync, mkdtempSync, readFileSync, readdirSync, writeFileSync } from "node:fs";
import { dirname, join } from "node:path";
import { setTimeout as sleep } from "node:timers/promises";
import { fileURLToPath } from "node:url";
import { run } from "./server.mjs";

const kSupport = dirname(fileURLToPath(import.meta.url));
const kPython = "/usr/bin/python3";
const kCaFile = "/etc/tavr/mail-ca.pem";
const kWaitMs = 20_000;

// Options as smtp_sink.py has them.
export async function startMailServer(options = []) {
  const folder = mkdtempSync("/tmp/mail-");
  const child = spawn(kPython, [join(kSupport, "smtp_sink.py"), folder, ...options], { stdio: ["ignore", "pipe", "inherit"] });
  const port = await new Promise((resolve, reject) => {
    child.stdout.once("data", (line) => resolve(Number(String(line).split(" ")[1])));
    child.once("exit", (status) => reject(new Error(`smtp_sink.py ended: ${status}`)));
  });
  return new MailServer(folder, child, port);
}

class MailServer {
  #child;

  constructor(folder, child, port) {
    this.folder = folder;
    this.#child = child;
    this.port = port;
  }

  // What it took, oldest first: { envelope, subject, text, html, code }, the code of eight digits or undefined.
  mails() {
    const names = readdirSync(this.folder).filter((name) => name.endsWith(".eml")).sort();
    return names.map((name) => this.#read(join(this.folder, name)));
  }

  // The mails with a code, once there are `count`.
  async codes(count) {
    const end = Date.now() + kWaitMs;
    for (;;) {
      const mails = this.mails().filter((mail) => mail.code);
      if (mails.length >= count) {
        return mails;
      }
      if (Date.now() > end) {
        throw new Error(`${mails.length} of ${count} codes arrived`);
      }
      await sleep(20);
    }
  }

  // Waits until a client has said this.
  async heard(command) {
    const file = join(this.folder, "commands");
    const end = Date.now() + kWaitMs;
    while (!existsSync(file) || !readFileSync(file, "utf8").split("\n").includes(command)) {
      if (Date.now() > end) {
        throw new Error(`nobody said ${command}`);
      }
      await sleep(20);
    }
  }

  async stop() {
    if (this.#child.exitCode === null && this.#child.signalCode === null) {
      const ended = new Promise((resolve) => this.#child.once("exit", resolve));
      this.#child.kill("SIGKILL");
      await ended;
    }
  }

  #read(file) {
    const { status, stdout, stderr } = spawnSync(kPython, [join(kSupport, "read_mail.py"), file], { encoding: "utf8" });
    if (status !== 0) {
      throw new Error(stderr);
    }
    const mail = JSON.parse(stdout);
    return { envelope: JSON.parse(readFileSync(file.replace(/eml$/, "json"), "utf8")),
      subject: mail.headers.find(([name]) => name === "Subject")[1], text: mail.text, html: mail.html,
      code: /\b[0-9]{8}\b/.exec(mail.text)?.[0] };
  }
}

// Their certificates are good ones from here on, and personal mail accounts may stand on this machine, or on the one
// below `root`.
export function trust(servers, root = "") {
  writeFileSync(root + kCaFile, servers.map((server) => readFileSync(join(server.folder, "ca.pem"))).join(""));
  appendFileSync(`${root}/etc/tavr/tavrinfo.conf`, `mail_private_servers="yes"\nmail_ca_file="${kCaFile}"\n`);
}

// The user's default mail account, on a mail server that `login` is known to.
export function addMailAccount(user, server, login, password, options = []) {
  run("tavrctl", ["mail-account", "add", user, "own", "--host", "localhost", "--port", String(server.port), "--user", login,
    "--from", `${user}@office.example`, "--password-stdin", "--default", ...options], password);
}

// A server that takes the system's own mails, set up for that.
export async function startNotificationServer(root = "") {
  const mails = await startMailServer(["--user", "system", "--password", "secret"]);
  trust([mails], root);
  setNotificationServer(mails, "system", "secret");
  return mails;
}

// Where the system's own mails go.
export function setNotificationServer(server, login, password) {
  run("tavrctl", ["mail", "server", "--host", "localhost", "--port", String(server.port), "--user", login,
    "--from", "server@nas.example", "--password-stdin"], password);
}
