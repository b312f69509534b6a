// What the server refuses, told where it belongs: beside the field that it is about, or above the form.
import { announce, byId, clearFieldError, showFieldError, showMessage } from "./dom.js";
import { durationText, errorText, text } from "./messages.js";

const kAboutCode = new Set(["otp_auth_failed", "otp_code_used"]);
const kAboutWhole = new Set(["otp_closed", "bad_origin"]);
const kTickMs = 1000;

// `fields`: those of `password`, `code` and `other` that the form has; `other` is what it is for, an address say.
export function showRefusal(answer, { password, code, other }) {
  if (answer.status === 429) {
    wait(code ?? password ?? other, answer.retryAfter, waitKey(password, code));
  } else if (password && answer.err === "bad_credentials") {
    showFieldError(password, text(code || other ? "common:password_wrong" : "web:bad_credentials"));
  } else if (code && kAboutCode.has(answer.err)) {
    showFieldError(code, errorText(answer));
  } else if (other && answer.status >= 400 && answer.status < 500 && !kAboutWhole.has(answer.err)) {
    showFieldError(other, errorText(answer));
  } else {
    showMessage(errorText(answer));
  }
}

// In a form with both, the answer does not say which of them there were too many of.
function waitKey(password, code) {
  return code && !password ? "common:wait_codes" : "common:wait_attempts";
}

// --- waiting ---

const waits = new Map();   // by field

// Counts down beside `input`, which cannot be changed meanwhile, and its form not be sent. What a screen reader hears
// is the whole time at the beginning and one sentence at the end; the seconds between are for the eye.
function wait(input, seconds, key) {
  endWait(input);
  const whole = Math.max(1, seconds);
  const end = Date.now() + whole * kTickMs;
  showFieldError(input, text(key, { wait: durationText(whole) }));

  const spoken = document.createElement("span");
  spoken.className = "visually-hidden";
  spoken.textContent = byId(`${input.id}-error`).textContent;
  const seen = document.createElement("span");
  seen.setAttribute("aria-hidden", "true");
  byId(`${input.id}-error`).replaceChildren(spoken, seen);

  const tick = () => {
    // A clock that is set back must not make it longer.
    const left = Math.min(whole, Math.ceil((end - Date.now()) / kTickMs));
    if (left > 0) {
      seen.textContent = text(key, { wait: durationText(left) });
      return;
    }
    endWait(input);
    announce(text("common:wait_over"));
  };
  hold(input, true);
  waits.set(input, setInterval(tick, kTickMs));
  tick();
}

// Ends a wait before its time, as when it was another account's.
export function endWait(input) {
  if (!waits.has(input)) {
    return;
  }
  clearInterval(waits.get(input));
  waits.delete(input);
  hold(input, false);
  clearFieldError(input);
}

function hold(input, held) {
  const submit = input.form.querySelector("[type=submit]");
  input.readOnly = held;
  if (held) {
    input.form.dataset.waits = `${input.id}-error`;
    submit.setAttribute("aria-disabled", "true");
  } else {
    delete input.form.dataset.waits;
    submit.removeAttribute("aria-disabled");
  }
}
