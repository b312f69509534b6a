// A user's own page: how two-step sign-in stands, the setup wizard, the recovery address, sign-out.
import { get, post, rememberSignedIn, secondsSinceAnswer } from "/shared/api.js";
import {
  byId, hidePasswords, onSubmit, readCode, reloadWhenRestored, setTitle, showFieldError, showMessage,
  wirePasswordButtons,
} from "/shared/dom.js";
import { errorText, fillTexts, loadMessages, text } from "/shared/messages.js";
import { openWizard, otherTabs, wizardInHistory } from "/shared/wizard.js";

const kGone = new Set(["not_signed_in", "no_pending_signin", "other_session"]);

let user = "";
let wizard = null;
let endTimer = 0;

start().catch(() => { byId("not-loaded").hidden = false; });

async function start() {
  await loadMessages();
  fillTexts(document);
  setTitle(text("settings:title"));
  wirePasswordButtons(document);
  reloadWhenRestored();
  byId("sign-out").addEventListener("click", signOut);
  byId("start").addEventListener("click", () => setUp({}));
  byId("show-again").addEventListener("click", () => setUp({ showOnly: true }));
  byId("change-mail").addEventListener("click", openMailForm);
  byId("mail-cancel").addEventListener("click", closeMailForm);
  byId("retry").addEventListener("click", () => location.reload());
  onSubmit(byId("mail-form"), submitMail);
  otherTabs.addEventListener("message", (event) => heardFromTab(event.data));

  if (!await checkSession()) {
    return;
  }
  byId("content").hidden = false;
  const status = await showStatus();
  if (wizardInHistory() && status?.enrolled === false) {
    await setUp({ note: text("wizard:note_reloaded") });
  } else {
    history.replaceState(null, "");
  }
}

// --- the session ---

async function checkSession() {
  const session = await get("/api/session");
  if (session.success) {
    user = session.user;
    byId("user").textContent = text("settings:signed_in_as", { user });
    byId("who").hidden = false;
    rememberSignedIn(true);
    watchForEnd(session.expires_in);
    return true;
  }
  if (session.status === 401) {
    toSignin("ended");
  } else {
    byId("content").hidden = false;
    byId("overview").hidden = false;
    byId("state").hidden = true;
    byId("retry").hidden = false;
    showMessage(errorText(session));
  }
  return false;
}

// A page left open shows nothing of a session that has ended. Asking would put off the end of one that has not, so
// it asks only when nothing has done so for as long as a session lasts.
function watchForEnd(lifetime) {
  clearTimeout(endTimer);
  const left = lifetime + 2 - secondsSinceAnswer();
  if (left <= 0) {
    checkSession();
  } else {
    endTimer = setTimeout(() => watchForEnd(lifetime), left * 1000);
  }
}

function toSignin(reason) {
  wizard?.forget();
  rememberSignedIn(false);
  location.replace(`/#${reason === "not_signed_in" || reason === "no_pending_signin" ? "ended" : reason}`);
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

function heardFromTab({ what, user: other }) {
  if (what === "signed-out") {
    toSignin("signed_out");
  } else if (what === "enrolled" && other === user && !wizard) {
    showStatus();
  }
}

// --- how it stands ---

async function showStatus() {
  const status = await get("/api/otp/status");
  if (kGone.has(status.err)) {
    toSignin(status.err);
    return null;
  }
  byId("overview").hidden = false;
  byId("state").hidden = !status.success;
  byId("retry").hidden = status.success;
  if (!status.success) {
    showMessage(errorText(status));
    return null;
  }
  byId("state").dataset.on = status.enrolled;
  byId("state-badge").textContent = text(status.enrolled ? "settings:on" : "settings:off");
  byId("state-text").textContent = text(status.enrolled ? "settings:on_text" : "settings:off_text");
  byId("enforced").hidden = !status.enforced;
  byId("facts").hidden = !status.enrolled;
  byId("codes-left").textContent = text("settings:codes_left", { n: status.codes_left ?? 0 });
  byId("mail-now").textContent = status.mail || text("settings:mail_none");
  byId("change-mail").hidden = status.mail_writable === false;
  byId("start").hidden = status.enrolled;
  byId("show-again").hidden = !status.enrolled;
  return status;
}

// --- setup ---

async function setUp({ showOnly = false, note = "" }) {
  byId("overview").hidden = true;
  showMessage();
  byId("heading").textContent = text(showOnly ? "settings:show_again" : "wizard:title");
  wizard = await openWizard(byId("wizard"), { user, showOnly, note, onLeave: backToOverview, onGone: toSignin });
}

async function backToOverview(changed) {
  wizard = null;
  const heading = byId("heading");
  heading.textContent = text("settings:title");
  setTitle(heading.textContent);
  showMessage();
  await showStatus();
  heading.focus();
  if (changed) {
    showMessage(text("settings:note_on"), "note");
    await checkSession();
  }
}

// --- recovery address ---

function openMailForm() {
  byId("overview").hidden = true;
  showMessage();
  byId("mail-form").reset();
  byId("mail-form").hidden = false;
  byId("mail-heading").focus();
}

async function closeMailForm() {
  byId("mail-form").reset();
  hidePasswords(document);
  byId("mail-form").hidden = true;
  showMessage();
  await showStatus();
  byId("heading").focus();
}

async function submitMail() {
  const mail = byId("mail");
  const password = byId("mail-password");
  const code = byId("mail-code");
  if (!mail.checkValidity()) {
    showFieldError(mail, text("common:mail_form"));
    return;
  }
  if (!password.value) {
    showFieldError(password, text("common:password_missing"));
    return;
  }
  const digits = readCode(code);
  if (!digits) {
    return;
  }
  const answer = await post("/api/otp/mail", { password: password.value, mail: mail.value.trim(), code: digits });
  if (answer.success && !answer.errno && answer.saved !== false) {
    await closeMailForm();
    showMessage(text("settings:note_mail_saved"), "note");
  } else if (answer.success) {
    showFieldError(mail, answer.errno ? errorText(answer) : text("common:mail_not_saved"));
  } else if (kGone.has(answer.err)) {
    toSignin(answer.err);
  } else if (answer.err === "bad_credentials") {
    showFieldError(password, text("common:password_wrong"));
  } else if (answer.status === 401 || answer.status === 429) {
    showFieldError(code, errorText(answer));
  } else {
    showMessage(errorText(answer));
  }
}
