// What both pages do with their documents: errors beside fields, messages, forms, focus.
import { text } from "./messages.js";

export const byId = (id) => document.getElementById(id);

// Shows what is wrong beside `input` (in the element "<id>-error") and takes the user there.
export function showFieldError(input, message) {
  const place = byId(`${input.id}-error`);
  place.textContent = message;
  place.hidden = false;
  input.setAttribute("aria-invalid", "true");
  if (document.activeElement === input) {
    announce(message);   // a field that is entered is read with its error, one that has the focus already is not
  }
  input.focus();
  input.select();
}

export function clearFieldError(input) {
  const place = byId(`${input.id}-error`);
  if (place) {
    place.hidden = true;
    place.textContent = "";
    input.removeAttribute("aria-invalid");
  }
}

// A message that belongs to no field. Without text it goes away.
export function showMessage(message, kind = "error") {
  const place = byId("message");
  place.textContent = message ?? "";
  place.dataset.kind = kind;
  place.hidden = !message;
}

// Says something to a screen reader without moving the focus.
export function announce(message) {
  const live = byId("live");
  live.textContent = "";
  setTimeout(() => { live.textContent = message; }, 50);   // a region that is emptied first is read again
}

// Where a heading may be broken is of no use in a title, and some windows show it.
export function setTitle(title) {
  document.title = text("common:page_title", { title: title.replaceAll("\u00ad", "") });
}

// Calls `handle` once for a submission: another one while it runs is dropped. A form that has to wait (refusals.js)
// says instead how long still.
export function onSubmit(form, handle) {
  form.addEventListener("submit", async (event) => {
    event.preventDefault();
    if (form.dataset.busy) {
      return;
    }
    if (form.dataset.waits) {
      announce(byId(form.dataset.waits).lastElementChild.textContent);
      return;
    }
    showMessage();
    for (const input of form.querySelectorAll("input")) {
      clearFieldError(input);
    }
    await whileBusy(form, form.querySelector("[type=submit]"), handle);
  });
  form.addEventListener("input", (event) => {
    if (!event.target.readOnly) {
      clearFieldError(event.target);
    }
  });
}

export async function whileBusy(region, button, work) {
  region.dataset.busy = "1";
  button.setAttribute("aria-busy", "true");
  try {
    await work();
  } finally {
    delete region.dataset.busy;
    button.removeAttribute("aria-busy");
  }
}

// A field that must not be empty. False when it is, which then stands beside it.
export function requireFilled(input, message) {
  if (input.value.trim()) {
    return true;
  }
  showFieldError(input, message);
  return false;
}

// The code in `input`, an app's or an emergency code, without the blanks that are shown between the groups; empty,
// and said so, when it is none.
export function readCode(input) {
  return readDigits(input, /^([0-9]{6}|[0-9]{8})$/, "common:code_form");
}

// Likewise where only the app's will do.
export function readAppCode(input) {
  return readDigits(input, /^[0-9]{6}$/, "common:app_code_form");
}

function readDigits(input, form, formKey) {
  const code = input.value.replace(/\s/g, "");
  if (form.test(code)) {
    return code;
  }
  showFieldError(input, text(code ? formKey : "common:code_missing"));
  return "";
}

// Buttons that show the password of the field they name in data-shows.
export function wirePasswordButtons(root) {
  for (const button of root.querySelectorAll("[data-shows]")) {
    button.addEventListener("click", () => showPassword(button, button.getAttribute("aria-pressed") !== "true"));
  }
}

export function hidePasswords(root) {
  for (const button of root.querySelectorAll("[data-shows]")) {
    showPassword(button, false);
  }
}

function showPassword(button, shown) {
  byId(button.dataset.shows).type = shown ? "text" : "password";
  button.setAttribute("aria-pressed", String(shown));
}

// A page kept by the browser for its back button holds an earlier state: ask the server anew.
export function reloadWhenRestored() {
  window.addEventListener("pageshow", (event) => {
    if (event.persisted) {
      location.reload();
    }
  });
}
