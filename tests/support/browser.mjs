// Chromium for a test, and a watch on what a page must not do: errors in the console, scripts that throw, requests to
// another host, violations of the content security policy.
import assert from "node:assert/strict";
import { spawnSync } from "node:child_process";
import { mkdirSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { createRequire } from "node:module";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";

const kSource = dirname(dirname(dirname(fileURLToPath(import.meta.url))));
const npm = createRequire(join(kSource, "build/npm/"));
const { chromium } = npm("playwright-core");
const kAxe = readFileSync(npm.resolve("axe-core/axe.min.js"), "utf8");
const kFlags = ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
  "--disable-component-update", "--disable-sync"];

export const kScreenshots = join(process.env.TEST_BUILD ?? join(kSource, "build/dev"), "screenshots");

export async function startBrowser(flags = []) {
  mkdirSync(kScreenshots, { recursive: true });
  return chromium.launch({ executablePath: "/usr/bin/chromium", args: [...kFlags, ...flags] });
}

// A fresh profile. `problems` fills with one line for each thing that went wrong.
export async function newVisitor(browser, base, options = {}) {
  const context = await browser.newContext({ baseURL: base, locale: "en-GB", viewport: { width: 1280, height: 900 },
    ...options });
  context.setDefaultTimeout(30_000);
  const problems = [];
  context.on("page", (page) => watch(page, base, problems));
  return { context, problems };
}

function watch(page, base, problems) {
  page.on("pageerror", (error) => problems.push(`script: ${error.message}`));
  page.on("request", (request) => {
    if (!request.url().startsWith(`${base}/`) && !request.url().startsWith("data:")) {
      problems.push(`request to ${request.url()}`);
    }
  });
  page.on("response", (response) => {
    if (response.status() >= 400 && !response.url().startsWith(`${base}/api/`)) {
      problems.push(`${response.status()} for ${response.url()}`);
    }
  });
  page.on("console", (message) => {
    // The browser's own line for an answer of 400 and above. Refusals of the interface are such answers.
    const refusal = message.text().startsWith("Failed to load resource") &&
      message.location().url.startsWith(`${base}/api/`);
    if (["error", "warning"].includes(message.type()) && !refusal) {
      problems.push(`console: ${message.text()}`);
    }
  });
}

// What axe finds in the page as it stands, one line a finding.
export async function accessibilityFindings(page) {
  if (!await page.evaluate(() => "axe" in window)) {
    await page.evaluate(kAxe);
  }
  const { violations } = await page.evaluate(() => window.axe.run(document, { resultTypes: ["violations"] }));
  return violations.flatMap(({ id, nodes }) => nodes.map((node) => `${id}: ${node.target} ${node.failureSummary}`));
}

// What is wider than the window or than the element that it stands in, and words that are broken where nothing says
// that they may be, one line a finding. Names and addresses are anybody's: those are cut or broken on purpose.
export function layoutFindings(page) {
  return page.evaluate(() => {
    const shown = (element) => element.checkVisibility() && getComputedStyle(element).clipPath === "none";
    const elements = [...document.querySelectorAll("body *:not(input, select, option, script)")].filter(shown);
    const tooWide = [document.documentElement, ...elements].filter((element) => element.clientWidth > 0 &&
      element.scrollWidth > element.clientWidth + 1 && getComputedStyle(element).textOverflow !== "ellipsis");

    const range = document.createRange();
    // The first letter after a soft hyphen brings the rectangle of that in the row above along.
    const rowsOf = (node, start, length) => {
      range.setStart(node, start);
      range.setEnd(node, start + length);
      return new Set([...range.getClientRects()].map(({ top }) => Math.round(top))).size;
    };
    const ours = (node) => node.nodeType === Node.TEXT_NODE && !/@/.test(node.data) && !node.parentElement.matches("[dir=auto]");
    const broken = elements.flatMap((element) => [...element.childNodes].filter(ours).flatMap((node) =>
      [...node.data.matchAll(/[\p{L}\p{M}]+/gu)]
        .filter((word) => rowsOf(node, word.index + 1, word[0].length - 1) > 1).map(([word]) => word)));

    return [
      ...tooWide.map((element) => `${element.scrollWidth - element.clientWidth} pixels too wide: ` +
        `${element.tagName.toLowerCase()}#${element.id} "${element.textContent.trim().slice(0, 40)}"`),
      ...broken.map((word) => `broken: ${word}`),
    ];
  });
}

// The windows and colours that every page is looked at in.
export const kWindows = [360, 1280].flatMap((width) => ["light", "dark"].map((colorScheme) => ({ width, colorScheme })));

// Gives a function that looks at the page as it stands: a screenshot of it, nothing wider than the window, nothing
// that axe finds fault with.
export function looker(page, name, findings) {
  let count = 0;
  return async (what) => {
    count += 1;
    await page.screenshot({
      path: join(kScreenshots, `${name}-${String(count).padStart(2, "0")}-${what}.png`), fullPage: true, animations: "disabled",
    });
    findings.push(...(await accessibilityFindings(page)).map((finding) => `${what}: ${finding}`));
    findings.push(...(await layoutFindings(page)).map((finding) => `${what}: ${finding}`));
    const { headings, nameless } = await page.evaluate(() => ({
      headings: document.querySelectorAll("h1").length,
      nameless: [...document.querySelectorAll("h1, h2")].filter((h) => h.checkVisibility() && !h.textContent).length,
    }));
    if (headings !== 1 || nameless) {
      findings.push(`${what}: ${headings} main headings, ${nameless} without text`);
    }
  };
}

// Looks at the page in every window, and fails the test at its end when there is something to find fault with.
export function inEveryWindow(t, page, name) {
  const findings = [];
  t.after(() => assert.deepEqual(findings, []));
  const looks = kWindows.map(({ width, colorScheme }) =>
    ({ width, colorScheme, look: looker(page, `${name}-${width}-${colorScheme}`, findings) }));
  return async (what) => {
    for (const { width, colorScheme, look } of looks) {
      await page.setViewportSize({ width, height: 800 });
      await page.emulateMedia({ colorScheme });
      await look(what);
    }
  };
}

// The text of the QR code in an element, as a camera would read it off the screen.
export async function readQr(element) {
  const file = `/tmp/qr-${process.pid}.png`;
  writeFileSync(file, await element.screenshot());
  const result = spawnSync("zbarimg", ["-q", "--raw", file], { encoding: "utf8" });
  rmSync(file);
  return result.stdout.trim();
}
