// A module of the package as the tests import it, its internal ones included.

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
