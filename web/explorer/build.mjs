// Builds the explorer into the directory that is named, or into build/www/webclient: what a device serves, and nothing else.
import { build } from "esbuild";
import { copyFile, mkdir, readdir, readFile, rm } from "node:fs/promises";
import { join } from "node:path";
import { fileURLToPath } from "node:url";
import { gzipSync } from "node:zlib";

const MOST_BYTES = 60 * 1024;
const here = (name) => fileURLToPath(new URL(name, import.meta.url));
const out = process.argv[2] ?? here("../../build/www/webclient");

await rm(out, { recursive: true, force: true });
await mkdir(out, { recursive: true });
await build({
  entryPoints: ["src/main.tsx", "src/style/main.css"].map((name) => ({ in: here(name), out: "main" })),
  outdir: out,
  bundle: true,
  minify: true,
  format: "esm",
  target: "es2022",
  jsx: "automatic",
  jsxImportSource: "preact",
  conditions: ["source"],
  legalComments: "none",
});
for (const name of ["index.html", "icon.svg"]) await copyFile(here(`src/${name}`), join(out, name));

const names = await readdir(out);
const sizes = await Promise.all(
  names.map(async (name) => gzipSync(await readFile(join(out, name)), { level: 9 }).length),
);
const whole = sizes.reduce((sum, size) => sum + size, 0);
console.log(
  `explorer: ${whole} of ${MOST_BYTES} bytes, compressed (${names.map((name, i) => `${name} ${sizes[i]}`).join(", ")})`,
);
if (whole > MOST_BYTES) {
  console.error(`explorer: too large by ${whole - MOST_BYTES} bytes`);
  process.exit(1);
}
