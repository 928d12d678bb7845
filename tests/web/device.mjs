// The real host for one test, on a free port, with its state in a temporary directory.

import { spawn } from "node:child_process";
import { once } from "node:events";
import { mkdtemp, rm } from "node:fs/promises";
import { createServer } from "node:net";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { createInterface } from "node:readline";

async function freePort() {
  const server = createServer().listen(0, "127.0.0.1");
  await once(server, "listening");
  const { port } = server.address();
  server.close();
  await once(server, "close");
  return port;
}

/** Starts `host` with the project's demo tree and pages, and waits until it is ready. */
export async function startDevice(host, project) {
  const state = await mkdtemp(join(tmpdir(), "zark-web-"));
  const port = await freePort();
  const settings = { port, httpsPort: 0, documentRoot: join(project, "share/demo/www") };
  const program = spawn(host, [
    "--tree", join(project, "share/demo/tree.json"), "--state", state, "--log-level", "error",
    ...["system", "player", "webserver"].flatMap((worker) => ["--worker", worker]),
    ...Object.entries(settings).flatMap(([name, value]) => ["--set", `settings:webserver/${name}=${value}`]),
  ], { stdio: ["ignore", "pipe", "inherit"] });
  const exited = once(program, "exit");

  const stop = async () => {
    program.kill("SIGTERM");
    const [code] = await exited;
    await rm(state, { recursive: true, force: true });
    return code;
  };
  for await (const line of createInterface({ input: program.stdout })) {
    if (line === "ready") return { url: `http://127.0.0.1:${port}`, stop };
  }
  await stop();
  throw new Error("the device did not start");
}

export async function setVolume(device, value) {
  const reply = await fetch(`${device.url}/api/setData`, {
    method: "POST",
    headers: { "Content-Type": "application/json" },
    body: JSON.stringify({ path: "player:player/volume", role: "value", value: { type: "i32", value } }),
  });
  if (!reply.ok) throw new Error(`setData: ${reply.status} ${await reply.text()}`);
}

export async function volume(device) {
  const reply = await fetch(`${device.url}/api/getData?path=player:player/volume&roles=value`);
  const [{ value }] = await reply.json();
  return value;
}
