// screenshots.mjs FOLDER: the pictures of the documents, from the running product.
import { mkdirSync } from "node:fs";
import { join } from "node:path";

import { newVisitor, startBrowser } from "../support/browser.mjs";
import { run, startServer } from "../support/server.mjs";
import { atCodeField, atOverview, listed, openAdmin, signIn, startSetup } from "./steps.mjs";
import { enrol } from "./wizard.mjs";

const folder = process.argv[2];
mkdirSync(folder, { recursive: true });
const server = await startServer({ accounts: { admin: ["--admin"], alice: [], bob: [], carol: [] } });
const browser = await startBrowser();
const take = (page, name, part = "#content") =>
  page.locator(part).screenshot({ path: join(folder, `${name}.png`), animations: "disabled" });
try {
  const { context } = await newVisitor(browser, server.url, { viewport: { width: 560, height: 1200 } });
  const page = await context.newPage();
  await signIn(page, "alice", server.passwords.alice);
  await atOverview(page, { on: false });
  await startSetup(page, server.passwords.alice);
  await take(page, "wizard");

  for (const [name, text] of [["staff", "Whoever works here"], ["guests", "From elsewhere, for a while"]]) {
    run("tavrctl", ["group", "add", name, "--desc", text]);
  }
  run("tavrctl", ["enforce", "add", "local_group", "staff"]);
  const admin = await enrol(server, "admin");
  await context.clearCookies();
  await atCodeField(page, server, "admin");
  await take(page, "code");
  await context.clearCookies();
  await openAdmin(page, admin);
  run("tavrctl", ["enforce", "option", "custom"]);
  await page.reload();
  await page.selectOption("#type", "local_group");
  await listed(page, "staff");
  await take(page, "admin", "section[aria-labelledby=list-heading]");
} finally {
  await browser.close();
  await server.stop();
}
