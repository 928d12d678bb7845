// A module of the package as the tests import it, its internal ones included; and how they wait for something.

import assert from "node:assert/strict";
import { setTimeout as sleep } from "node:timers/promises";
import { fileURLToPath } from "node:url";
import { build } from "esbuild";

export async function load(name) {
  const { outputFiles } = await build({
    entryPoints: [fileURLToPath(new URL(`../src/${name}.ts`, import.meta.url))],
    bundle: true,
    format: "esm",
    target: "es2022",
    write: false,
  });
  return import(`data:text/javascript;base64,${Buffer.from(outputFiles[0].contents).toString("base64")}`);
}

export async function until(condition, what = condition) {
  for (const end = Date.now() + 10_000; Date.now() < end; await sleep(2)) if (condition()) return;
  assert.fail(`not in time: ${what}`);
}
