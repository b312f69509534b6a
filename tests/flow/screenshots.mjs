// screenshots.mjs FOLDER: the pictures of the documents, from the running product.
import { mkdirSync } from "node:fs";
import { join } from "node:path";

import { newVisitor, startBrowser } from "../support/browser.mjs";
import { startServer } from "../support/server.mjs";
import { atOverview, signIn, startSetup } from "./steps.mjs";

const folder = process.argv[2];
mkdirSync(folder, { recursive: true });
const server = await startServer();
const browser = await startBrowser();
try {
  const { context } = await newVisitor(browser, server.url, { viewport: { width: 560, height: 1200 } });
  const page = await context.newPage();
  await signIn(page, "alice", server.passwords.alice);
  await atOverview(page, { on: false });
  await startSetup(page, server.passwords.alice);
  await page.locator("#content").screenshot({ path: join(folder, "wizard.png"), animations: "disabled" });
} finally {
  await browser.close();
  await server.stop();
}
