// Builds dist/: the package in one file, with everything that it needs, and its types. Fails when the file is too big.

import { execFileSync } from "node:child_process";
import { readFileSync, rmSync } from "node:fs";
import { createRequire } from "node:module";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";
import { gzipSync } from "node:zlib";
import { build } from "esbuild";

const mostBytes = 12_000; // Gzipped.

process.chdir(dirname(fileURLToPath(import.meta.url)));
rmSync("dist", { recursive: true, force: true });
await build({
  entryPoints: ["src/index.ts"],
  outdir: "dist",
  bundle: true,
  minify: true,
  format: "esm",
  target: "es2022",
});
const compiler = join(dirname(createRequire(import.meta.url).resolve("typescript/package.json")), "bin/tsc");
execFileSync(process.execPath, [compiler, "--noEmit", "false", "--declaration", "--emitDeclarationOnly", "--outDir", "dist"], {
  stdio: "inherit",
});

const bytes = gzipSync(readFileSync("dist/index.js"), { level: 9 }).length;
console.log(`dist/index.js: ${bytes} bytes gzipped, of ${mostBytes} at the most`);
if (bytes >= mostBytes) process.exit(1);
