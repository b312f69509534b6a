// The manuals' own commands, run as they stand by root, one document after the other: what stands below a command is what
// comes out (manuals.mjs). Behind a block's ```console, `after:STEP` has this test do something first that the manual tells
// in words, or that somebody else does (kSteps), and `skip:REASON` says why the block is not run here (kReasons).
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { appendFileSync, chmodSync, readFileSync, renameSync, rmSync, writeFileSync } from "node:fs";
import { join } from "node:path";
import test from "node:test";
import { setTimeout as sleep } from "node:timers/promises";

import { startDirectory } from "../support/directory.mjs";
import { startDomain } from "../support/domain.mjs";
import { startMailServer } from "../support/mail.mjs";
import { run, startServer } from "../support/server.mjs";
import { Client, signIn } from "./client.mjs";
import { readDocuments, withoutChanges } from "./manuals.mjs";
import { enrol } from "./wizard.mjs";

const kPassword = "a pässword that is typed";
const kHome = "/root";
const kPatienceMs = 30_000;
// Documents with commands of another form, and their tests.
const kElsewhere = { "http-api.md": "http_examples_test.mjs", "platform.md": "guide_test.py" };
const kOtherBlocks = ["nginx", "lighttpd"];   // behind_test.mjs has them

const kReasons = {
  checkout: "makes the packages: scripts/test-package runs it first",
  package: "needs the installed packages: installed_manuals.mjs runs it there",
};

// --- What is done between the commands ---

const kAccounts = {
  "day-to-day.md": { admin: ["--admin"], alice: ["--mail", "alice@home.example"], bob: [] },
  "lost-administrator.md": { admin: ["--admin"], bob: [] },
  "install.md": {},
  "ldap.md": {},
  "domain.md": {},
};
const kUsual = { admin: ["--admin"], alice: ["--mail", "alice@home.example"] };

const kSettings = "/etc/tavr/tavrinfo.conf";
const kSecrets = "/etc/tavr/secrets";
const kKey = "/etc/tavr/otp.key";
const kQrTool = "/usr/bin/qrencode";
const kAuthorities = "/etc/ssl/certs/ca-certificates.crt";
const kAlmostClosed = `import sqlite3
signin = sqlite3.connect("/var/lib/tavr/signin.db")
with signin:
    assert signin.execute("UPDATE account_mark SET failures = 49 WHERE failures = 1").rowcount == 1`;
const kPicks = "/usr/tavr/etc/tavr_otp_enforce_custom_setting";

const kSteps = {
  "alice-is-enrolled": (stage) => enrolled(stage, "alice"),
  "admin-is-enrolled": (stage) => enrolled(stage, "admin"),
  "alice-is-closed": (stage) => closed(stage, "alice"),
  "admin-is-closed": (stage) => closed(stage, "admin"),
  "alice-uses-the-code": async ({ server, said }) => {
    const half = await signIn(server, "alice");
    const answer = await half.post("/api/signin/code", { code: said.trim() });
    assert.equal(answer.json.state, "signed_in", answer.text);
  },
  "wrong-password": async ({ server }) => {
    const answer = await new Client(server.url).post("/api/signin", { user: "alice", password: "wrong" });
    assert.equal(answer.json.err, "bad_credentials", answer.text);
  },
  "alice-is-disabled": () => run("tavrctl", ["user", "disable", "alice"]),
  "session-is-ended": () => run("tavrctl", ["session", "end", "alice"]),

  "key-is-gone": () => rmSync(kKey),
  "key-has-wrong-mode": () => chmodSync(kKey, 0o777),
  "settings-are-gone": () => renameSync(kSettings, "/root/settings"),
  "settings-are-back": () => run("mv", ["/root/settings", kSettings]),
  "slip-in-settings": () => appendFileSync(kSettings, 'otp_enforce_opton="user"\n'),
  "picks-are-broken": () => {
    run("tavrctl", ["enforce", "add", "local_user", "alice"]);
    writeFileSync(kPicks, "{");
  },
  "web-program-is-down": async ({ server }) => {
    const ended = new Promise((resolve) => server.web.once("exit", resolve));
    server.web.kill("SIGTERM");
    await ended;
  },
  "qrencode-is-gone": () => renameSync(kQrTool, `${kQrTool}.away`),
  "server-is-back": async ({ server }) => {
    renameSync(`${kQrTool}.away`, kQrTool);
    await server.restartWeb();
  },

  "mail-server": (stage) => serveMails(stage, "mx.example", "nas"),
  "mail-account": async (stage) => {
    await stage.ends.pop()();   // the port is the same
    appendFileSync(kSettings, 'mail_private_servers="yes"\n');
    await serveMails(stage, "mail.home.example", "alice");
  },
  "mail-server-is-away": async () => {
    appendFileSync("/etc/hosts", "127.0.0.1 mx.example\n");
    run("tavrctl", ["mail", "server", "--host", "mx.example", "--from", "nas@example.org"]);
    run("tavrctl", ["otp", "reset", "alice", "--yes"]);   // of which she is told
    const tried = () => JSON.parse(run("tavrctl", ["mail", "queue", "--json"])).mails.some(({ attempts }) => attempts > 0);
    for (const end = Date.now() + kPatienceMs; !tried(); await sleep(20)) {
      assert.ok(Date.now() < end, "nobody tries to send");
    }
  },
  "certificate-of-nas": ({ ends }) => {
    const groups = readFileSync("/etc/group");
    ends.push(() => writeFileSync("/etc/group", groups));
    appendFileSync("/etc/group", "tavr-www:x:64218:\n");
    run("unshare", ["--uts", "sh", "-c", "hostname nas && tavrctl certificate install"]);
    run("openssl", ["req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "30", "-subj", "/CN=nas",
      "-addext", "subjectAltName=DNS:nas", "-keyout", "/etc/ssl/nas.key", "-out", "/etc/ssl/nas.pem"]);
  },
  "directory": async ({ ends, text }) => {
    const directory = await startDirectory(["--port", "389"]);
    ends.push(() => directory.stop());
    appendFileSync("/etc/hosts", "127.0.0.1 ldap1.office.example ldap2.office.example\n");
    run("cp", [join(directory.folder, "ca.pem"), "/etc/ssl/office-ca.pem"]);
    appendFileSync(kSettings, text.match(/^    ldap_\w+=.*\n/gm).join(""));
    writeFileSync(kSecrets, 'ldap_bind_password="reader-password"\n');
    run("chown", ["root:tavr-web", kSecrets]);
    run("chmod", ["0440", kSecrets]);
  },
  "domain": async ({ ends }) => {
    const domain = await startDomain(["--users", "120", "--groups", "7", "--port", "389"]);
    ends.push(() => domain.stop());
    domain.setUp();
    appendFileSync("/etc/hosts", "127.0.0.1 dc1.corp.test\n");
    appendFileSync(kSettings, 'domain_uri="ldap://dc1.corp.test"\n');
  },
  "directory-is-away": () => {
    appendFileSync("/etc/hosts", "127.0.0.1 ldap1.office.example\n");
    appendFileSync(kSettings, 'ldap_uri="ldap://ldap1.office.example"\nldap_realm="office.example"\nldap_base="dc=office,dc=example"\n');
  },
};

// As a stranger's server in the world would.
async function serveMails({ ends }, host, user) {
  const server = await startMailServer(["--port", "587", "--name", host, "--user", user, "--password", kPassword]);
  ends.push(() => server.stop());
  appendFileSync("/etc/hosts", `127.0.0.1 ${host}\n`);
  appendFileSync(kAuthorities, readFileSync(join(server.folder, "ca.pem")));
}

async function enrolled(stage, user) {
  stage[user] = await enrol(stage.server, user);
  stage.server.advance(30);
}

// By the fiftieth wrong code in a row, of which the account has typed two.
async function closed(stage, user) {
  if (!stage[user]) {
    await enrolled(stage, user);
  }
  await typeWrongCode(stage, user);
  run("/usr/bin/python3", ["-c", kAlmostClosed]);
  await typeWrongCode(stage, user);
}

async function typeWrongCode({ server, ...stage }, user) {
  server.advance(3601);
  const half = await signIn(server, user);
  const answer = await half.post("/api/signin/code", { code: server.wrongCode(stage[user].key) });
  assert.equal(answer.json.err, "otp_auth_failed", answer.text);
}

// --- Commands ---

// At a terminal, where passwords do not show and questions are asked; `shown` has what is answered to one.
async function outputOf(command, shown) {
  const terminal = spawn("script", ["--quiet", "--return", "--command", command, "/dev/null"],
    { cwd: kHome, stdio: ["pipe", "pipe", "inherit"] });
  const patience = setTimeout(() => terminal.kill("SIGKILL"), kPatienceMs);
  let output = "";
  terminal.stdout.setEncoding("utf8").on("data", (some) => {
    output += some;
    if (output.endsWith("[y/N] ")) {
      terminal.stdin.write(`${/\[y\/N\] (.*)/.exec(shown)?.[1]}\n`);
    } else if (output.endsWith("on a line of its own: ")) {
      terminal.stdin.write(`${kPassword}\n\x04`);
    }
  });
  await new Promise((resolve) => terminal.once("close", resolve));
  clearTimeout(patience);
  return output.replaceAll("\r\n", "\n").replace(/^.*\r(?:\x1b\[K)?/gm, "");   // what was written over is not seen
}

// --- Documents ---

// As before the first set-up.
function wipe() {
  for (const folder of ["/var/lib/tavr", "/etc/tavr", "/usr/tavr/etc", "/run/tavr"]) {
    run("find", [folder, "-mindepth", "1", "-delete"]);
  }
}

const documents = readDocuments(join(process.env.TEST_SOURCE, "doc")).filter(({ name }) => !(name in kElsewhere));

test("every command stands in a block of its form, and every step and reason has a user", () => {
  const consoles = documents.flatMap(({ name, text, blocks }) => {
    assert.doesNotMatch(text, /^ +# (?:\w+ |scripts\/)/m, `${name}: an indented command`);
    return blocks.filter(({ kind }) => {
      assert.ok(kind === "console" || kOtherBlocks.includes(kind), `${name}: a block of ${kind}`);
      return kind === "console";
    });
  });
  assert.ok(consoles.length > 40, `${consoles.length} blocks`);
  assert.deepEqual(new Set(consoles.flatMap(({ after }) => after ?? [])), new Set(Object.keys(kSteps)));
  assert.deepEqual(new Set(consoles.flatMap(({ skip }) => skip ?? [])), new Set(Object.keys(kReasons)));
});

for (const { name, text, blocks } of documents.filter(({ blocks }) => blocks.some(({ kind }) => kind === "console"))) {
  test(name, async (t) => {
    const stage = { text, said: "", ends: [] };
    writeFileSync(join(kHome, "password-file"), kPassword);
    stage.server = await startServer({ accounts: kAccounts[name] ?? kUsual });
    try {
      for (const { after, skip, commands } of blocks.filter(({ kind }) => kind === "console")) {
        await kSteps[after]?.(stage);
        for (const { command, shown } of commands) {
          await t.test(command, { skip: skip && kReasons[skip] }, async () => {
            stage.said = await outputOf(command, shown);
            stage.server.passwords[/^tavrctl user passwd (\w+) /.exec(command)?.[1]] = kPassword;
            assert.equal(withoutChanges(stage.said), withoutChanges(shown));
          });
        }
      }
    } finally {
      for (const end of stage.ends.reverse()) {
        await end();
      }
      await stage.server.stop();
      wipe();
    }
  });
}
