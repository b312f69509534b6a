// installed_manuals.mjs COMMAND...: runs what the manuals do with installed packages (their blocks with `skip:package`), in a
// machine that COMMAND... runs its arguments in and that has the packages' files in /debs, and compares what they print with
// what stands below them. Where nothing does, they only have to succeed. For scripts/test-package; ends with 1 when
// something is not as it should be.
import { spawnSync } from "node:child_process";
import { dirname, join } from "node:path";
import { setTimeout as sleep } from "node:timers/promises";
import { fileURLToPath } from "node:url";

import { readDocuments, withoutChanges } from "./manuals.mjs";

const kPatienceMs = 15_000;
const [inside, ...options] = process.argv.slice(2);
const documents = readDocuments(join(dirname(fileURLToPath(import.meta.url)), "../../doc"));
const commands = documents.flatMap(({ name, blocks }) => blocks.filter(({ skip }) => skip === "package")
  .flatMap((block) => block.commands.map((command) => ({ name, ...command }))));

const run = (command) => spawnSync(inside, [...options, "sh", "-c", `cd /debs && ${command}`], { encoding: "utf8" });
const isShown = ({ status, stdout, stderr }, shown) =>
  status === 0 && (shown === "" || withoutChanges(stdout + stderr) === withoutChanges(shown));

for (const { name, command, shown } of commands) {
  let result = run(command);
  // What only looks is asked again: nobody types it in the moment in which the one before it has ended.
  for (const end = Date.now() + kPatienceMs; shown !== "" && !isShown(result, shown) && Date.now() < end; await sleep(100)) {
    result = run(command);
  }
  if (!isShown(result, shown)) {
    console.log(`${name}: ${command}\n--- shown\n${shown}--- printed, status ${result.status}\n${result.stdout}${result.stderr}`);
    process.exitCode = 1;
  }
}
console.log(`${commands.length} commands`);
if (commands.length < 5) {
  process.exitCode = 1;
}
