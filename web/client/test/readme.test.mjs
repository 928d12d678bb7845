// The examples of the README, each a program of its own, against the real device.

import assert from "node:assert/strict";
import { execFile } from "node:child_process";
import { readFile, rm, writeFile } from "node:fs/promises";
import { after, before, test } from "node:test";
import { promisify } from "node:util";
import { startDevice } from "../../../tests/web/device.mjs";

const run = promisify(execFile);
const here = (name) => new URL(name, import.meta.url);
const readme = await readFile(here("../README.md"), "utf8");
const examples = [...readme.matchAll(/```js\n([^]*?)```\n```text\n([^]*?)```/g)];
const program = here("example.tmp.mjs");
let device;

before(async () => (device = await startDevice(process.env.ZARK_HOST, process.env.PROJECT)));
after(async () => {
  await rm(program, { force: true });
  assert.equal(await device.stop(), 0);
});

test("there are ten, and no other code", () => {
  assert.deepEqual([examples.length, readme.match(/```js/g).length], [10, 10]);
});

for (const [index, [, code, expected]] of examples.entries()) {
  test(`example ${index + 1}`, { timeout: 20_000 }, async () => {
    await writeFile(program, code.replace("@zark/client", here("../dist/index.js").href).replaceAll("http://localhost:8080", device.url));
    const { stdout } = await run(process.execPath, [program.pathname], { timeout: 15_000 });
    assert.equal(stdout, expected);
  });
}
