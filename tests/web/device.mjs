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

async function startHost(host, project, state, settings) {
  const program = spawn(host, [
    "--tree", join(project, "share/demo/tree.json"), "--state", state, "--log-level", "error",
    ...["system", "player", "webserver"].flatMap((worker) => ["--worker", worker]),
    ...Object.entries(settings).flatMap(([name, value]) => ["--set", `settings:webserver/${name}=${value}`]),
  ], { stdio: ["ignore", "pipe", "inherit"] });
  const exited = once(program, "exit");
  const end = async (signal) => {
    program.kill(signal);
    const [code] = await exited;
    return code;
  };
  for await (const line of createInterface({ input: program.stdout })) if (line === "ready") return end;
  await end("SIGKILL");
  throw new Error("the device did not start");
}

/**
 * Starts `host` with the project's demo tree and pages, and waits until it is ready. `others` are further nodes under
 * settings:webserver, and their values.
 */
export async function startDevice(host, project, others = {}) {
  const state = await mkdtemp(join(tmpdir(), "zark-web-"));
  const settings = { port: await freePort(), httpsPort: 0, documentRoot: join(project, "build/www"), ...others };
  let end = await startHost(host, project, state, settings);
  return {
    url: `http://127.0.0.1:${settings.port}`,
    state,
    kill: () => end("SIGKILL"),
    /** After kill(): the same device, with the same state, at the same address. */
    restart: async () => {
      end = await startHost(host, project, state, settings);
    },
    stop: async () => {
      const code = await end("SIGTERM");
      await rm(state, { recursive: true, force: true });
      return code;
    },
  };
}

/** Writes a value, or runs a command, as another client would. */
export async function setData(device, path, value, role = "value") {
  const reply = await fetch(`${device.url}/api/setData`, {
    method: "POST",
    headers: { "Content-Type": "application/json" },
    body: JSON.stringify({ path, role, value }),
  });
  if (!reply.ok) throw new Error(`setData: ${reply.status} ${await reply.text()}`);
}

export const setVolume = (device, value) => setData(device, "player:player/volume", value);

/** The answer as text, since not every number survives JSON.parse. */
export async function getValue(device, path) {
  const reply = await fetch(`${device.url}/api/getData?path=${path}&roles=value`);
  return reply.text();
}
