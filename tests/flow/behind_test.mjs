// A plain web program behind the sign-in, with the configurations that doc/behind-nginx.md shows: nobody gets in without both
// steps, and nobody after signing out.
import assert from "node:assert/strict";
import { after, before, describe, test } from "node:test";
import { spawn } from "node:child_process";
import { mkdirSync, readFileSync, writeFileSync } from "node:fs";
import { createServer } from "node:http";
import { join } from "node:path";
import { setTimeout as sleep } from "node:timers/promises";
import { freePort, startServer } from "../support/server.mjs";
import { Client, send, signIn } from "./client.mjs";

let server, program, programPort;
const asked = [];
const fronts = {};
const started = [];

function example(kind) {
  const text = readFileSync(join(process.env.TEST_SOURCE, "doc/behind-nginx.md"), "utf8");
  return new RegExp(`^\`\`\`${kind}\n(.*?)^\`\`\`$`, "ms").exec(text)[1].replaceAll("9000", String(programPort));
}

// What a site needs around the example, and another port than 443, without TLS.
function nginxConfiguration(port) {
  const site = example("nginx").replace("listen 443 ssl;", `listen 127.0.0.1:${port};`).replace(/^ *ssl_.*\n/gm, "");
  assert.doesNotMatch(site, /ssl_/);
  return `user www-data;\npid /run/nginx-test.pid;\nerror_log /var/log/nginx-test.log;\nevents {}\n` +
    `http { access_log off; ${["client_body", "proxy", "fastcgi", "uwsgi", "scgi"]
      .map((kind) => `${kind}_temp_path /tmp/nginx/${kind};`).join(" ")}\n${site} }\n`;
}

function lighttpdConfiguration(port) {
  return `server.port = ${port}\nserver.bind = "127.0.0.1"\nserver.username = "www-data"\nserver.groupname = "www-data"\n` +
    `server.document-root = "/usr/share/tavr-otp/pages"\n${example("lighttpd")}`;
}

async function startFront(name, port, configuration, command, ...args) {
  const file = `/etc/${name}-test.conf`;
  writeFileSync(file, configuration);
  const child = spawn(command, [...args, file], { stdio: ["ignore", "inherit", "inherit"] });
  started.push(child);
  const end = Date.now() + 10_000;
  while (!await send(`http://127.0.0.1:${port}`, "GET", "/").catch(() => null)) {
    assert.ok(Date.now() < end && child.exitCode === null, `${name} did not start`);
    await sleep(20);
  }
  fronts[name] = `http://127.0.0.1:${port}`;
}

before(async () => {
  server = await startServer({ accounts: { alice: [] } });
  program = createServer((request, answer) => {
    let body = "";
    request.on("data", (chunk) => { body += chunk; });
    request.on("end", () => {
      asked.push({ method: request.method, url: request.url, user: request.headers["x-tavr-user"], body });
      answer.end("the program");
    });
  });
  await new Promise((resolve) => program.listen(0, "127.0.0.1", resolve));
  programPort = program.address().port;
  mkdirSync("/tmp/nginx", { mode: 0o777 });
  const ports = [await freePort(), await freePort()];
  await startFront("nginx", ports[0], nginxConfiguration(ports[0]), "nginx", "-g", "daemon off;", "-c");
  await startFront("lighttpd", ports[1], lighttpdConfiguration(ports[1]), "lighttpd", "-D", "-f");
});
after(async () => {
  started.forEach((child) => child.kill("SIGTERM"));
  program?.close();
  await server?.stop();
});

// The same browser's request to the program.
function visit(front, client, { method = "GET", path = "/page?a=b", ...more } = {}) {
  return send(fronts[front], method, path, { ...more, headers: { ...(client ? { Cookie: client.cookieHeader } : {}), ...more.headers } });
}

async function assertRefused(client, what) {
  const before = asked.length;
  const answer = await visit("nginx", client);
  assert.deepEqual([answer.status, answer.headers.location], [302, "https://127.0.0.1:8443/"], what);
  const json = await visit("lighttpd", client);
  assert.deepEqual([json.status, json.json.err], [401, "not_signed_in"], what);
  assert.equal((await visit("lighttpd", client, { path: "/api/signin" })).status, 401, what);
  assert.equal((await visit("lighttpd", client, { method: "POST", path: "/x", body: "text" })).status, 401, what);
  assert.equal(asked.length, before, `the program was asked: ${what}`);
}

async function assertLetIn(client) {
  for (const front of ["nginx", "lighttpd"]) {
    assert.equal((await visit(front, client)).text, "the program", front);
    assert.equal((await visit(front, client, { method: "POST", path: "/x", body: "text" })).status, 200, front);
    assert.deepEqual(asked.splice(0).map(({ method, url, body }) => [method, url, body]),
      [["GET", "/page?a=b", ""], ["POST", "/x", "text"]], front);
  }
}

describe("a program behind nginx or lighttpd", () => {
  let key;

  test("refuses who is not signed in, whatever the request says of itself", async () => {
    await assertRefused(undefined, "no cookie");
    const forged = new Client(server.url);
    forged.cookies.set("sid", "A".repeat(43));
    await assertRefused(forged, "a made-up cookie");
    assert.equal((await send(fronts.nginx, "GET", "/.tavr-session")).status, 404);
  });

  test("lets in who needs one step only, and says who it is", async () => {
    const alice = await signIn(server, "alice");
    await assertLetIn(alice);
    await visit("nginx", alice, { headers: { "X-Tavr-User": "admin" } });
    assert.deepEqual(asked.splice(0).map(({ user }) => user), ["alice"]);

    const qr = await alice.post("/api/otp/qr", { password: server.passwords.alice, account_name: "alice@nas" });
    key = qr.json.key;
    const confirmed = await alice.post("/api/otp/confirm", { password: server.passwords.alice, code: server.code(key) });
    assert.equal(confirmed.json.auth_ok, true, confirmed.text);
  });

  test("refuses between the two steps, lets in after the second, and forgets at sign-out", async () => {
    const alice = await signIn(server, "alice");
    await assertRefused(alice, "half a sign-in");
    server.advance(30);
    assert.equal((await alice.post("/api/signin/code", { code: server.code(key) })).status, 200);
    await assertLetIn(alice);
    const copied = alice.copy();
    assert.equal((await alice.post("/api/signout")).status, 200);
    await assertRefused(copied, "after sign-out");
  });

  test("refuses everybody when the web program cannot be asked", async () => {
    server.advance(30);
    const alice = await signIn(server, "alice");
    assert.equal((await alice.post("/api/signin/code", { code: server.code(key) })).status, 200);
    server.web.kill("SIGTERM");
    await new Promise((resolve) => server.web.once("exit", resolve));
    for (const front of ["nginx", "lighttpd"]) {
      const { status } = await visit(front, alice);
      assert.ok(status >= 500, `${front}: ${status}`);
    }
    assert.deepEqual(asked, []);
    await server.restartWeb();
    const end = Date.now() + 10_000;
    while ((await visit("lighttpd", alice)).status !== 200) {   // which looks again after a second
      assert.ok(Date.now() < end);
      await sleep(50);
    }
    asked.splice(0);
    await assertLetIn(alice);
  });
});
