// Where a file of browser flows plays: a server with its accounts, and a browser.
import assert from "node:assert/strict";
import { after } from "node:test";

import { newVisitor, startBrowser } from "../support/browser.mjs";
import { startServer } from "../support/server.mjs";

// For all tests of the file. `visit(t, options)` gives a page of a fresh visitor; what goes wrong on it behind the
// test's back (browser.mjs) fails the test. `visitor(options)` is a visitor to whom something has to go wrong.
export async function openStage(accounts) {
  const server = await startServer({ accounts });
  let browser;
  after(async () => {
    await browser?.close();
    await server.stop();
  });
  browser = await startBrowser();
  const visitor = (options) => newVisitor(browser, server.url, options);
  const visit = async (t, options) => {
    const { context, problems } = await visitor(options);
    t.after(async () => {
      await context.close();
      assert.deepEqual(problems, []);
    });
    return context.newPage();
  };
  return { server, visit, visitor };
}

// Accounts by these names, with no options.
export const plain = (names) => Object.fromEntries(names.map((name) => [name, []]));
