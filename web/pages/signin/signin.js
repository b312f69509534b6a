// The sign-in page: password, second step, and the wizard where the policy demands an enrolment.
import { get, post, rememberSignedIn, wasSignedIn } from "/shared/api.js";
import {
  announce, byId, clearFieldError, hidePasswords, onSubmit, readCode, reloadWhenRestored, requireFilled, setTitle,
  showFieldError, showMessage, whileBusy, wirePasswordButtons,
} from "/shared/dom.js";
import { buildFields } from "/shared/fields.js";
import { durationText, errorText, fillTexts, loadMessages, text } from "/shared/messages.js";
import { endWait, showRefusal } from "/shared/refusals.js";
import { openWizard, reloadedNote, wizardInHistory } from "/shared/wizard.js";

const kSettings = "/settings";
const kReasons = {   // why another page sent the user here, as its address says after "#"
  ended: "signin:note_ended",
  signed_out: "signin:note_signed_out",
  ended_elsewhere: "signin:note_ended_elsewhere",
  setup_unknown: "signin:note_setup_unknown",
  renewal_unknown: "signin:note_renewal_unknown",
  other_session: "web:other_session",
};
const kHalfSigninGone = new Set(["no_pending_signin", "not_signed_in"]);

start().catch(() => { byId("not-loaded").hidden = false; });

async function start() {
  await Promise.all([loadMessages(), buildFields(document)]);
  fillTexts(document);
  wirePasswordButtons(document);
  reloadWhenRestored();
  onSubmit(byId("password-form"), submitPassword);
  onSubmit(byId("code-form"), submitCode);
  byId("no-app").addEventListener("click", mailOnce);
  byId("other-account").addEventListener("click", otherAccount);
  byId("user").addEventListener("input", () => endWait(byId("password")));   // it was the other account's
  byId("content").hidden = false;

  const reason = kReasons[location.hash.slice(1)];
  if (reason) {
    history.replaceState(history.state, "", location.pathname);
  }
  const session = wasSignedIn() ? await get("/api/session") : {};
  if (session.success) {
    enter();
  } else if (session.state === "code_required") {
    askCode(session.user);
  } else if (session.state === "enrolment_required" && session.user) {
    await enrol(session.user, "", wizardInHistory() ? reloadedNote("setup") : text("signin:note_enrolment_demanded"));
  } else {
    if (session.status === 401) {
      rememberSignedIn(false);
    }
    history.replaceState(null, "");
    askPassword();
    showMessage(reason && text(reason), "note");
  }
}

function show(id, heading) {
  endWait(byId("password"));
  endWait(byId("code"));
  for (const part of ["password-form", "code-form", "wizard"]) {
    byId(part).hidden = part !== id;
  }
  byId("heading").textContent = heading;
  setTitle(heading);
  showMessage();
}

function askPassword() {
  show("password-form", text("signin:title"));
  byId("password").value = "";
  byId(byId("user").value ? "password" : "user").focus();
}

async function submitPassword() {
  const user = byId("user");
  const password = byId("password");
  if (!requireFilled(user, text("signin:user_missing"))) {
    return;
  }
  if (!password.value) {
    showFieldError(password, text("common:password_missing"));
    return;
  }
  const typed = password.value;
  const answer = await post("/api/signin", { user: user.value.trim(), password: typed });
  if (!answer.success) {
    showRefusal(answer, { password });
    return;
  }
  password.value = "";
  hidePasswords(document);
  rememberSignedIn(true);
  if (answer.state === "signed_in") {
    enter();
  } else if (answer.state === "code_required") {
    askCode(answer.user);
  } else {
    await enrol(answer.user, typed, text("signin:note_enrolment_demanded"));
  }
}

function askCode(user) {
  show("code-form", text("signin:code_title"));
  byId("code-for").textContent = text("signin:code_for", { user });
  byId("code").value = "";
  byId("code").focus();
}

async function submitCode() {
  const input = byId("code");
  const code = readCode(input);
  if (!code) {
    return;
  }
  const answer = await post("/api/signin/code", { code });
  if (answer.success) {
    enter();
  } else if (!leaveIfGone(answer)) {
    showRefusal(answer, { code: input });
  }
}

// Back to the password when the half sign-in has ended.
function leaveIfGone(answer) {
  const gone = kHalfSigninGone.has(answer.err);
  if (gone) {
    askPassword();
    showMessage(errorText(answer));
  }
  return gone;
}

// Mailing takes a while, and the form can be used meanwhile: the app may have turned up.
async function mailOnce() {
  const button = byId("no-app");
  if (!button.dataset.busy) {
    await whileBusy(button, button, mailCode);
  }
}

async function mailCode() {
  showMessage();
  announce(text("signin:mail_under_way"));
  const answer = await post("/api/signin/emergency", {});
  if (byId("code-form").hidden || leaveIfGone(answer)) {
    return;
  }
  if (answer.success) {
    showMessage(text(answer.warning ? "signin:mailed_last" : "signin:mailed"), "note");
    makeReady(byId("code"));
  } else if (answer.err === "otp_unavailable") {
    showMessage(text("signin:mail_fault"));
  } else if (answer.status === 429) {
    const minutes = Math.max(1, Math.ceil(answer.retryAfter / 60));
    showMessage(text("signin:mailed_too_often", { wait: durationText(minutes * 60) }));
  } else {
    showMessage(errorText(answer));
  }
}

// For the code that comes now; a field that has to wait keeps what stands there and beside it.
function makeReady(input) {
  if (!input.readOnly) {
    input.value = "";
    clearFieldError(input);
  }
  input.focus();
}

async function otherAccount() {
  await post("/api/signout", {});
  rememberSignedIn(false);
  byId("user").value = "";
  askPassword();
}

async function enrol(user, password, note) {
  show("wizard", text("wizard:title"));
  await openWizard(byId("wizard"), {
    user,
    password,
    note,
    onLeave: (changed) => {
      if (changed) {
        enter();
      } else {
        askPassword();
        showMessage(text("signin:note_setup_left"), "note");
      }
    },
    onGone: (err) => {
      askPassword();
      showMessage(err === "setup_unknown" ? text("signin:note_setup_unknown") : text(`web:${err}`));
    },
  });
}

function enter() {
  rememberSignedIn(true);
  location.replace(kSettings);
}
