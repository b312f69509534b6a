// What the reference of the HTTP interface says, for tests that hold the product to it.
import { readFileSync } from "node:fs";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";

const kSource = dirname(dirname(dirname(fileURLToPath(import.meta.url))));

// Its table of refusals: [{ status, err }], one for each key.
export function documentedErrors() {
  const reference = readFileSync(join(kSource, "doc/http-api.md"), "utf8");
  return [...reference.matchAll(/^\| ([45]\d\d) \| ([^|]+) \|/gm)].flatMap(([, status, keys]) =>
    [...keys.matchAll(/`([a-z_]+)`/g)].map(([, err]) => ({ status: Number(status), err })));
}
