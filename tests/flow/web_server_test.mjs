// What the web server adds: the pages, their headers, and nothing besides.
import assert from "node:assert/strict";
import { after, before, test } from "node:test";
import { readdirSync } from "node:fs";
import { join, relative } from "node:path";
import { startServer } from "../support/server.mjs";
import { send } from "./client.mjs";

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
