// installed_manuals.mjs COMMAND...: runs what the manuals do with installed packages (their blocks with `skip:package`), in a
// machine that COMMAND... runs its arguments in and that has the packages' files in /debs, and compares what they print with
// what stands below them. Where nothing does, they only have to succeed. For scripts/test-package; ends with 1 when
// something is not as it should be.
import { spawnSync } from "node:child_process";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";

import { readDocuments, withoutChanges } from "./manuals.mjs";

const [inside, ...options] = process.argv.slice(2);
const documents = readDocuments(join(dirname(fileURLToPath(import.meta.url)), "../../doc"));
const commands = documents.flatMap(({ name, blocks }) => blocks.filter(({ skip }) => skip === "package")
  .flatMap((block) => block.commands.map((command) => ({ name, ...command }))));

for (const { name, command, shown } of commands) {
  const { status, stdout, stderr } = spawnSync(inside, [...options, "sh", "-c", `cd /debs && ${command}`],
    { encoding: "utf8" });
  if (status !== 0 || (shown !== "" && withoutChanges(stdout + stderr) !== withoutChanges(shown))) {
    console.log(`${name}: ${command}\n--- shown\n${shown}--- printed, status ${status}\n${stdout}${stderr}`);
    process.exitCode = 1;
  }
}
console.log(`${commands.length} commands`);
if (commands.length < 5) {
  process.exitCode = 1;
}
