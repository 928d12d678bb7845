// What only a browser has: tabs that share a queue, hidden pages, the progress of an upload.

import assert from "node:assert/strict";
import { createHash, createHmac } from "node:crypto";
import { once } from "node:events";
import { readFile } from "node:fs/promises";
import { createServer } from "node:http";
import { createRequire } from "node:module";
import { setTimeout as sleep } from "node:timers/promises";
import { after, before, test } from "node:test";
import { setVolume, startDevice } from "../../../tests/web/device.mjs";
import { until } from "./load.mjs";

const { chromium } = createRequire(new URL("../../../tests/web/", import.meta.url))("playwright-core");
const bundle = await readFile(new URL("../dist/index.js", import.meta.url), "utf8");
let device;
let browser;

before(async () => {
  device = await startDevice(process.env.ZARK_HOST, process.env.PROJECT);
  browser = await chromium.launch({ executablePath: "/usr/bin/chromium", args: ["--no-sandbox"] });
});
after(async () => {
  await browser?.close();
  assert.equal(await device?.stop(), 0);
});

/** A browser with its requests for events that wait, and tabs that follow the volume. */
async function newBrowser() {
  const context = await browser.newContext();
  const polls = new Set();
  context.on("page", (page) => {
    let own;
    page.on("request", (request) => request.url().endsWith("/pollQueue") && polls.add((own = request)));
    for (const end of ["requestfinished", "requestfailed"]) page.on(end, (request) => polls.delete(request));
    page.on("close", () => polls.delete(own));
  });
  await context.route("**/client.js", (route) => route.fulfill({ contentType: "text/javascript", body: bundle }));
  await context.route("**/empty.html", (route) => route.fulfill({ contentType: "text/html", body: "<!doctype html>" }));
  return { context, polls };
}

async function openTab({ context }) {
  const tab = await context.newPage();
  await tab.goto(`${device.url}/empty.html`);
  await tab.evaluate(async () => {
    const { Device } = await import("/client.js");
    window.device = new Device();
    window.volumes = [];
    window.device.subscribe(["player:player/volume"], ({ roles }) => window.volumes.push(roles.value.value));
  });
  return tab;
}

const lastVolume = (tab, volume) => tab.waitForFunction((volume) => window.volumes.at(-1) === volume, volume, { timeout: 10_000 });

test("tabs share one request for events, and outlive the one that has it", { timeout: 60_000 }, async () => {
  const shared = await newBrowser();
  await setVolume(device, 10);
  const tabs = [await openTab(shared), await openTab(shared), await openTab(shared)];
  for (const tab of tabs) await lastVolume(tab, 10);
  await setVolume(device, 11);
  for (const tab of tabs) await lastVolume(tab, 11);
  await sleep(200);
  assert.equal(shared.polls.size, 1);
  for (const tab of tabs) assert.deepEqual(await tab.evaluate(() => window.volumes), [10, 11]);

  // What one tab misses, the one that polls looks into.
  await shared.context.route("**/api/getData*", (route) => route.abort(), { times: 1 });
  const lost = await tabs[1].evaluate(() => window.device.getData("player:player", ["title"]).catch(() => window.device.online.get()));
  assert.equal(lost, false);
  await tabs[1].waitForFunction(() => window.device.online.get(), null, { timeout: 10_000 });

  await tabs.shift().close();
  await setVolume(device, 12);
  for (const tab of tabs) await lastVolume(tab, 12);
  await until(() => shared.polls.size === 1);
  await tabs[1].evaluate(() => window.device.close());
  await setVolume(device, 13);
  await lastVolume(tabs[0], 13);
  assert.equal(await tabs[1].evaluate(() => window.volumes.at(-1)), 12);
  await shared.context.close();
});

test("without locks each page asks for itself, and rests while it is hidden", { timeout: 60_000 }, async () => {
  const separate = await newBrowser();
  await separate.context.addInitScript(() => {
    Object.defineProperty(navigator, "locks", { value: undefined });
    Object.defineProperty(document, "visibilityState", { get: () => window.visibility ?? "visible" });
  });
  const show = (tab, state) =>
    tab.evaluate((state) => {
      window.visibility = state;
      document.dispatchEvent(new Event("visibilitychange"));
    }, state);
  await setVolume(device, 20);
  const tabs = [await openTab(separate), await openTab(separate)];
  await until(() => separate.polls.size === 2);
  await show(tabs[1], "hidden");
  await until(() => separate.polls.size === 1);
  await setVolume(device, 21);
  await lastVolume(tabs[0], 21);
  assert.deepEqual(await tabs[1].evaluate(() => window.volumes), [20]);
  await show(tabs[1], "visible");
  await lastVolume(tabs[1], 21);
  await separate.context.close();
});

test("an upload tells its progress or why it broke off, and is signed as a GET", { timeout: 60_000 }, async () => {
  const uploads = [];
  const broken = [
    { user: "refused", answer: 401, kind: "refused" },
    { user: "cut off", answer: 400, kind: "failed" },
    { user: "lost", answer: 0, kind: "offline" },
  ];
  const server = createServer(async (request, response) => {
    const [end] = broken.filter(({ user }) => request.headers.authorization?.includes(btoa(user)));
    // What a device has refused it does not read, and a browser that goes on sending may never see its answer.
    if (end && (!end.answer || request.headers["content-length"] > 1000)) return request.socket.destroy();
    const body = Buffer.concat(await request.toArray());
    if (end) return response.writeHead(end.answer).end();
    if (request.method === "POST") uploads.push({ body: body.toString("latin1"), headers: request.headers });
    response.setHeader("Content-Type", request.url === "/client.js" ? "text/javascript" : "text/html");
    response.end(request.method === "POST" ? '{"bytes":300000,"sha256":"00"}' : request.url === "/client.js" ? bundle : "");
  }).listen(0, "127.0.0.1");
  await once(server, "listening");
  const base = `http://127.0.0.1:${server.address().port}`;
  const tab = await browser.newPage();
  await tab.goto(base);
  const upload = async (module, base) => {
    const { Device } = await import(module);
    const device = new Device(base, { credentials: { user: "admin", password: "open sesame" } });
    const progress = [];
    const file = new Blob([new Uint8Array(300_000)]);
    const answer = await device.upload(file, { name: "image.bin", sha256: "00", onProgress: (...now) => progress.push(now) });
    const aborted = await device.upload(file, { signal: AbortSignal.abort("no") }).catch((reason) => reason);
    const failures = [];
    for (const user of ["refused", "cut off", "lost"]) {
      const another = new Device(base, { credentials: { user, password: "" } });
      await another.upload(file).catch(({ kind }) => failures.push([kind, another.online.get()]));
    }
    return { answer, last: progress.at(-1), aborted, failures };
  };
  const failures = broken.map(({ kind }) => [kind, kind !== "offline"]);
  const expected = { answer: { bytes: 300000, sha256: "00" }, last: [300_000, 300_000], aborted: "no", failures };
  assert.deepEqual(await tab.evaluate(`(${upload})("/client.js")`), expected);
  assert.deepEqual(await upload("../dist/index.js", base), { ...expected, last: undefined });
  for (const { body, headers } of uploads) {
    const [user, salt, time, signature] = headers.authorization.split(" ")[1].split(".");
    const key = createHash("sha256").update(Buffer.from(salt, "base64")).update("open sesame").digest();
    const message = `admin.${salt}.${time}.${base}/firmware/update`;
    assert.deepEqual([user, signature], ["YWRtaW4=", createHmac("sha256", key).update(message).digest("base64")]);
    assert.match(body, /name="sha256"\r\n\r\n00\r\n[^]*name="firmware"; filename="image.bin"\r\n[^]*\r\n\r\n\0{300000}\r\n/);
  }
  assert.equal(uploads.length, 2);
  await tab.close();
  server.close();
});
