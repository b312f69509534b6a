// Every key that the pages, the routes, the library and the HTTP reference name has a text, and every text has a user;
// every language has all of them, and none that is stale.
import assert from "node:assert/strict";
import { readdirSync, readFileSync } from "node:fs";
import { basename, dirname, join } from "node:path";
import test from "node:test";
import { fileURLToPath } from "node:url";

import { pickLanguage } from "../../web/pages/shared/messages.js";
import { documentedErrors } from "../support/reference.mjs";

const source = dirname(dirname(dirname(fileURLToPath(import.meta.url))));
const pages = join(source, "web/pages");
const messages = join(pages, "shared/messages");
const mails = join(source, "linux/mail_templates");

const kMarkup = ["admin/index.html", "signin/index.html", "settings/index.html", "shared/wizard.html", "shared/fields.html"];
// Texts that are the same word in this language as in the first.
const kSameWord = { ger: ["wizard:step_code", "admin:column_name"] };

const read = (path) => readFileSync(path, "utf8");
const all = (pattern, text) => [...text.matchAll(pattern)].map((match) => match[1]);
const filesIn = (folder, ends) => readdirSync(folder).filter((name) => name.endsWith(ends)).map((name) => join(folder, name));
const languages = JSON.parse(read(join(messages, "languages.json")));
const catalogue = (code) => JSON.parse(read(join(messages, `${code}.json`)));
const keysOf = (texts) => Object.entries(texts).flatMap(([section, entries]) =>
  Object.keys(entries).map((key) => `${section}:${key}`));

function usedInPages() {
  const folders = ["admin", "signin", "settings", "shared"].map((name) => join(pages, name));
  const markup = folders.flatMap((folder) => filesIn(folder, ".html")).map(read).join("\n");
  const scripts = folders.flatMap((folder) => filesIn(folder, ".js")).map(read).join("\n");
  return [
    ...all(/data-(?:text|label)="([^"]+)"/g, markup),
    ...all(/"((?:common|signin|wizard|settings|admin|web|personal_settings):[a-z0-9_]+)"/g, scripts),
    ...all(/err: "([a-z_]+)"/g, scripts).map((key) => `web:${key}`),
  ];
}

function sentByRoutes() {
  const routes = [".cpp", ".h"].flatMap((ends) => filesIn(join(source, "web"), ends)).map(read).join("\n");
  return [
    ...all(/Refusal\(\s*\d+,\s*"([a-z_]+)"/g, routes),
    ...all(/\["err"\] = "([a-z_]+)"/g, routes),
    ...all(/k(?:No)?Token,\s*"([a-z_]+)"/g, routes),
  ].map((key) => `web:${key}`);
}

function sentByLibrary() {
  const library = filesIn(join(source, "otp"), ".cpp").map(read).join("\n");
  return [
    ...[...library.matchAll(/SetError\(\s*"([a-z_]+)",\s*"([a-z_]+)"/g)].map(([, section, key]) => `${section}:${key}`),
    ...all(/\["err"\] = "([a-z_]+)"/g, library).map((key) => `web:${key}`),
  ];
}

const used = { pages: usedInPages(), routes: sentByRoutes(), library: sentByLibrary(),
  "HTTP reference": documentedErrors().map(({ err }) => `web:${err}`) };

test("the search for keys finds what is known to be there", () => {
  assert.ok(used.pages.includes("wizard:scan_heading"));
  assert.ok(used.pages.includes("web:unreachable"));
  assert.ok(used.routes.includes("web:bad_credentials"));
  assert.ok(used.routes.includes("web:no_pending_signin"));
  assert.ok(used.routes.includes("web:otp_code_used"));
  assert.ok(used["HTTP reference"].includes("web:otp_closed"));
  assert.ok(used["HTTP reference"].includes("web:policy_unavailable"));
  assert.deepEqual(new Set(used.library),
    new Set(["personal_settings:otp_auth_failed", "personal_settings:failed_to_set_ldap_otp_mail", "web:no_mail_address",
      "web:otp_no_emergency_code", "web:mail_service_not_enable"]));
});

for (const [who, keys] of Object.entries(used)) {
  test(`every key of the ${who} has a text`, () => {
    const there = new Set(keysOf(catalogue("enu")));
    assert.deepEqual(keys.filter((key) => !there.has(key)), []);
  });
}

test("no text is left that nothing uses", () => {
  const needed = new Set(Object.values(used).flat());
  assert.deepEqual(keysOf(catalogue("enu")).filter((key) => !needed.has(key)), []);
});

test("every catalogue is a language of the list", () => {
  const files = filesIn(messages, ".json").map((path) => basename(path, ".json")).filter((name) => name !== "languages");
  assert.deepEqual(files.sort(), languages.map(({ code }) => code).sort());
});

const first = catalogue(languages[0].code);
const forms = (text) => typeof text === "string" ? [text] : Object.values(text);
const textAt = (texts, key) => key.split(":").reduce((found, part) => found[part], texts);

for (const { code, tag } of languages) {
  const texts = catalogue(code);
  const every = keysOf(texts).flatMap((key) => forms(textAt(texts, key)));

  test(`${code}: the same keys as in the first language, in the same order`, () => {
    assert.deepEqual(Intl.getCanonicalLocales(tag), [tag]);
    assert.deepEqual(keysOf(texts), keysOf(first));
  });

  test(`${code}: the same placeholders, and the forms that the language has`, () => {
    const placeholders = (text) => new Set(all(/\{(\w+)\}/g, text));
    const counts = new Intl.PluralRules(tag).resolvedOptions().pluralCategories;
    for (const key of keysOf(first)) {
      const wanted = textAt(first, key);
      const found = textAt(texts, key);
      assert.equal(typeof found, typeof wanted, key);
      if (typeof found === "object") {
        assert.deepEqual(Object.keys(found).sort(), [...counts].sort(), key);
      }
      for (const form of forms(found)) {
        assert.ok(form.trim(), key);
        assert.deepEqual(placeholders(form), placeholders(forms(wanted).at(-1)), key);
      }
    }
  });

  test(`${code}: what texts and mails quote of a page is there under that name`, () => {
    const mailed = filesIn(join(mails, code), "").map(read);
    const quoted = (from) => from.flatMap((text) => all(/[“„]([^“„”{]+)[“”]/g, text)).filter((name) => !name.startsWith("tavrctl "));
    assert.deepEqual([quoted(every).length, quoted(mailed).length], [2, 2]);
    assert.deepEqual(quoted([...every, ...mailed]).filter((name) => !every.includes(name)), []);
  });

  test(`${code}: mails are there, with the placeholders of those of the first language`, () => {
    const tags = (of) => readdirSync(join(mails, of)).sort();
    const placeholders = (path) => new Set(all(/%([A-Z_]+)%/g, read(path)));
    assert.deepEqual(tags(code), tags(languages[0].code));
    for (const mail of tags(code)) {
      assert.deepEqual(placeholders(join(mails, code, mail)), placeholders(join(mails, languages[0].code, mail)), mail);
    }
  });
}

test("the first language of the browser's list that is there is taken, else the first of all", () => {
  for (const [preferred, code] of [[["de-AT", "en"], "ger"], [["fr-FR", "de"], "ger"], [["en-US", "de-DE"], "enu"], [["FR", "it"], "enu"],
    [["DE"], "ger"], [["den"], "enu"], [[], "enu"]]) {
    assert.equal(pickLanguage(languages, preferred).code, code, preferred.join());
  }
});

test("no text was left as it is in the first language", () => {
  for (const { code } of languages.slice(1)) {
    const texts = catalogue(code);
    const left = keysOf(texts).filter((key) => JSON.stringify(textAt(texts, key)) === JSON.stringify(textAt(first, key)));
    assert.deepEqual(left, kSameWord[code], code);
  }
});

test("markup holds no text of its own but what is needed without scripts or catalogue", () => {
  for (const name of kMarkup) {
    const text = read(join(pages, name))
      .replace(/<noscript>.*?<\/noscript>|<p id="not-loaded".*?<\/p>|<title>.*?<\/title>|<!doctype[^>]*>/gs, "")
      .replace(/<[^>]*>/g, "").trim();
    assert.equal(text, "", name);
  }
});

test("no inline script, style or handler, which the security policy would refuse", () => {
  for (const name of kMarkup) {
    const markup = read(join(pages, name));
    assert.doesNotMatch(markup, /<style|\sstyle=|\son[a-z]+=|<script(?![^>]*\ssrc=)|javascript:/i, name);
  }
});
