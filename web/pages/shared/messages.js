// The message catalogue. Texts stand in messages/<language>.json by section and key and are asked for as
// "section:key", the form in which the server sends its errors too. A text may be an object of plural forms.

const kFolder = "/shared/messages/";

let messages = {};
let plural = new Intl.PluralRules("en");

// Loads the catalogue of the language that the browser prefers, or the first of the list.
export async function loadMessages() {
  const languages = await fetchJson("languages.json");
  const language = pickLanguage(languages, navigator.languages ?? [navigator.language]);
  messages = await fetchJson(`${language.code}.json`);
  plural = new Intl.PluralRules(language.tag);
  document.documentElement.lang = language.tag;
}

export function pickLanguage(languages, preferred) {
  for (const wanted of preferred) {
    const primary = wanted.toLowerCase().split("-")[0];
    const found = languages.find((language) => language.tag.split("-")[0] === primary);
    if (found) {
      return found;
    }
  }
  return languages[0];
}

export function text(key, values = {}) {
  const [section, name] = key.split(":");
  let message = messages[section]?.[name];
  if (message === undefined) {
    return key === "common:unknown" ? key : text("common:unknown", { key });
  }
  if (typeof message === "object") {
    message = message[plural.select(values.n)] ?? message.other;
  }
  return message.replace(/\{(\w+)\}/g, (whole, name) => values[name] ?? whole);
}

// What went wrong, for an answer of api.js. A code that would be right on another clock is told with the clock.
export function errorText(answer) {
  const ahead = answer.clock_ahead_minutes;
  if (ahead) {
    const key = ahead > 0 ? "common:clock_ahead" : "common:clock_behind";
    return text(key, { minutes: text("common:minutes", { n: Math.abs(ahead) }) });
  }
  if (answer.errno && !answer.err) {
    return text(`${answer.errno.section}:${answer.errno.key}`);
  }
  return text(`web:${answer.err ?? "internal"}`, { wait: durationText(Math.max(1, answer.retryAfter ?? 0)) });
}

// "1 minute 30 seconds"
export function durationText(seconds) {
  const parts = [[Math.floor(seconds / 3600), "common:hours"], [Math.floor(seconds / 60) % 60, "common:minutes"],
    [seconds % 60, "common:seconds"]];
  return parts.filter(([n]) => n > 0).map(([n, key]) => text(key, { n })).join(" ");
}

// Fills data-text (content) and data-label (aria-label) below `root`.
export function fillTexts(root) {
  for (const element of root.querySelectorAll("[data-text]")) {
    element.textContent = text(element.dataset.text);
  }
  for (const element of root.querySelectorAll("[data-label]")) {
    element.setAttribute("aria-label", text(element.dataset.label));
  }
}

async function fetchJson(name) {
  const response = await fetch(kFolder + name);
  if (!response.ok) {
    throw new Error(`${name}: ${response.status}`);
  }
  return response.json();
}
