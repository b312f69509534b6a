// Local accounts and groups, made and changed as an administrator does it: in the embedded store with `tavrctl`; or,
// with TAVR_ACCOUNTS=system in the environment (node-test --system), as the view's own Linux accounts, with the
// system's programs. Tests that care for accounts, and not for whose they are, do everything through `local`.
import { appendFileSync, readFileSync } from "node:fs";

import { run, runAsService } from "./run.mjs";

export const onSystem = process.env.TAVR_ACCOUNTS === "system";

const embedded = {
  administrators: "administrators",
  administratorsDesc: "May administer this system",
  database: "/var/lib/tavr/accounts.db",

  use() {},
  // `options`: of `tavrctl user add`.
  add(name, password, options = []) {
    run("tavrctl", ["user", "add", name, ...options, "--password-stdin"], password);
  },
  remove(name) {
    run("tavrctl", ["user", "remove", name, "--yes"]);
  },
  setPassword(name, password) {
    run("tavrctl", ["user", "passwd", name, "--password-stdin"], password);
  },
  disable(name) {
    run("tavrctl", ["user", "disable", name]);
  },
  enable(name) {
    run("tavrctl", ["user", "enable", name]);
  },
  addGroup(name, desc = "") {
    run("tavrctl", ["group", "add", name, "--desc", desc]);
  },
  join(group, name) {
    run("tavrctl", ["group", "join", group, name]);
  },
  leave(group, name) {
    run("tavrctl", ["group", "leave", group, name]);
  },
  // As an import would: in one transaction, with what lists are searched by, which is documented. Nobody signs in.
  addManyUsers(people) {
    insert("account (name, description, folded, gid, password) VALUES (?, ?, ?, 65537, '*')", people);
  },
  addManyGroups(names) {
    insert("account_group (name, description, folded) VALUES (?, ?, ?)", names.map((name) => ({ name, desc: "" })));
  },
};

function insert(into, entries) {
  runAsService("python3", ["-c", `
import json, sqlite3, sys
c = sqlite3.connect('${embedded.database}')
c.execute('PRAGMA cache_size = -1500000')
c.executemany("INSERT INTO ${into}", ((e['name'], e['desc'], e['name'] + '\\n' + e['desc'].lower()) for e in json.load(sys.stdin)))
c.commit()`], JSON.stringify(entries));
}

export const system = {
  administrators: "sudo",
  administratorsDesc: "",   // groups of the system have none
  database: "/var/lib/tavr/system.db",

  // After set-up, which makes the settings. The machine's own people are nobody here.
  use() {
    appendFileSync("/etc/tavr/tavrinfo.conf", 'accounts="system"\n');
    run("sh", ["-c", "getent group sudo >/dev/null || groupadd --system sudo"]);
    run("sh", ["-c", "for name in $(awk -F: '$3 >= 1000 && $3 <= 60000 { print $1 }' /etc/passwd); do userdel $name; done"]);
  },
  // The address, which the system does not know, is ours to keep.
  add(name, password, options = []) {
    const { isAdmin, desc, mail } = parse(options);
    if (/^[a-z0-9_][a-z0-9_-]{0,31}$/.test(name)) {
      run("useradd", ["--no-user-group", "--comment", desc, ...(isAdmin ? ["--groups", "sudo"] : []), "--", name]);
      system.setPassword(name, password);
    } else {   // useradd makes no such name, an editor does; without a password
      system.addManyUsers([{ name, desc }]);
    }
    if (mail) {
      run("tavrctl", ["user", "set", name, "--mail", mail]);
    }
  },
  remove(name) {
    run("userdel", [name]);
  },
  setPassword(name, password) {
    run("chpasswd", ["--crypt-method", "YESCRYPT"], `${name}:${password}`);
  },
  disable(name) {
    run("usermod", ["--lock", name]);
  },
  enable(name) {
    run("usermod", ["--unlock", name]);
  },
  addGroup(name) {
    run("groupadd", [name]);
  },
  join(group, name) {
    run("gpasswd", ["--add", name, group]);
  },
  leave(group, name) {
    run("gpasswd", ["--delete", name, group]);
  },
  addManyUsers(people) {
    const first = nextNumber("/etc/passwd");
    appendFileSync("/etc/shadow", people.map(({ name }) => `${name}:!:19000:0:99999:7:::\n`).join(""));
    appendFileSync("/etc/passwd", people.map(({ name, desc }, i) =>
      `${name}:x:${first + i}:100:${desc}:/nonexistent:/usr/sbin/nologin\n`).join(""));
  },
  addManyGroups(names) {
    const first = nextNumber("/etc/group");
    appendFileSync("/etc/group", names.map((name, i) => `${name}:x:${first + i}:\n`).join(""));
  },
};

function parse(options) {
  const after = (option) => (options.includes(option) ? options[options.indexOf(option) + 1] : "");
  return { isAdmin: options.includes("--admin"), desc: after("--desc"), mail: after("--mail") };
}

// The first that is free above all of people's, as useradd takes it.
function nextNumber(file) {
  const numbers = readFileSync(file, "utf8").split("\n").map((line) => Number(line.split(":")[2]));
  return Math.max(999, ...numbers.filter((number) => number >= 1000 && number <= 60000)) + 1;
}

export const local = onSystem ? system : embedded;
