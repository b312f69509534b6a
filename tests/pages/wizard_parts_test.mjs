import assert from "node:assert/strict";
import test from "node:test";

import { pickLanguage } from "../../web/pages/shared/messages.js";
import { isWholePng, labelFor, qrPixels, utf8Length } from "../../web/pages/shared/wizard_parts.js";

const kPng = "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAQAAAC1HAwCAAAAC0lEQVR42mNkYAAAAAYAAjCB0C8AAAAASUVORK5CYII=";

test("the proposed label names the user and the server and fits into 64 bytes", () => {
  for (const [user, host, label, why] of [
    ["alice", "nas.example", "alice@nas.example", "a local name"],
    ["mia@office.example", "nas.example", "mia@office.example", "a name that has a place already"],
    ["OFFICE\\mia", "nas", "OFFICE\\mia@nas", "a domain name"],
    ["a".repeat(60), "nas.example", "a".repeat(60), "no room for the server"],
    ["a".repeat(65), "nas", "a".repeat(64), "one byte too many"],
    ["ä".repeat(33), "nas", "ä".repeat(32), "characters of two bytes"],
    ["a" + "😀".repeat(16), "nas", "a" + "😀".repeat(15), "never half a character"],
  ]) {
    assert.equal(labelFor(user, host), label, why);
    assert.ok(utf8Length(labelFor(user, host)) <= 64, why);
  }
});

test("the picture gets a whole number of pixels for a module, and three at the least", () => {
  for (const [natural, room, shown, why] of [
    [65 * 6, 294, 65 * 4, "a small window"],
    [65 * 6, 480, 65 * 5, "five are enough"],
    [65 * 6, 100, 65 * 3, "never below three"],
    [391, 294, 391, "a picture of another making stays as it is"],
  ]) {
    assert.equal(qrPixels(natural, room), shown, why);
  }
});

test("a picture counts only from its first byte to its end mark", () => {
  const bytes = Buffer.from(kPng, "base64");
  assert.equal(isWholePng(kPng), true);
  assert.equal(isWholePng(bytes.subarray(0, -1).toString("base64")), false);
  assert.equal(isWholePng(bytes.subarray(0, 30).toString("base64")), false);
  assert.equal(isWholePng(bytes.subarray(1).toString("base64")), false);
  assert.equal(isWholePng(""), false);
  assert.equal(isWholePng("not base 64"), false);
});

test("the language is the first that the browser prefers and the list has", () => {
  const languages = [{ code: "enu", tag: "en" }, { code: "ger", tag: "de" }, { code: "ptb", tag: "pt-BR" }];
  for (const [preferred, code] of [
    [["de-AT", "en"], "ger"],
    [["fr", "DE"], "ger"],
    [["pt"], "ptb"],
    [["xx"], "enu"],
    [[], "enu"],
  ]) {
    assert.equal(pickLanguage(languages, preferred).code, code, preferred.join());
  }
});
