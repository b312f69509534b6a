// The one way to the server. Every answer comes back as a plain object: the members of the body, `status` (0 when
// there was no answer), `success`, `err` (a catalogue key) and `retryAfter` in seconds. Nothing is thrown.

const kTimeoutMs = 60_000;
const kHintKey = "tavr.signed-in";

let token = "";
let account = "";   // whom the token belongs to
let lastAnswer = 0;

// `signal` gives an answer up that nobody waits for any more; it then counts as one that did not come.
export const get = (path, signal) => call("GET", path, undefined, signal);
export const post = (path, body) => call("POST", path, body);

// Seconds since the server last answered, and so since it last put off the end of an idle session.
export const secondsSinceAnswer = () => (performance.now() - lastAnswer) / 1000;

// Whether this browser was signed in when it was last here. Not secret and not proof: it only saves a page that
// nobody is signed in to from asking, and from an error line in the browser's console.
export function wasSignedIn() {
  try {
    return localStorage.getItem(kHintKey) === "1";
  } catch {
    return true;
  }
}

export function rememberSignedIn(signedIn) {
  try {
    if (signedIn) {
      localStorage.setItem(kHintKey, "1");
    } else {
      localStorage.removeItem(kHintKey);
    }
  } catch {
    // Storage is switched off: the hint is lost, and wasSignedIn says so.
  }
}

async function call(method, path, body, signal) {
  const answer = await send(method, path, body, signal);
  if (answer.err !== "bad_token" || path === "/api/session") {
    return answer;
  }
  // The token is the session's, and another tab may have opened a new one. Go on if that is the same account's.
  const before = account;
  const session = await get("/api/session");
  if (!before || session.user !== before || !session.TavrToken) {
    return { ...answer, err: "other_session" };
  }
  return send(method, path, body);
}

async function send(method, path, body, signal) {
  const ends = new AbortController();
  const timer = setTimeout(() => ends.abort(), kTimeoutMs);
  signal?.addEventListener("abort", () => ends.abort());
  const request = { method, headers: {}, cache: "no-store", redirect: "error", signal: ends.signal };
  if (body !== undefined) {
    request.headers["Content-Type"] = "application/json";
    request.body = JSON.stringify(body);
  }
  if (token) {
    request.headers["X-Tavr-Token"] = token;
  }
  let response;
  let members;
  try {
    response = await fetch(path, request);
    members = await response.json();
  } catch {
    return response
      ? { status: response.status, success: false, err: "internal", retryAfter: 0 }
      : { status: 0, success: false, err: "unreachable", retryAfter: 0 };
  } finally {
    clearTimeout(timer);
  }
  lastAnswer = performance.now();
  if (members.TavrToken) {
    token = members.TavrToken;
  }
  if (members.user) {
    account = members.user;
  }
  return {
    success: false,
    ...members,
    status: response.status,
    retryAfter: Number.parseInt(response.headers.get("Retry-After"), 10) || 0,
  };
}
