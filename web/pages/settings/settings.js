// A user's own page: how two-step sign-in stands, the setup wizard, a new phone, the recovery address, switching off,
// sign-out.
import { get, post } from "/shared/api.js";
import {
  byId, clearFieldError, hidePasswords, onSubmit, readCode, reloadWhenRestored, setTitle, showFieldError, showMessage,
  wirePasswordButtons,
} from "/shared/dom.js";
import { buildFields } from "/shared/fields.js";
import { errorText, fillTexts, loadMessages, text } from "/shared/messages.js";
import { endWait, showRefusal } from "/shared/refusals.js";
import { findSession, isGone, otherTabs, toSignin, watchSession } from "/shared/session.js";
import { openWizard, reloadedNote, wizardInHistory } from "/shared/wizard.js";

const kTitles = { setup: "wizard:title", renew: "settings:new_phone", show: "settings:show_again" };
const kChanged = { setup: "settings:note_on", renew: "settings:note_renewed" };

let user = "";
let wizard = null;

start().catch(() => { byId("not-loaded").hidden = false; });

async function start() {
  await Promise.all([loadMessages(), buildFields(document)]);
  fillTexts(document);
  setTitle(text("settings:title"));
  wirePasswordButtons(document);
  reloadWhenRestored();
  watchSession({ leaving: () => wizard?.forget(), failed: showNoSession });
  byId("start").addEventListener("click", () => setUp("setup"));
  byId("new-phone").addEventListener("click", () => setUp("renew"));
  byId("show-again").addEventListener("click", () => setUp("show"));
  byId("change-mail").addEventListener("click", () => openForm("mail"));
  byId("mail-cancel").addEventListener("click", () => closeForm("mail"));
  byId("switch-off").addEventListener("click", () => openForm("off"));
  byId("off-cancel").addEventListener("click", () => closeForm("off"));
  byId("retry").addEventListener("click", () => location.reload());
  onSubmit(byId("mail-form"), submitMail);
  onSubmit(byId("off-form"), submitOff);
  otherTabs.addEventListener("message", (event) => heardFromTab(event.data));

  const session = await findSession();
  if (!session) {
    return;
  }
  byId("content").hidden = false;
  user = session.user;
  byId("to-admin").hidden = !session.is_admin;
  const status = await showStatus();
  const purpose = wizardInHistory();
  const goesOn = purpose === (status?.enrolled ? "renew" : "setup") && history.state.step !== "done";
  if (status && goesOn) {
    await setUp(purpose, reloadedNote(purpose));
  } else {
    history.replaceState(null, "");
  }
}

function showNoSession() {
  byId("content").hidden = false;
  byId("overview").hidden = false;
  byId("state").hidden = true;
  byId("retry").hidden = false;
}

function heardFromTab({ what, user: other }) {
  if ((what === "enrolled" || what === "switched-off") && other === user && !wizard) {
    showStatus();
  }
}

// --- how it stands ---

async function showStatus() {
  const status = await get("/api/otp/status");
  if (isGone(status)) {
    toSignin(status.err);
    return null;
  }
  byId("overview").hidden = openedForm() !== null;
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
  byId("enforced").textContent = text(status.enrolled ? "web:otp_enforced" : "settings:enforced");
  byId("closed").hidden = !status.closed;
  byId("facts").hidden = !status.enrolled;
  byId("codes-left").textContent = text("settings:codes_left", { n: status.codes_left ?? 0 });
  byId("mail-now").textContent = status.mail || text("settings:mail_none");
  byId("change-mail").hidden = status.mail_writable === false;
  byId("mail-fixed").hidden = status.mail_writable !== false;
  byId("mail-fixed").textContent = text(status.mail ? "settings:mail_fixed" : "common:mail_fixed_none");
  byId("start").hidden = status.enrolled;
  byId("actions").hidden = !status.enrolled;
  byId("switch-off").hidden = status.enforced;
  return status;
}

// --- setup ---

async function setUp(purpose, note = "") {
  byId("overview").hidden = true;
  showMessage();
  byId("heading").textContent = text(kTitles[purpose]);
  wizard = await openWizard(byId("wizard"), {
    user, purpose, note,
    onLeave: (changed) => backToOverview(changed && text(kChanged[purpose])),
    onGone: toSignin,
  });
}

async function backToOverview(note) {
  wizard = null;
  const heading = byId("heading");
  heading.textContent = text("settings:title");
  setTitle(heading.textContent);
  showMessage();
  await showStatus();
  heading.focus();
  if (note) {
    showMessage(note, "note");
    await findSession();
  }
}

// --- forms: recovery address, switching off ---

const openedForm = () => document.querySelector("form[id$=-form]:not([hidden])");

function openForm(name) {
  byId("overview").hidden = true;
  showMessage();
  const form = byId(`${name}-form`);
  form.reset();
  for (const input of form.querySelectorAll("input")) {
    clearFieldError(input);
  }
  form.hidden = false;
  byId(`${name}-heading`).focus();
}

async function closeForm(name, note) {
  const form = byId(`${name}-form`);
  for (const input of form.querySelectorAll("input")) {
    endWait(input);
  }
  form.reset();
  hidePasswords(document);
  form.hidden = true;
  await backToOverview(note);
}

// The password and the code of a form. Empty when one is missing, which then stands beside it.
function readProof(name) {
  const password = byId(`${name}-password`);
  if (!password.value) {
    showFieldError(password, text("common:password_missing"));
    return null;
  }
  const code = readCode(byId(`${name}-code`));
  return code && { password: password.value, code };
}

function formRefused(answer, name, other) {
  if (isGone(answer)) {
    toSignin(answer.err);
  } else {
    showRefusal(answer, { password: byId(`${name}-password`), code: byId(`${name}-code`), other });
  }
}

async function submitMail() {
  const mail = byId("mail");
  if (!mail.checkValidity()) {
    showFieldError(mail, text("common:mail_form"));
    return;
  }
  const proof = readProof("mail");
  if (!proof) {
    return;
  }
  const answer = await post("/api/otp/mail", { ...proof, mail: mail.value.trim() });
  if (answer.success && !answer.errno && answer.saved !== false) {
    await closeForm("mail", text("settings:note_mail_saved"));
  } else if (answer.success) {
    showFieldError(mail, answer.errno ? errorText(answer) : text("common:mail_not_saved"));
  } else {
    formRefused(answer, "mail", mail);
  }
}

async function submitOff() {
  const proof = readProof("off");
  if (!proof) {
    return;
  }
  const answer = await post("/api/otp/disable", proof);
  if (answer.success || await wentOffAllTheSame(answer)) {
    otherTabs.postMessage({ what: "switched-off", user });
    await closeForm("off", text("settings:note_off"));
  } else {
    formRefused(answer, "off");
  }
}

// When the answer was lost or a fault, only the server knows what became of it.
async function wentOffAllTheSame(answer) {
  if (answer.status > 0 && answer.status < 500) {
    return false;
  }
  const status = await get("/api/otp/status");
  return status.success && !status.enrolled;
}
