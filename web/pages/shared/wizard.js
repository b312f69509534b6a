// The setup wizard: password, QR code, first code, recovery address, done. Both pages use it, each with its own
// frame around. The password lives in this object only, and goes with the wizard.
//
// The steps are entries of the browser's history, so that Back and Forward walk through them; an entry carries what
// the wizard is for and the step's name, and nothing else.
import { get, post } from "./api.js";
import {
  announce, byId, clearFieldError, onSubmit, readAppCode, readCode, requireFilled, setTitle, showFieldError, showMessage,
  whileBusy, wirePasswordButtons, hidePasswords,
} from "./dom.js";
import { buildFields } from "./fields.js";
import { endWait, showRefusal } from "./refusals.js";
import { isGone, otherTabs } from "./session.js";
import {
  copyText, cutToBytes, groupKey, isWholePng, kLabelBytes, labelFor, qrPixels, utf8Length,
} from "./wizard_parts.js";
import { errorText, fillTexts, text } from "./messages.js";

const kHeadings = {
  password: "wizard:password_heading",
  scan: "wizard:scan_heading",
  code: "wizard:code_heading",
  mail: "wizard:mail_heading",
  done: "wizard:done_heading",
};
// Where a step asks for something to be typed at once.
const kFirstFields = { password: "wizard-password", code: "wizard-code" };
// What the wizard is opened for: a first setup, a new phone beside an old one that holds until then, or to show an
// enrolled account's code again.
const kPurposes = {
  setup: {
    steps: ["password", "scan", "code", "mail", "done"],
    headings: kHeadings,
    passwordHint: "wizard:password_hint",
    codeHint: "wizard:code_hint",
    reloaded: "wizard:note_reloaded",
  },
  renew: {
    steps: ["password", "scan", "code", "done"],
    headings: { ...kHeadings, password: "wizard:renew_heading", done: "wizard:renewed_heading" },
    passwordHint: "wizard:password_hint_renew",
    codeHint: "wizard:code_hint_renew",
    reloaded: "wizard:note_reloaded_renew",
  },
  show: {
    steps: [],
    headings: { ...kHeadings, scan: "wizard:show_heading" },
    passwordHint: "wizard:password_hint_show",
  },
};
const kShortLabelBytes = 16;   // fits into every picture, whatever script it is in

// What a wizard was open for when the page was reloaded, or come back to, in the middle of it; else empty.
export const wizardInHistory = () => history.state?.wizard ?? "";

export const reloadedNote = (purpose) => text(kPurposes[purpose].reloaded);

// Opens the wizard in `host`. Options: `user`; `purpose`, of kPurposes; `password`, when the page still holds it;
// `note`, to stand above the first step. The page hears once how it ended:
// `onLeave(changed)` when the user left or finished, `onGone(err)` when the session is not there any more.
export async function openWizard(host, options) {
  const markup = await (await fetch("/shared/wizard.html")).text();
  host.replaceChildren(...new DOMParser().parseFromString(markup, "text/html").body.children);
  await buildFields(host);
  fillTexts(host);
  const wizard = new Wizard(host, options);
  await wizard.start();
  return wizard;
}

class Wizard {
  constructor(host, { user, purpose = "setup", password = "", note = "", onLeave, onGone }) {
    this.host = host;
    this.user = user;
    this.password = password;
    this.purpose = purpose;
    this.differs = kPurposes[purpose];
    this.firstNote = note;
    this.onLeave = onLeave;
    this.onGone = onGone;
    this.key = "";
    this.drawnLabel = "";
    this.confirmed = false;
    this.mailWritable = true;
    this.wire();
  }

  wire() {
    wirePasswordButtons(this.host);
    onSubmit(this.panel("password"), () => this.submitPassword());
    onSubmit(byId("wizard-label-form"), () => this.redraw());
    onSubmit(this.panel("code"), () => this.submitCode());
    onSubmit(this.panel("mail"), () => this.submitMail());
    byId("wizard-copy").addEventListener("click", () => this.copyKey());
    this.on("scanned", () => this.leaveScan());
    this.on("back", () => history.back());
    this.on("leave", () => this.leave());
    this.on("check", (button) => whileBusy(this.panel("code"), button, () => this.askHowItEnded()));
    this.on("skip", () => this.finishMail(text("wizard:done_no_mail")));
    this.on("finish", () => this.leave());
    this.dress();
    this.onPopState = (event) => this.walkedTo(event.state);
    this.onTabMessage = (event) => this.heardFromTab(event.data);
    this.onResize = () => this.sizeQr();
    window.addEventListener("popstate", this.onPopState);
    window.addEventListener("resize", this.onResize);
    otherTabs.addEventListener("message", this.onTabMessage);
    byId("wizard-qr").addEventListener("load", this.onResize);
  }

  // The markup is that of a first setup.
  dress() {
    byId("wizard-password-hint").textContent = text(this.differs.passwordHint);
    this.host.querySelector(".steps").hidden = this.differs.steps.length === 0;
    for (const item of this.host.querySelectorAll(".steps [data-step]")) {
      item.hidden = !this.differs.steps.includes(item.dataset.step);
    }
    if (this.purpose === "show") {
      this.host.querySelector("[data-action=scanned]").textContent = text("wizard:close");
      this.host.querySelector("[data-panel=scan] [data-action=leave]").hidden = true;
    } else {
      byId("wizard-code-hint").textContent = text(this.differs.codeHint);
    }
    if (this.purpose === "renew") {
      byId("wizard-old-code-field").hidden = false;
      byId("wizard-done-text").textContent = text("wizard:renewed_text");
      byId("wizard-confirm").textContent = text("wizard:confirm_renew");
    }
  }

  async start() {
    this.host.hidden = false;
    this.host.querySelector("input[name=username]").value = this.user;
    byId("wizard-label").value = labelFor(this.user, location.hostname);
    const inHistory = Boolean(wizardInHistory());
    const answer = this.password && !inHistory ? await this.makeKey() : null;
    if (answer?.success) {
      this.go("scan", "push");
      this.note(this.firstNote);
      return;
    }
    this.password = "";
    this.go("password", inHistory ? "replace" : "push");
    this.note(this.firstNote);
    if (answer) {
      this.refused(answer, byId("wizard-password"));
    }
  }

  panel(step) {
    return this.host.querySelector(`[data-panel=${step}]`);
  }

  on(action, handle) {
    for (const button of this.host.querySelectorAll(`[data-action=${action}]`)) {
      button.addEventListener("click", () => handle(button));
    }
  }

  // Shows `step`. `entry` says what becomes of the browser's history: "push", "replace", or "keep".
  go(step, entry) {
    this.step = step;
    if (entry !== "keep") {
      history[`${entry}State`]({ wizard: this.purpose, step }, "");
    }
    for (const panel of this.host.querySelectorAll("[data-panel]")) {
      panel.hidden = panel.dataset.panel !== step;
    }
    this.markSteps(step);
    showMessage();
    this.note("");
    const heading = byId("wizard-heading");
    heading.textContent = text(step === "mail" && !this.mailWritable ? "wizard:mail_heading_fixed" : this.differs.headings[step]);
    setTitle(heading.textContent);
    if (step in kFirstFields) {
      byId(kFirstFields[step]).focus();
      announce(heading.textContent);
    } else {
      heading.focus();
    }
    window.scrollTo(0, 0);
  }

  markSteps(current) {
    let passed = true;
    for (const item of this.host.querySelectorAll(".steps [data-step]")) {
      const isCurrent = item.dataset.step === current;
      passed &&= !isCurrent;
      item.classList.toggle("passed", passed);
      if (isCurrent) {
        item.setAttribute("aria-current", "step");
      } else {
        item.removeAttribute("aria-current");
      }
    }
  }

  note(message) {
    const place = byId("wizard-note");
    if (!place) {
      return;
    }
    place.textContent = message;
    place.hidden = !message;
    if (message) {
      announce(message);
    }
  }

  // --- leaving ---

  forget() {
    this.password = "";
    this.key = "";
    for (const input of this.host.querySelectorAll("input")) {
      endWait(input);
    }
    window.removeEventListener("popstate", this.onPopState);
    window.removeEventListener("resize", this.onResize);
    otherTabs.removeEventListener("message", this.onTabMessage);
    this.host.replaceChildren();
    this.host.hidden = true;
  }

  leave() {
    history.replaceState(null, "");
    this.forget();
    this.onLeave(this.confirmed);
  }

  gone(err) {
    history.replaceState(null, "");
    this.forget();
    this.onGone(err);
  }

  walkedTo(state) {
    if (!state?.wizard) {
      this.forget();
      this.onLeave(this.confirmed);
    } else if (this.confirmed) {
      // The code was accepted: there is nothing behind it to go back to.
      if (state.step !== this.step) {
        this.go(this.step, "push");
        this.note(text("wizard:note_no_way_back"));
      }
    } else if (state.step === "password" || !this.key) {
      this.askPassword(state.step === "password" ? "keep" : "replace");
    } else {
      this.go(state.step, "keep");
    }
  }

  heardFromTab({ what, user }) {
    if (user !== this.user) {
      return;
    }
    if (what === "secret-made" && !this.confirmed && this.key && this.purpose !== "show") {
      this.askPassword("replace");
      this.note(text("wizard:note_other_tab"));
    } else if ((what === "enrolled" && !this.confirmed) || what === "switched-off") {
      // What this wizard was opened for is settled, or the key that it shows is good no more.
      history.replaceState(null, "");
      this.forget();
      this.onLeave(what === "enrolled" && this.purpose !== "show");
    }
  }

  // --- password ---

  askPassword(entry) {
    this.password = "";
    this.key = "";
    byId("wizard-qr").removeAttribute("src");
    byId("wizard-key").textContent = "";
    byId("wizard-password").value = "";
    byId("wizard-old-code").value = "";
    byId("wizard-code").value = "";
    hidePasswords(this.host);
    this.go("password", entry);
  }

  async submitPassword() {
    const input = byId("wizard-password");
    if (!input.value) {
      showFieldError(input, text("common:password_missing"));
      return;
    }
    const oldCode = this.purpose === "renew" ? readCode(byId("wizard-old-code")) : undefined;
    if (oldCode === "") {
      return;
    }
    this.password = input.value;
    const answer = await this.makeKey(oldCode);
    if (!answer.success) {
      this.password = "";
      this.refused(answer, input, oldCode && byId("wizard-old-code"));
      return;
    }
    input.value = "";
    byId("wizard-old-code").value = "";
    hidePasswords(this.host);
    this.go("scan", "push");
  }

  // --- QR code and key ---

  // `oldCode`: the present phone's, for a new one.
  async makeKey(oldCode) {
    const { answer, label } = await this.askKey(byId("wizard-label").value.trim(), oldCode);
    if (!answer.success) {
      return answer;
    }
    this.key = answer.key;
    byId("wizard-key").replaceChildren(...groupKey(answer.key));
    byId("wizard-copied").textContent = "";
    this.draw(answer, label);
    if (this.purpose !== "show") {
      otherTabs.postMessage({ what: "secret-made", user: this.user });
    }
    return answer;
  }

  // The name was proposed by the page, so one that does not fit is no mistake of the user's.
  async askKey(label, oldCode) {
    const body = { password: this.password, account_name: label };
    const answer = oldCode
      ? await post("/api/otp/renew", { ...body, code: oldCode })
      : await post("/api/otp/qr", body);
    const shorter = cutToBytes(label, kShortLabelBytes);
    if (answer.err !== "label_too_long" || label === shorter) {
      return { answer, label };
    }
    byId("wizard-label").value = shorter;
    return this.askKey(shorter, oldCode);
  }

  draw(answer, label) {
    const image = byId("wizard-qr");
    const whole = isWholePng(answer.img);
    image.closest("figure").hidden = !whole;
    if (whole) {
      image.src = `data:image/png;base64,${answer.img}`;
      image.alt = text("wizard:qr_alt", { label });
    } else {
      image.removeAttribute("src");
      showFieldError(byId("wizard-label"), text("wizard:picture_broken"));
    }
    this.drawnLabel = label;
    return whole;
  }

  sizeQr() {
    const image = byId("wizard-qr");
    if (!image?.naturalWidth) {
      return;
    }
    const side = qrPixels(image.naturalWidth, image.closest("[data-panel]").clientWidth);
    image.width = side;
    image.height = side;
  }

  async redraw() {
    const input = byId("wizard-label");
    const label = input.value.trim();
    if (!requireFilled(input, text("wizard:label_empty"))) {
      return false;
    }
    const length = utf8Length(label);
    if (length > kLabelBytes) {
      showFieldError(input, text("wizard:label_too_long", { length, limit: kLabelBytes }));
      return false;
    }
    const answer = await post("/api/otp/label", { password: this.password, key: this.key, account_name: label });
    if (!answer.success) {
      this.refused(answer, input);
      return false;
    }
    if (!this.draw(answer, label)) {
      return false;
    }
    clearFieldError(input);
    announce(text("wizard:redrawn", { label }));
    return true;
  }

  // With a label that the picture does not carry yet the picture comes first, to be scanned as it now is.
  async leaveScan() {
    if (this.purpose === "show") {
      this.leave();
    } else if (byId("wizard-label").value.trim() !== this.drawnLabel) {
      const button = this.host.querySelector("[data-action=scanned]");
      await whileBusy(this.panel("scan"), button, async () => {
        if (await this.redraw()) {
          this.note(text("wizard:redrawn", { label: this.drawnLabel }));
          byId("wizard-qr").scrollIntoView({ block: "center" });
        }
      });
    } else {
      this.go("code", "push");
    }
  }

  async copyKey() {
    const copied = await copyText(this.key);
    const said = text(copied ? "wizard:copied" : "wizard:copy_failed");
    byId("wizard-copied").textContent = said;
    announce(said);
  }

  // --- first code ---

  async submitCode() {
    const input = byId("wizard-code");
    const code = readAppCode(input);
    if (!code) {
      return;
    }
    const answer = await post("/api/otp/confirm", { password: this.password, code });
    if (answer.success && answer.auth_ok) {
      await this.accepted(answer.mail);
    } else if (this.purpose === "renew" && answer.err === "otp_code_used") {
      // A half minute's codes are used up with the first of them, whichever phone it is of.
      showFieldError(input, text("wizard:renew_next_code"));
    } else if (answer.success && answer.errno) {
      showFieldError(input, errorText(answer));
    } else if (answer.status === 200 || answer.status === 0 || answer.status >= 500) {
      await this.askHowItEnded();
    } else {
      this.refused(answer, undefined, input);
    }
  }

  // The answer to a confirmation was lost or a fault: only the server knows whether the code was accepted.
  async askHowItEnded() {
    const { answer, confirmed } = await this.askConfirmed();
    const checkButton = this.host.querySelector("[data-action=check]");
    checkButton.hidden = true;
    showMessage();
    if (confirmed) {
      await this.accepted(undefined);
      this.note(text("wizard:note_accepted_after_fault"));
    } else if (answer.success) {
      showFieldError(byId("wizard-code"), text(this.purpose === "renew" ? "wizard:not_renewed" : "wizard:not_confirmed"));
    } else if (isGone(answer)) {
      this.gone(this.purpose === "renew" ? "renewal_unknown" : "setup_unknown");
    } else {
      checkButton.hidden = false;
      showMessage(text("wizard:outcome_unknown"));
      checkButton.focus();
    }
  }

  // With a new phone the account is enrolled either way. Whose code holds is told by the key that the server shows.
  async askConfirmed() {
    if (this.purpose === "renew") {
      const { answer } = await this.askKey(this.drawnLabel);
      return { answer, confirmed: answer.success && answer.key === this.key };
    }
    const answer = await get("/api/otp/status");
    return { answer, confirmed: answer.success && answer.enrolled };
  }

  async accepted(mail) {
    this.confirmed = true;
    this.key = "";
    byId("wizard-qr").removeAttribute("src");
    byId("wizard-key").textContent = "";
    byId("wizard-code").value = "";
    otherTabs.postMessage({ what: "enrolled", user: this.user });
    if (this.purpose === "renew") {
      this.finishMail("");
      return;
    }
    const status = await get("/api/otp/status");
    this.mailWritable = status.mail_writable !== false;
    byId("wizard-mail").value = mail ?? "";
    byId("wizard-mail-hint").hidden = !this.mailWritable;
    byId("wizard-mail-fields").hidden = !this.mailWritable;
    byId("wizard-mail-fixed").hidden = this.mailWritable;
    byId("wizard-mail-fixed").textContent = text(mail ? "wizard:mail_fixed" : "common:mail_fixed_none", { mail });
    byId("wizard-mail-save").textContent = text(this.mailWritable ? "common:save" : "wizard:next");
    this.host.querySelector("[data-action=skip]").hidden = !this.mailWritable;
    this.go("mail", "replace");
  }

  // --- recovery address ---

  async submitMail() {
    const input = byId("wizard-mail");
    const mail = input.value.trim();
    if (!this.mailWritable) {
      this.finishMail(mail && text("wizard:done_mail", { mail }));
      return;
    }
    if (!requireFilled(input, text("wizard:mail_missing"))) {
      return;
    }
    if (!input.checkValidity()) {
      showFieldError(input, text("common:mail_form"));
      return;
    }
    const body = { password: this.password, mail };
    if (!byId("wizard-mail-code-field").hidden) {
      body.code = readCode(byId("wizard-mail-code"));
      if (!body.code) {
        return;
      }
    }
    this.mailAnswered(await post("/api/otp/mail", body), input, mail);
  }

  mailAnswered(answer, input, mail) {
    const codeField = byId("wizard-mail-code-field");
    if (answer.success && !answer.errno && answer.saved !== false) {
      this.finishMail(text("wizard:done_mail", { mail }));
    } else if (answer.success) {
      showFieldError(input, answer.errno ? errorText(answer) : text("common:mail_not_saved"));
    } else if (answer.err === "otp_auth_failed" || answer.err === "otp_code_used" || answer.err === "bad_request") {
      // The confirmation is too long ago to stand for a code.
      const asked = !codeField.hidden;
      codeField.hidden = false;
      showFieldError(byId("wizard-mail-code"), asked ? errorText(answer) : text("wizard:mail_needs_code"));
    } else {
      this.refused(answer, input, codeField.hidden ? undefined : byId("wizard-mail-code"));
    }
  }

  finishMail(said) {
    this.password = "";
    byId("wizard-done-mail").textContent = said;
    this.go("done", "replace");
  }

  // --- refusals that every step can meet ---

  // `input` is what the step is about, `code` its field for a code; either may be missing.
  refused(answer, input, code) {
    if (isGone(answer)) {
      this.gone(answer.err);
    } else if (answer.err === "bad_credentials" && this.confirmed) {
      showMessage(errorText(answer));
    } else if (answer.err === "bad_credentials") {
      if (this.step !== "password") {
        this.askPassword("replace");
      }
      showFieldError(byId("wizard-password"), text("common:password_wrong"));
    } else if (answer.err === "no_setup") {
      this.askPassword("replace");
      this.note(errorText(answer));
    } else if (answer.status === 200) {
      showMessage(answer.err ? errorText(answer) : text("wizard:step_failed"));
    } else if (input?.id === "wizard-password") {
      showRefusal(answer, { password: input, code });
    } else {
      showRefusal(answer, { other: input?.closest("[hidden]") ? undefined : input, code });
    }
  }
}
