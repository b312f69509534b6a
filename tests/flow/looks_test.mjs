// Every step in light and dark, in a small window and a large one: a screenshot of each, nothing wider than the
// window, and nothing that axe finds fault with.
import assert from "node:assert/strict";
import test from "node:test";

import { kWindows, looker } from "../support/browser.mjs";
import { openStage, plain } from "./stage.mjs";
import { atOverview, atStep, errorAt, signIn, signOut, startSetup, typeCode } from "./steps.mjs";

const { server, visit } =
  await openStage(plain(kWindows.map(({ width, colorScheme }) => `${colorScheme}${width}`)));

for (const { width, colorScheme } of kWindows) {
  test(`every step at ${width} pixels, ${colorScheme}`, async (t) => {
    const page = await visit(t, { colorScheme, viewport: { width, height: 800 } });
    const user = `${colorScheme}${width}`;
    const password = server.passwords[user];
    const findings = [];
    const look = looker(page, `${width}-${colorScheme}`, findings);

    await page.goto("/");
    await page.waitForSelector("#password-form:visible");
    await look("sign-in");
    await signIn(page, user, "wrong");
    await errorAt(page, "password");
    await look("wrong-password");
    await signIn(page, user, password);
    await atOverview(page, { on: false });
    await look("settings-off");
    await page.click("#start");
    await atStep(page, "password");
    await look("wizard-password");
    await page.goBack();
    await atOverview(page, { on: false });
    const key = await startSetup(page, password);
    const module = await page.evaluate(() => {
      const { width: shown, naturalWidth } = document.getElementById("wizard-qr");
      return shown / (naturalWidth / 6);
    });
    assert.ok(Number.isInteger(module) && module >= 3, `${module} pixels a module`);
    await look("wizard-scan");
    await page.fill("#wizard-label", "x".repeat(65));
    await page.click("#wizard-label-form [type=submit]");
    await errorAt(page, "wizard-label");
    await look("wizard-label-too-long");
    await page.fill("#wizard-label", "My storage");
    await page.click("#wizard-label-form [type=submit]");
    await page.waitForFunction(() => document.getElementById("wizard-qr").alt.includes("My storage"));
    await page.click("[data-action=scanned]");
    await atStep(page, "code");
    await look("wizard-code");
    await typeCode(page, server.wrongCode(key));
    await errorAt(page, "wizard-code");
    await look("wizard-wrong-code");
    await typeCode(page, server.code(key));
    await atStep(page, "mail");
    await look("wizard-mail");
    await page.fill("#wizard-mail", "somebody.with.a.long.name@a-rather-long-domain.example.com");
    await page.click("#wizard-mail-save");
    await atStep(page, "done");
    await look("wizard-done");
    await page.click("[data-action=finish]");
    await atOverview(page, { on: true });
    await look("settings-on");
    await page.click("#change-mail");
    await look("settings-mail");
    await page.click("#mail-cancel");
    await signOut(page);
    await look("signed-out");
    await signIn(page, user, password);
    await page.waitForSelector("#code-form:visible");
    await look("code");
    await page.fill("#code", "12345");
    await page.keyboard.press("Enter");
    await errorAt(page, "code");
    await look("code-form");

    assert.deepEqual(findings, []);
  });
}

test("without scripts the pages say what they need", async (t) => {
  const page = await visit(t, { javaScriptEnabled: false });
  for (const path of ["/", "/settings", "/admin"]) {
    await page.goto(path);
    assert.match(await page.innerText("main"), /needs JavaScript/);
  }
});
