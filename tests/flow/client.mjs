// Clients of the HTTP interface for tests: one that keeps cookies and token as a browser and its page do, and one that
// speaks FastCGI with the web program itself, so that a test can be the web server.
import { execFileSync } from "node:child_process";
import { request } from "node:http";
import { connect } from "node:net";

// One request, nothing added and nothing followed. `body` may be bytes, text or an object.
export function send(base, method, path, { body, headers = {} } = {}) {
  const isObject = body !== undefined && typeof body === "object" && !Buffer.isBuffer(body);
  const bytes = isObject ? JSON.stringify(body) : body;
  const all = { ...(isObject ? { "Content-Type": "application/json" } : {}), ...headers };
  if (bytes !== undefined) {
    all["Content-Length"] = Buffer.byteLength(bytes);
  }
  return new Promise((resolve, reject) => {
    const call = request(`${base}${path}`, { method, headers: all, agent: false }, (answer) => {
      const chunks = [];
      answer.on("data", (chunk) => chunks.push(chunk));
      answer.on("end", () => resolve(toAnswer(answer.statusCode, answer.headers, Buffer.concat(chunks))));
      answer.on("error", reject);
    });
    call.on("error", reject);
    call.end(bytes);
  });
}

function toAnswer(status, headers, bytes) {
  const text = bytes.toString("utf8");
  const isJson = headers["content-type"] === "application/json";
  return { status, headers, text, json: isJson && text !== "" ? JSON.parse(text) : undefined,
    setCookies: headers["set-cookie"] ?? [] };
}

// The program's own table of routes: [{ method, path }].
export function routes() {
  return JSON.parse(execFileSync(`${process.env.TEST_BUILD}/tests/web/list_routes`, { encoding: "utf8" }));
}

export class Client {
  cookies = new Map();
  token = "";

  constructor(base) {
    this.base = base;
  }

  get cookieHeader() {
    return [...this.cookies].map(([name, value]) => `${name}=${value}`).join("; ");
  }

  async send(method, path, { body, headers = {} } = {}) {
    const own = { ...(this.cookies.size ? { Cookie: this.cookieHeader } : {}),
      ...(this.token ? { "X-Tavr-Token": this.token } : {}) };
    const answer = await send(this.base, method, path, { body, headers: { ...own, ...headers } });
    for (const line of answer.setCookies) {
      const [, name, value] = /^([^=]+)=([^;]*)/.exec(line);
      if (value === "") {
        this.cookies.delete(name);
      } else {
        this.cookies.set(name, value);
      }
    }
    this.token = answer.json?.TavrToken ?? this.token;
    return answer;
  }

  get(path) {
    return this.send("GET", path);
  }

  post(path, body = {}) {
    return this.send("POST", path, { body });
  }

  // Another one with the same cookies and token: a second tab, or somebody who copied them.
  copy() {
    const other = new Client(this.base);
    other.cookies = new Map(this.cookies);
    other.token = this.token;
    return other;
  }
}

export async function signIn(server, user, base = server.url) {
  const client = new Client(base);
  const answer = await client.post("/api/signin", { user, password: server.passwords[user] });
  if (answer.status !== 200) {
    throw new Error(`${user} cannot sign in: ${answer.status} ${answer.text}`);
  }
  return client;
}

// --- FastCGI -------------------------------------------------------------------------------------------------

const kBegin = 1, kEnd = 3, kParams = 4, kStdin = 5, kStdout = 6, kResponder = 1;

function record(type, content) {
  const head = Buffer.from([1, type, 0, 1, content.length >> 8, content.length & 255, 0, 0]);
  return Buffer.concat([head, content]);
}

function size(length) {
  return length < 128 ? Buffer.from([length])
    : Buffer.from([(length >> 24) | 128, (length >> 16) & 255, (length >> 8) & 255, length & 255]);
}

function encodeParams(params) {
  return Buffer.concat(Object.entries(params).flatMap(([name, value]) => {
    const [n, v] = [Buffer.from(name), Buffer.from(value)];
    return [size(n.length), size(v.length), n, v];
  }));
}

function parseStdout(bytes) {
  const chunks = [];
  for (let at = 0; at + 8 <= bytes.length;) {
    const length = bytes.readUInt16BE(at + 4);
    if (bytes[at + 1] === kStdout) {
      chunks.push(bytes.subarray(at + 8, at + 8 + length));
    }
    if (bytes[at + 1] === kEnd) {
      break;
    }
    at += 8 + length + bytes[at + 6];
  }
  const all = Buffer.concat(chunks);
  const split = all.indexOf("\r\n\r\n");
  const headers = { "set-cookie": [] };
  for (const line of all.subarray(0, split).toString().split("\r\n")) {
    const [, name, value] = /^([^:]+): ?(.*)$/.exec(line) ?? [];
    if (name?.toLowerCase() === "set-cookie") {
      headers["set-cookie"].push(value);
    } else if (name) {
      headers[name.toLowerCase()] = value;
    }
  }
  return toAnswer(parseInt(headers.status ?? "200", 10), headers, all.subarray(split + 4));
}

// A request whose body has not been sent yet: finish() sends it and gives the answer, null when none came.
export async function beginFastCgi(socketPath, params, body = "") {
  const socket = connect(socketPath);
  await new Promise((resolve, reject) => socket.once("connect", resolve).once("error", reject));
  const all = { REQUEST_METHOD: "GET", REQUEST_URI: "/", CONTENT_LENGTH: String(Buffer.byteLength(body)),
    REMOTE_ADDR: "192.0.2.1", HTTP_HOST: "nas.example", ...params };
  socket.write(Buffer.concat([record(kBegin, Buffer.from([0, kResponder, 0, 0, 0, 0, 0, 0])),
    record(kParams, encodeParams(all)), record(kParams, Buffer.alloc(0))]));
  return {
    finish: () => new Promise((resolve) => {
      const chunks = [];
      socket.on("data", (chunk) => chunks.push(chunk));
      socket.on("error", () => resolve(null));
      socket.on("close", () => resolve(chunks.length ? parseStdout(Buffer.concat(chunks)) : null));
      const content = Buffer.from(body);
      for (let at = 0; at < content.length; at += 65535) {
        socket.write(record(kStdin, content.subarray(at, at + 65535)));
      }
      socket.write(record(kStdin, Buffer.alloc(0)));
    }),
  };
}

export async function fastCgi(socketPath, params, body = "") {
  return (await beginFastCgi(socketPath, params, body)).finish();
}
