// Commands that tests run and wait for.
import { spawnSync } from "node:child_process";

// Runs a console command, with `input` on its standard input, and gives its output. Throws when it fails.
export function run(command, args, input = "") {
  const result = spawnSync(command, args, { input, encoding: "utf8" });
  if (result.status !== 0) {
    throw new Error(`${command} ${args[0] ?? ""}: status ${result.status} ${result.error ?? ""}\n${result.stderr}`);
  }
  return result.stdout;
}

// As the service, whose databases these are.
export function runAsService(command, args, input) {
  return run("setpriv", ["--reuid=tavr-web", "--regid=tavr-web", "--clear-groups", command, ...args], input);
}
