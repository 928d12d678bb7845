// The package: dist/index.js with everything in it, and its types.
import { build } from "esbuild";

await build({ entryPoints: ["src/index.ts"], outdir: "dist", bundle: true, minify: true, format: "esm", target: "es2022" });
