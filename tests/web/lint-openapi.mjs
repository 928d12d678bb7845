// Lints docs/openapi.yaml with the library of a well-known linter: the library alone, because it reports to nobody.

import { createConfig, formatProblems, getTotals, lint } from "@redocly/openapi-core";
import { fileURLToPath } from "node:url";

const config = await createConfig({
  extends: ["recommended-strict"],
  rules: {
    "no-invalid-media-type-examples": { severity: "error", allowAdditionalProperties: false },
    "no-invalid-schema-examples": "error",
    "no-unused-components": "error",
    "no-ambiguous-paths": "off", // A file may have any name that is no endpoint's.
    "no-server-example.com": "off", // The device itself is the server.
    "operation-2xx-response": "off", // The root leads elsewhere.
  },
});
const problems = await lint({ ref: fileURLToPath(new URL("../../docs/openapi.yaml", import.meta.url)), config });
const totals = getTotals(problems);
formatProblems(problems, { format: "codeframe", totals, version: "" });
process.exit(totals.errors || totals.warnings ? 1 : 0);
