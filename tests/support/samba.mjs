// A domain with a real controller, which the server under test has joined (samba_domain.py).
import { spawn } from "node:child_process";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";

import { kDomain, setUpDirectory } from "./directory.mjs";
import { run } from "./server.mjs";

const kProgram = join(dirname(fileURLToPath(import.meta.url)), "samba_domain.py");
const kReader = "cn=reader,cn=users,dc=corp,dc=test";

// Before the server: without it nothing is to go on.
export async function startSamba() {
  const child = spawn("/usr/bin/python3", [kProgram], { stdio: ["ignore", "pipe", "inherit"] });
  const [controller] = await new Promise((resolve, reject) => {
    child.stdout.once("data", (line) => resolve(String(line).trim().split(" ").slice(1).map(Number)));
    child.once("exit", (status) => reject(new Error(`samba_domain.py ended: ${status}`)));
  });
  child.unref(); // what fails later is not to wait for it
  child.stdout.unref();
  return {
    // Makes it the domain of the server under test, which has been set up.
    setUp: (uri) => setUpDirectory({ ...kDomain, bind_dn: kReader }, "/srv/tls", uri),
    // What an administrator of the domain does.
    tool: (...words) => run("samba-tool", [...words, "--configfile=/srv/dc/etc/smb.conf"]),
    killController: () => process.kill(controller, "SIGKILL"),
    async stop() {
      const ended = new Promise((resolve) => child.once("exit", resolve));
      child.ref();
      child.kill("SIGKILL");
      await ended;
    },
  };
}
