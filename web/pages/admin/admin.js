// The administrator's page: who must use two-step sign-in, the picks, and an account whose second step is lost.
import { get, post } from "/shared/api.js";
import {
  byId, hidePasswords, onSubmit, reloadWhenRestored, setTitle, showFieldError, showMessage, wirePasswordButtons,
} from "/shared/dom.js";
import { buildFields } from "/shared/fields.js";
import { errorText, fillTexts, loadMessages, text } from "/shared/messages.js";
import { endWait, showRefusal } from "/shared/refusals.js";
import { findSession, isGone, toSignin, watchSession } from "/shared/session.js";
import { isolate, List, numberText } from "./list.js";

const kCountMs = 500;   // after the last of several changes

let list = null;
let saved = "";       // the option that is in force
let countTimer = 0;
let resetUser = "";

start().catch(() => { byId("not-loaded").hidden = false; });

async function start() {
  await Promise.all([loadMessages(), buildFields(document)]);
  fillTexts(document);
  setTitle(text("admin:title"));
  wirePasswordButtons(document);
  reloadWhenRestored();
  watchSession({ leaving: () => {}, failed: showRetry });
  byId("retry").addEventListener("click", () => location.reload());
  onSubmit(byId("option-form"), saveOption);
  onSubmit(byId("reset-form"), submitReset);
  byId("reset-cancel").addEventListener("click", () => byId("reset-dialog").close());
  byId("reset-dialog").addEventListener("close", clearReset);

  const session = await findSession();
  if (!session) {
    return;
  }
  byId("content").hidden = false;
  if (!session.is_admin) {
    showMessage(text("web:not_admin"));
    byId("not-admin").hidden = false;
    return;
  }
  list = new List({ user: session.user, onRefused: refused, onChanged: picksChanged, onReset: openReset });
  await Promise.all([showOption(), showOwnState()]);
}

function showRetry() {
  byId("content").hidden = false;
  byId("administration").hidden = true;
  byId("retry").hidden = false;
}

// What any request of the page may be answered with. The list and the dialog have a place of their own for the rest.
function refused(answer, tell = showMessage) {
  if (isGone(answer)) {
    toSignin(answer.err);
    return;
  }
  if (answer.err === "not_admin") {
    byId("administration").hidden = true;
    byId("not-admin").hidden = false;
    showMessage(errorText(answer));
    return;
  }
  if (answer.err === "enrol_first") {
    byId("enrol-first").hidden = false;
    byId("enrol-link").focus();
    chooseOption(saved);
    return;
  }
  tell(answer.err === "policy_unavailable" ? text("admin:policy_unavailable") : errorText(answer));
}

// --- the administrator's own second step ---

async function showOwnState() {
  const status = await get("/api/otp/status");
  if (status.success) {
    byId("enrol-first").hidden = status.enrolled;
  } else {
    refused(status);
  }
}

// --- the option ---

async function showOption() {
  const answer = await get("/api/enforce/option");
  const first = saved === "";
  if (!answer.success) {
    refused(answer);
    if (first) {
      showRetry();
    }
    return;
  }
  saved = answer.option;
  byId("administration").hidden = false;
  if (first) {
    chooseOption(saved);
    list.load();
  }
  showCount(answer.not_enrolled);
  byId("in-force").textContent = text(saved === "custom" ? "admin:picks_in_force" : "admin:picks_not_in_force");
}

function showCount(count) {
  const told = saved === "none" ? ""
    : text(count === 0 ? "admin:all_enrolled" : "admin:not_enrolled", { n: count, count: numberText(count) });
  if (byId("not-enrolled").textContent !== told) {   // what stands there already is not read out again
    byId("not-enrolled").textContent = told;
  }
}

function chooseOption(option) {
  byId("option-form").elements.option.value = option;
}

async function saveOption() {
  const option = byId("option-form").elements.option.value;
  const answer = await post("/api/enforce/option", { option });
  if (answer.success) {
    await showOption();
    showMessage(text("admin:note_option_saved", { option: text(`admin:option_${option}`) }), "note");
  } else {
    refused(answer);
  }
}

// How many are not enrolled depends on the picks while they are in force.
function picksChanged() {
  clearTimeout(countTimer);
  if (saved === "custom") {
    countTimer = setTimeout(showOption, kCountMs);
  }
}

// --- a second step that is lost ---

function openReset(user) {
  resetUser = user;
  byId("reset-heading").textContent = text("admin:reset_heading", { user: isolate(user) });
  showMessage();
  byId("reset-dialog").showModal();
  byId("reset-password").focus();
}

function clearReset() {
  endWait(byId("reset-password"));
  byId("reset-form").reset();
  hidePasswords(byId("reset-dialog"));
}

async function submitReset() {
  const password = byId("reset-password");
  if (!password.value) {
    showFieldError(password, text("common:password_missing"));
    return;
  }
  const user = resetUser;
  const answer = await post("/api/admin/otp_reset", { user, password: password.value });
  if (answer.success) {
    byId("reset-dialog").close();
    list.say(text("admin:note_reset", { user: isolate(user) }), "note");
    await showOption();
  } else if (answer.err === "bad_credentials") {
    showFieldError(password, text("common:password_wrong"));
  } else if (answer.status === 429) {
    showRefusal(answer, { password });
  } else {
    byId("reset-dialog").close();
    refused(answer);
  }
}
