// Who is signed in, for pages that only somebody signed in may see.
import { get, post, rememberSignedIn, secondsSinceAnswer } from "./api.js";
import { byId, showMessage } from "./dom.js";
import { errorText, text } from "./messages.js";

// Tells the other tabs of this browser what became of the session or the account.
export const otherTabs = new BroadcastChannel("tavr-otp");

const kEnded = new Set(["not_signed_in", "no_pending_signin"]);
const kGone = new Set([...kEnded, "other_session"]);

let user = "";
let endTimer = 0;
let endsUnasked = 0;   // when the session would end by itself, had nothing put that off since it was asked for
let page = {};

// Whether an answer says that there is no such session any more.
export const isGone = (answer) => kGone.has(answer.err);

// Wires the page's header. `leaving` is called before the page goes to the sign-in page, `failed` when the session could
// not be asked for; why stands on the page then.
export function watchSession({ leaving, failed }) {
  page = { leaving, failed };
  byId("sign-out").addEventListener("click", signOut);
  otherTabs.addEventListener("message", ({ data }) => {
    if (data.what === "signed-out") {
      toSignin("signed_out");
    }
  });
}

// The session; null when there is none, and the page is about to be left, or when it could not be asked for.
export async function findSession() {
  const session = await get("/api/session");
  if (session.success) {
    user = session.user;
    byId("user").textContent = text("common:signed_in_as", { user });
    byId("who").hidden = false;
    rememberSignedIn(true);
    endsUnasked = Date.now() + session.expires_in * 1000;
    watchForEnd(session.expires_in);
    return session;
  }
  if (session.status === 401) {
    toSignin("not_signed_in");
  } else {
    showMessage(errorText(session));
    page.failed();
  }
  return null;
}

// A page left open shows nothing of a session that has ended. Asking would put off the end of one that has not, so
// it asks only when nothing has done so for as long as a session lasts.
function watchForEnd(lifetime) {
  clearTimeout(endTimer);
  const left = lifetime + 2 - secondsSinceAnswer();
  if (left <= 0) {
    findSession();
  } else {
    endTimer = setTimeout(() => watchForEnd(lifetime), left * 1000);
  }
}

export function toSignin(reason) {
  page.leaving();
  rememberSignedIn(false);
  location.replace(`/#${kEnded.has(reason) ? howItEnded() : reason}`);
}

// A session that is gone before its time was ended by somebody.
function howItEnded() {
  return user && Date.now() < endsUnasked ? "ended_elsewhere" : "ended";
}

async function signOut() {
  const answer = await post("/api/signout", {});
  if (!answer.success && answer.status !== 401) {
    showMessage(errorText(answer));
    return;
  }
  otherTabs.postMessage({ what: "signed-out", user });
  toSignin("signed_out");
}
