// Builds dist/: the package in one file, with everything that it needs, and its types. Fails when the file is too big.

import { execFileSync } from "node:child_process";
import { readFileSync, rmSync, writeFileSync } from "node:fs";
import { createRequire } from "node:module";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";
import { gzipSync } from "node:zlib";
import { build } from "esbuild";
import { minify } from "terser";

const mostBytes = 12_000; // Gzipped.

process.chdir(dirname(fileURLToPath(import.meta.url)));
rmSync("dist", { recursive: true, force: true });
const { outputFiles } = await build({
  entryPoints: ["src/index.ts"],
  bundle: true,
  minify: true,
  format: "esm",
  target: "es2022",
  legalComments: "none", // They stand in LICENSES.txt.
  write: false,
});
// Once more, by a tool that finds what the first leaves. Only the first names what is private alike in all classes. Gzip
// finds more in functions that stand together.
const { code } = await minify(outputFiles[0].text, { module: true, ecma: 2020, compress: { passes: 3, hoist_funs: true } });

// It makes dist/ as well.
const compiler = join(dirname(createRequire(import.meta.url).resolve("typescript/package.json")), "bin/tsc");
const declarations = ["--noEmit", "false", "--declaration", "--emitDeclarationOnly", "--outDir", "dist"];
execFileSync(process.execPath, [compiler, ...declarations], { stdio: "inherit" });
writeFileSync("dist/index.js", code);
const licences = ["ciphers", "hashes"].map((name) => `@noble/${name}\n\n${readFileSync(`../node_modules/@noble/${name}/LICENSE`)}`);
writeFileSync("dist/LICENSES.txt", licences.join("\n"));

const bytes = gzipSync(code, { level: 9 }).length;
console.log(`dist/index.js: ${bytes} bytes gzipped, of ${mostBytes} at the most`);
if (bytes >= mostBytes) process.exit(1);
