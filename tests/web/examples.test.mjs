// Every console example of the documentation, run word for word in one shell a page, against a device of its own. What
// an example shows has to be what it prints, apart from what differs from run to run. And every setting's default.

import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { once } from "node:events";
import { mkdir, mkdtemp, readFile, readdir, rm, symlink, writeFile } from "node:fs/promises";
import { tmpdir } from "node:os";
import { dirname, join } from "node:path";
import { createInterface } from "node:readline";
import { test } from "node:test";
import { setVolume, startDevice } from "./device.mjs";
import { enterNamespace } from "./namespace.mjs";

enterNamespace();
const { ZARK_HOST, PROJECT } = process.env;
const UUID = /[0-9a-f]{8}(?:-[0-9a-f]{4}){3}-[0-9a-f]{12}/;
const DONE = "what it printed ends here";
const SECONDS = 5; // Some answers have no end.

/** The blocks of a page that a shell is shown, as {language, text}. */
function* blocksOf(page) {
  for (const [, language, text] of page.matchAll(/^```(console|sh)\n(.*?)^```/gms)) yield { language, text };
}

/** [command, what it prints] of a console block; a command goes on after a backslash. */
function* commandsOf(text) {
  for (const part of text.split(/^\$ /m).slice(1)) {
    const [, command, output] = /^((?:[^\n]*\\\n)*[^\n]*\n)(.*)$/s.exec(part);
    yield [command, output];
  }
}

/** What is another one in each run, made the same. */
const steady = (text) => text.replace(new RegExp(UUID, "g"), "UUID").replace(/"rows(Version|Count)":\d+/g, '"rows$1":N')
  .replace(/\b\d{13}\b/g, "TIME").replace(/\b[0-9a-f]{64}\b/g, "SUM").replace(/("Host name",.*)"\w+"/, "$1NAME").trim();

class Shell {
  constructor(directory) {
    this.program = spawn("bash", { cwd: directory, stdio: ["pipe", "pipe", "inherit"], env: { ...process.env, LC_ALL: "C.UTF-8" } });
    this.lines = createInterface({ input: this.program.stdout })[Symbol.asyncIterator]();
  }

  /** What the command prints, on both outputs. */
  async run(command) {
    this.program.stdin.write(`{ ${command.trim()}\n} 2>&1\nprintf '\\n%s\\n' '${DONE}'\n`);
    let output = "";
    for (let line = await this.lines.next(); line.value !== DONE; line = await this.lines.next()) {
      assert.ok(!line.done, `the shell ended: ${output}`);
      output += `${line.value}\n`;
    }
    return output;
  }
}

async function makeDirectory(device) {
  const directory = await mkdtemp(join(tmpdir(), "zark-examples-"));
  await mkdir(join(directory, "build/release"), { recursive: true });
  await symlink(dirname(ZARK_HOST), join(directory, "build/release/bin"));
  await symlink(device.state, join(directory, "var"));
  await writeFile(join(directory, "image.bin"), Buffer.alloc(3000000, "zark"));
  return directory;
}

const pages = ["README.md", ...(await readdir(join(PROJECT, "docs"))).filter((name) => name.endsWith(".md")).map((name) => `docs/${name}`)];
for (const name of pages) {
  const page = await readFile(join(PROJECT, name), "utf8");
  if (page.includes("```console")) test(name, async (t) => {
    const device = await startDevice(ZARK_HOST, PROJECT, { port: 8080, httpsPort: 8443 });
    t.after(() => device.stop());
    const directory = await makeDirectory(device);
    t.after(() => rm(directory, { recursive: true }));
    const shell = new Shell(directory);
    await shell.run(`curl() { command curl --silent --max-time ${SECONDS} "$@"; }`);
    const [preparation] = /echo '[^']*' >var\/password/.exec(page) ?? [];
    let queue = ["", ""]; // The one that the page shows, and the one that the device made.

    for (const { language, text } of blocksOf(page)) {
      if (language === "sh" && text.includes("./dev")) continue; // Starts and tests the device.
      if (language === "sh") {
        await writeFile(join(directory, "sign.sh"), text);
        await shell.run(". ./sign.sh");
        if (!page.includes(`$ (umask`))
          assert.match(await shell.run(`${preparation} && build/release/bin/zarkctl --user admin --empty-password passwd --new-password-file var/password`), /is changed/);
        continue;
      }
      for (const [command, expected] of commandsOf(text)) {
        await t.test(command.trim(), async () => {
          if (command.includes("modifyQueue")) await setVolume(device, 77); // So that there is a change to wait for.
          if (command.includes("pollQueue")) setTimeout(() => setVolume(device, Number(/"value":(\d+)/.exec(expected)[1])), 300);
          const output = await shell.run(command.replace(queue[0] || "\0", queue[1]));
          if (expected && UUID.test(expected)) queue = [UUID.exec(expected)[0], UUID.exec(output)?.[0]];
          if (expected.trim()) assert.equal(steady(output), steady(expected));
        });
      }
    }
    shell.program.stdin.end();
    await once(shell.program, "exit");
  });
}

test("operations.md has every setting with its default", async () => {
  const page = await readFile(join(PROJECT, "docs/operations.md"), "utf8");
  const { nodes } = JSON.parse(await readFile(join(PROJECT, "share/demo/tree.json"), "utf8"));
  const wrong = nodes.filter((node) => node.path.startsWith("settings:webserver/") && node.value).filter(({ path, value: { value } }) => {
    const text = value.length === 0 ? "empty" : value.users ? value.users[0].name : String(value.mode ?? value);
    const row = new RegExp(`^\\| [^|]*\`${path.split("/").pop()}\`[^|]*\\| ([^|]*)`, "m").exec(page);
    return !row?.[1].includes(text);
  });
  assert.deepEqual(wrong.map((node) => node.path), []);
});
