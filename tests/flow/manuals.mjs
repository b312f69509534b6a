// The manuals' commands and what they show, for who runs them: manuals_test.mjs in a view, installed_manuals.mjs where the
// packages are installed. A block of commands begins with ```console, perhaps with marks behind it (`after:STEP`,
// `skip:REASON`). What changes from one time to the next (kChanges) may be another value of its kind.
import assert from "node:assert/strict";
import { readdirSync, readFileSync } from "node:fs";
import { join } from "node:path";

const kChanges = [
  [/\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ/g, "<time>"],
  [/\b\d+ s ago/g, "<n> s ago"],
  [/\b\d+ MiB free/g, "<n> MiB free"],
  [/^\d{8}$/gm, "<code>"],
  [/^[0-9a-f]{16}\t(.*)(\t\d+){3}$/gm, "<session>\t$1\t<ages>"],
  [/^(\d+\twaiting\t\S+\t\S+\t\d+\t)\d+/gm, "$1<seconds>"],
  [/\bafter \d+ ms\b/g, "after <n> ms"],
  [/^(?:ok|warning)\tclock\t.*$/gm, "<state>\tclock\t<time>"],   // as the machine's is
  [/[ \t]+$/gm, ""],
];
export const withoutChanges = (text) => kChanges.reduce((left, [pattern, kind]) => left.replace(pattern, kind), text);

function commandsOf(content) {
  const commands = [];
  for (const line of content.split("\n").slice(0, -1)) {
    const last = commands.at(-1);
    if (line.startsWith("# ")) {
      commands.push({ command: line.slice(2), shown: "" });
    } else if (last.shown === "" && last.command.endsWith("\\")) {
      last.command += `\n${line}`;
    } else {
      last.shown += `${line}\n`;
    }
  }
  return commands;
}

function blocksOf(text) {
  return [...text.matchAll(/^```(\S+)(.*)\n([^]*?)^```$/gm)].map(([, kind, words, content]) => {
    const marks = words.trim().split(" ").filter(Boolean).map((word) => word.split(":"));
    const marked = (what) => marks.find(([name]) => name === what)?.[1];
    assert.ok(marks.every(([what]) => ["after", "skip"].includes(what)), words);
    return { kind, after: marked("after"), skip: marked("skip"), commands: kind === "console" ? commandsOf(content) : [] };
  });
}

export const readDocuments = (folder) => readdirSync(folder).filter((name) => name.endsWith(".md")).sort().map((name) => {
  const text = readFileSync(join(folder, name), "utf8");
  return { name, text, blocks: blocksOf(text) };
});
