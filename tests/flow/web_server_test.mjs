// What the web server adds: the pages, their headers, and nothing besides.
import assert from "node:assert/strict";
import { after, before, test } from "node:test";
import { readdirSync } from "node:fs";
import { join, relative } from "node:path";
import { run, startServer } from "../support/server.mjs";
import { routes, send, signIn } from "./client.mjs";

const kPages = "/usr/share/tavr-otp/pages";
let server;
before(async () => {
  server = await startServer();
});
after(() => server?.stop());

function files(folder = kPages) {
  return readdirSync(folder, { withFileTypes: true }).flatMap((entry) =>
    entry.isDirectory() ? files(join(folder, entry.name)) : [`/${relative(kPages, join(folder, entry.name))}`]);
}

function assertSafe({ headers }, path) {
  const policy = Object.fromEntries(headers["content-security-policy"].split("; ")
    .map((part) => [part.split(" ")[0], part.split(" ").slice(1).join(" ")]));
  assert.equal(policy["default-src"], "'none'", path);
  assert.equal(policy["script-src"], "'self'", path);
  assert.equal(policy["style-src"], "'self'", path);
  assert.equal(policy["img-src"], "'self' data:", path);
  assert.equal(policy["frame-ancestors"], "'none'", path);
  assert.doesNotMatch(headers["content-security-policy"], /unsafe|\*|https?:/, path);
  assert.equal(headers["x-content-type-options"], "nosniff", path);
  assert.equal(headers["referrer-policy"], "no-referrer", path);
  assert.equal(headers["x-frame-options"], "DENY", path);
  assert.equal(headers.server, undefined, path);
}

test("every page and file is served with its type and the strict headers", async () => {
  const types = { html: "text/html; charset=utf-8", js: "text/javascript; charset=utf-8", svg: "image/svg+xml",
    css: "text/css; charset=utf-8", json: "application/json" };
  assert.ok(files().length > 8);
  for (const path of ["/", "/?a=b", "/settings", "/favicon.ico", ...files()]) {
    const answer = await send(server.url, "GET", path);
    assert.equal(answer.status, 200, path);
    assertSafe(answer, path);
    const type = path === "/favicon.ico" ? "svg" : path.split(".")[1] ?? "html";
    assert.equal(answer.headers["content-type"], types[type], path);
  }
});

test("every answer of the interface carries the strict headers, whatever it says", async () => {
  const alice = await signIn(server, "alice");
  const json = { "Content-Type": "application/json" };
  const statuses = new Set();
  for (const { method, path } of [...routes(), { method: "POST", path: "/api/none" }]) {
    const isChange = method === "POST";
    const full = isChange ? { body: { user: "alice", password: "wrong", code: "1", account_name: "x", mail: "",
      key: "A".repeat(32) } } : {};
    const answers = [
      await send(server.url, method, path, full),
      await send(server.url, method, path, { ...full, headers: { ...json, Cookie: "sid=1; sid=2" } }),
      await send(server.url, isChange ? "GET" : "POST", path, isChange ? {} : { body: {} }),
      ...(isChange ? [
        await send(server.url, method, path, { body: "x" }),
        await send(server.url, method, path, { body: "x", headers: json }),
        await send(server.url, method, path, { body: " ".repeat(65537), headers: json }),
        await send(server.url, method, path, { ...full, headers: { ...json, Origin: "https://evil.example" } }),
        await alice.copy().send(method, path, { ...full, headers: { "X-Tavr-Token": "x" } }),
      ] : []),
      await (path === "/api/signout" ? await signIn(server, "alice") : alice.copy()).send(method, path, full),
    ];
    for (const answer of answers) {
      const what = `${method} ${path} ${answer.status}`;
      statuses.add(answer.status);
      assert.equal(answer.headers["content-type"], "application/json", what);
      assert.equal(answer.headers["cache-control"], "no-store", what);
      assert.equal(answer.headers["content-security-policy"], "default-src 'none'; frame-ancestors 'none'", what);
      assert.equal(answer.headers["x-content-type-options"], "nosniff", what);
      assert.equal(answer.headers["referrer-policy"], "no-referrer", what);
      assert.equal(answer.headers["x-frame-options"], "DENY", what);
      assert.equal(answer.headers.server, undefined, what);
      assert.equal(typeof answer.json.success, "boolean", what);
    }
  }
  assert.deepEqual([...statuses].sort(), [200, 400, 401, 403, 404, 405, 413, 415]);
});

test("what the web server says while the program is away is kept nowhere", async () => {
  await server.stopWeb();
  const answer = await send(server.url, "GET", "/api/session");
  assert.equal(answer.status, 503);
  assert.equal(answer.headers["cache-control"], "no-store");
  assert.equal(answer.headers["content-security-policy"], "default-src 'none'; frame-ancestors 'none'");
  await server.restartWeb();
});

test("a client's address is the one that the web server saw", async () => {
  const other = "203.0.113.7";
  const headers = { "X-Forwarded-For": other, Forwarded: `for=${other}`, "X-Real-IP": other, "X-Client-IP": other,
    "True-Client-IP": other, "CF-Connecting-IP": other, "X-Forwarded": other, "X-Remote-Addr": other,
    REMOTE_ADDR: other, "Remote-Addr": other, "Client-IP": other, Via: `1.1 ${other}` };
  const refused = await send(server.url, "POST", "/api/signin", { body: { user: "alice", password: "wrong" }, headers });
  assert.equal(refused.status, 401);
  assert.ok(!server.log().includes(other));
  const rows = run("tavrctl", ["audit", "--json"]);
  assert.match(rows, /127\.0\.0\.1/);
  assert.ok(!rows.includes(other));
});

test("no folder is listed and nothing outside is served", async () => {
  for (const path of ["/shared/", "/shared", "/shared/messages/", "/../lighttpd.conf", "/%2e%2e/lighttpd.conf",
    "/shared/..%2f..%2flighttpd.conf", "/none", "/signin/none.html", "//etc/passwd"]) {
    const answer = await send(server.url, "GET", path);
    assert.ok([301, 400, 403, 404].includes(answer.status), `${path} ${answer.status}`);
    assert.doesNotMatch(answer.text, /lighttpd|root:|messages|wizard/, path);
    if (answer.status !== 400) {
      assertSafe(answer, path);
    }
  }
});

test("a folder without a page is refused, not listed", async () => {
  for (const path of ["/shared/", "/shared/messages/"]) {
    const answer = await send(server.url, "GET", path);
    assert.ok([403, 404].includes(answer.status), `${path} ${answer.status}`);
    assert.doesNotMatch(answer.text, /\.js|enu/, path);
  }
});

test("the interface is not reached by another spelling of its path", async () => {
  for (const path of ["/api", "/API/session", "/api/../api/session", "/./api/session", "/%61pi/session"]) {
    const answer = await send(server.url, "GET", path);
    assert.ok([400, 401, 403, 404].includes(answer.status), `${path} ${answer.status}`);
  }
});
