// The pages in German, whose words are longer, in a small window: nothing is wider than its place, and no word is broken
// where it must not be. What else the pages do is shown in the first language.
import assert from "node:assert/strict";
import { test } from "node:test";

import { local } from "../support/accounts.mjs";
import { looker } from "../support/browser.mjs";
import { openStage } from "./stage.mjs";
import {
  atOverview, atStep, enter, errorAt, givePassword, json, listed, openAdmin, refuse, signIn, signOut, startSetup, typeCode,
} from "./steps.mjs";
import { enrol } from "./wizard.mjs";

const kSmall = { locale: "de-AT", viewport: { width: 360, height: 800 } };
const { server, visit } = await openStage({
  anna: [], berta: ["--admin"], "maximiliane-charlotte.von-hohenfels": ["--desc", "Rechtsabteilung"],
});
local.addGroup("buchhaltung", "Finanzbuchhaltung und Rechnungswesen");

test("a person's pages", async (t) => {
  const page = await visit(t, kSmall);
  const findings = [];
  const look = looker(page, "german", findings);
  const password = server.passwords.anna;

  await page.goto("/");
  await page.waitForSelector("#password-form:visible");
  assert.equal(await page.getAttribute("html", "lang"), "de");
  assert.equal(await page.title(), "Anmelden · Serververwaltung");
  await signIn(page, "anna", "falsch");
  assert.equal(await errorAt(page, "password"), "Benutzername oder Passwort stimmt nicht.");
  await look("sign-in");
  await signIn(page, "anna", password);
  await atOverview(page, { on: false });
  await look("off");
  await startSetup(page, password);
  await page.fill("#wizard-label", "ü".repeat(33));
  await page.click("#wizard-label-form [type=submit]");
  assert.match(await errorAt(page, "wizard-label"), /^Dieser Name ist zu lang: Er hat 66 Byte, und 64 haben Platz\./);
  await look("scan");
  await page.fill("#wizard-label", "Mein Speicher");
  await page.click("#wizard-label-form [type=submit]");
  await page.waitForFunction(() => document.getElementById("wizard-qr").alt.includes("Mein Speicher"));
  const key = (await page.textContent("#wizard-key")).replaceAll(" ", "");
  await page.click("[data-action=scanned]");
  await atStep(page, "code");
  await typeCode(page, server.wrongCode(key));
  await errorAt(page, "wizard-code");
  await look("code");
  await typeCode(page, server.code(key));
  await atStep(page, "mail");
  await look("address");
  await page.fill("#wizard-mail", "jemand.mit.langem.namen@ein-ziemlich-langer-rechnername.example.com");
  await page.click("#wizard-mail-save");
  await atStep(page, "done");
  await look("done");
  await page.click("[data-action=finish]");
  await atOverview(page, { on: true });
  await look("on");
  await page.click("#change-mail");
  await look("change-address");
  await page.click("#mail-cancel");
  await page.click("#switch-off");
  await look("switch-off");
  await page.click("#off-cancel");
  await page.click("#new-phone");
  await atStep(page, "password");
  await look("new-phone");
  await page.click("[data-panel=password] [data-action=leave]");
  await page.click("#show-again");
  await givePassword(page, password);
  await look("show-again");
  await page.click("[data-action=scanned]");
  await atOverview(page, { on: true });
  await signOut(page);

  await signIn(page, "anna", password);
  await page.waitForSelector("#code-form:visible");
  await refuse(page, "/api/signin/code", 429, { err: "too_many_attempts" }, { "Retry-After": "3661" });
  await enter(page, "#code", server.wrongCode(key));
  assert.match(await errorAt(page, "code"), /In 1 Stunde 1 Minute 1 Sekunde können Sie es wieder versuchen\./);
  await refuse(page, "/api/signin/emergency", 503, { err: "otp_unavailable" });
  await page.click("#no-app");
  await page.waitForSelector("#message:visible");
  await look("second-step");

  assert.deepEqual(findings, []);
});

test("the administrator's page", async (t) => {
  const berta = await enrol(server, "berta");
  const page = await visit(t, { ...kSmall, colorScheme: "dark" });
  const findings = [];
  const look = looker(page, "german-admin", findings);

  await openAdmin(page, berta);
  await listed(page, "anna");
  await look("accounts");
  await page.check("[name=option][value=custom]");
  await page.click("#save-option");
  await page.waitForSelector("#message:visible");
  assert.match(await page.textContent("#message"),
    /^Gespeichert\. Wer die Anmeldung in zwei Schritten verwenden muss: Ausgewählte Konten und Gruppen\.$/);
  await page.locator("#rows tr", { hasText: "maximiliane" }).locator(".demands").check();
  await page.locator("#not-enrolled", { hasText: "1 Konto dieses Servers" }).waitFor();
  await page.check("#select-page");
  await look("picked");
  await page.selectOption("#type", "local_group");
  await listed(page, "buchhaltung");
  await look("groups");
  await page.fill("#query", "gibt es nicht");
  await page.locator("#empty", { hasText: "Nirgends kommt" }).waitFor();
  await page.fill("#query", "");
  await page.selectOption("#type", "domain_user");
  await page.waitForSelector("#list-message:visible");
  await look("no-domain");
  await page.selectOption("#type", "local_user");
  await listed(page, "maximiliane");
  await page.locator("#rows tr", { hasText: "maximiliane" }).locator(".resets").click();
  await page.keyboard.press("Enter");
  await errorAt(page, "reset-password");
  await look("reset");

  // Numbers are written as Germans do.
  await page.keyboard.press("Escape");
  await page.route("**/api/enforce/option", (route) =>
    route.fulfill(json(200, { success: true, option: "user", not_enrolled: 12345 })));
  await page.reload();
  await page.locator("#not-enrolled", { hasText: "12.345 Konten dieses Servers" }).waitFor();
  assert.deepEqual(findings, []);
});
