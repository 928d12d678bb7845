// The explorer in a browser, against one real device. The host's program and the project are named by the environment.

import assert from "node:assert/strict";
import { createHash, randomBytes } from "node:crypto";
import { mkdir, readFile } from "node:fs/promises";
import { createRequire } from "node:module";
import { join } from "node:path";
import { after, before, describe, it } from "node:test";
import { chromium } from "playwright-core";

import { getValue, setData, startDevice } from "./device.mjs";

const { ZARK_HOST, PROJECT } = process.env;
const VOLUME = "player:player/volume";
const PLAYLIST = "player:player/playlist";
// A name under which the page takes the device for another machine, and the browser gives it no crypto, locks or clipboard.
const ELSEWHERE = "zark-test.local";
const SHOTS = join(PROJECT, "build/screenshots");
const AXE = createRequire(import.meta.url).resolve("axe-core/axe.min.js");

let device;
let browser;
let page;
let complaints;

/** A page of its own browser profile, in which nothing has been chosen yet. */
async function open(hash = "", { width = 1280, height = 900, host = "127.0.0.1", ...options } = {}) {
  const context = await browser.newContext({ viewport: { width, height }, locale: "en-US", ...options });
  context.setDefaultTimeout(15_000); // Machines are busy.
  page = await context.newPage();
  watch(page);
  await page.goto(`${device.url.replace("127.0.0.1", host)}/${hash}`);
}

/** What the browser refuses (a policy, an exception) is a fault; an answer that says no is not. */
function watch(each) {
  each.on("pageerror", (error) => complaints.push(error.message));
  each.on("console", (message) => {
    if (message.type() === "error" && !message.text().startsWith("Failed to load resource"))
      complaints.push(message.text());
  });
}

const show = (path) =>
  page.evaluate((to) => {
    location.hash = `#/${to}`;
  }, path);
const text = (content) => page.getByText(content, { exact: true }).first().waitFor();
const value = (shown) => page.locator("article .value", { hasText: shown }).waitFor();
const button = (name) => page.getByRole("button", { name, exact: true });
const row = (index) => page.locator(`article [role=row][aria-rowindex="${index + 2}"]`);
const run = (name, argument) => setData(device, `player:player/${name}`, argument, "activate");

async function becomes(path, expected) {
  let last;
  for (const end = Date.now() + 10_000; Date.now() < end; await page.waitForTimeout(50)) {
    if ((last = await getValue(device, path)) === expected) return;
  }
  assert.equal(last, expected);
}

async function signIn(password) {
  await button("Sign in").first().click();
  await page.getByLabel("Password").fill(password);
  await page.keyboard.press("Enter");
}

/** Each starts on a page of its own; a value that it changes is its own affair. */
const SCENARIOS = {
  "shows the player first, plays, and follows another client": async () => {
    await open();
    assert.equal(new URL(page.url()).pathname, "/webclient/");
    await button("Play").click();
    await text(/^Playing · \d+:\d\d$/);
    const slider = page.getByRole("slider", { name: "Volume" });
    for (const volume of [73, 0]) {
      await setData(device, VOLUME, volume);
      await page.locator(`[aria-valuetext="${volume} %"]`).waitFor();
    }
    await slider.fill("41");
    await becomes(VOLUME, '[{"type":"i32","value":41}]');
    await button("Pause").click();
    await text(/^Paused/);
  },

  "walks the tree with the keyboard, and every node has an address": async () => {
    await open("webclient/#/tree");
    await page.locator("[role=row]").first().waitFor();
    const grid = page.getByRole("treegrid");
    await grid.focus();
    const at = () =>
      page.evaluate(
        () => document.getElementById(document.activeElement.getAttribute("aria-activedescendant"))?.innerText,
      );
    for (let i = 0; i < 40 && !(await at())?.startsWith("Player"); ++i) await page.keyboard.press("ArrowDown");
    await page.keyboard.press("ArrowRight");
    await grid.getByText("Volume", { exact: true }).waitFor();
    await page.keyboard.press("ArrowRight");
    await page.keyboard.press("Enter");
    await page.waitForURL(`**/#/${VOLUME}`);
    await page.getByRole("heading", { name: "Volume" }).waitFor();
    await page.setViewportSize({ width: 1280, height: 320 });
    await page.reload();
    const selected = grid.locator(".selected", { hasText: "Volume" });
    const inSight = () => selected.evaluate((line) => {
      const { top, bottom } = line.parentElement.parentElement.getBoundingClientRect();
      const at = line.getBoundingClientRect();
      return at.top >= top && at.bottom <= Math.min(bottom, innerHeight);
    });
    await selected.waitFor();
    for (let i = 0; i < 100 && !(await inSight()); ++i) await page.waitForTimeout(50);
    assert.ok(await inSight());
    await page.setViewportSize({ width: 1280, height: 900 });
    await page.getByRole("navigation", { name: "Path of the node" }).getByText("player:player").click();
    await page.getByRole("heading", { name: "Player" }).waitFor();
  },

  "finds by path, title and value, and shows the way to each hit": async () => {
    await open("webclient/#/tree");
    const hits = { "north south": "Directions", "player/vol": "Volume", "temperature 21.5": "Temperature" };
    for (const [words, title] of Object.entries(hits)) {
      await page.keyboard.press("/");
      await page.getByRole("searchbox").fill(words);
      await text("1 hit");
      await page.locator(".line:not(.dim)", { hasText: title }).waitFor();
      await page.locator(".line.dim").first().waitFor();
    }
    await page.getByText("Temperature", { exact: true }).click();
    await value("21.5 °C");
  },

  "keeps every digit, and takes a change back": async () => {
    await open("webclient/#/demo:values/i64");
    await value("9007199254740993");
    await page.getByRole("textbox", { name: "Big number" }).fill("9007199254740995");
    await button("Apply").click();
    await becomes("demo:values/i64", '[{"type":"i64","value":9007199254740995}]');
    await button("Undo").first().click();
    await becomes("demo:values/i64", '[{"type":"i64","value":9007199254740993}]');
    await value("9007199254740993");
  },

  "tells what the device refused, and shows what it has": async () => {
    await setData(device, VOLUME, 30);
    await open(`webclient/#/${VOLUME}`);
    await value("30 %");
    await page.getByLabel("Exact value").fill("150");
    await setData(device, VOLUME, 31); // Which takes nothing away from who is typing.
    await value("31 %");
    await page.keyboard.press("Tab");
    await text("Volume: The value must be at most 100.");
    await page.locator('[aria-valuetext="31 %"]').waitFor();
    await show("player:player/playlistRemove");
    await page.getByLabel(/^Argument/).fill('{"index": 99999}');
    await button("Run").click();
    await text(/^Remove a track: "index" is out of range/);
  },

  "shows rows that come, move and go": async () => {
    await open(`webclient/#/${PLAYLIST}`);
    await row(0).getByText("Quiet Harbour No. 1").waitFor();
    await run("playlistInsert", { index: 0, title: "Newcomer" });
    await row(0).getByText("Newcomer").waitFor();
    await row(1).getByText("Quiet Harbour No. 1").waitFor();
    await run("playlistMove", { index: 0, toIndex: 2 });
    await row(2).getByText("Newcomer").waitFor();
    await run("playlistRemove", { index: 2 });
    await row(2).getByText("Northern Orchard No. 3").waitFor();
    await show("demo:lists/large");
    await page.getByRole("heading", { name: "Large list" }).waitFor();
    await row(0).getByText("Row 0").waitFor();
    await page.getByRole("table").press("End");
    await row(9999).getByText("Row 9999").waitFor();
  },

  "collects changes, applies them together and asks before a risky one": async () => {
    await open("webclient/#/machine");
    await page.getByText("Limits", { exact: false }).click();
    await page.getByRole("textbox", { name: "Header deadline" }).fill("11");
    await page.getByText("Features", { exact: false }).click();
    await page.getByRole("switch", { name: "Analytics" }).click();
    await button("Review 2 changes").click();
    await text("10 s");
    assert.equal(await getValue(device, "settings:webserver/limits/headerSeconds"), '[{"type":"i32","value":10}]');
    await text("The device may no longer answer requests from where you are.");
    await button("Apply 2").click();
    await becomes("settings:webserver/limits/headerSeconds", '[{"type":"i32","value":11}]');
    await becomes("settings:features/analytics", '[{"type":"bool","value":true}]');
    await button("Close").first().click();
    await show("settings:webserver/authMode");
    await page.getByRole("combobox", { name: "Authentication" }).selectOption("everything");
    await text("This may cut you off");
    await button("Cancel").click();
    assert.match(await getValue(device, "settings:webserver/authMode"), /"writes"/);
  },

  "sends an image and shows what the device got, and plays its sound": async () => {
    const image = randomBytes(300_000);
    const sum = createHash("sha256").update(image).digest("hex");
    await open("webclient/#/machine");
    await page
      .getByLabel("Image", { exact: true })
      .setInputFiles({ name: "image.bin", mimeType: "application/octet-stream", buffer: image });
    await button("Upload").click();
    await page.locator("dd", { hasText: sum }).waitFor();
    await text("ready");
    await show("");
    await page.locator("audio").evaluate(async (audio) => {
      await audio.play();
      while (audio.currentTime < 0.5) await new Promise((resolve) => setTimeout(resolve, 50));
    });
  },

  "draws what it has seen, and gives it away": async () => {
    await open(`webclient/#/${VOLUME}`);
    await button("Add to chart").click();
    await show("chart");
    await setData(device, VOLUME, 64);
    await page.locator(".legend", { hasText: "64 %" }).waitFor();
    const [file] = await Promise.all([page.waitForEvent("download"), button("CSV").click()]);
    const lines = (await readFile(await file.path(), "utf8")).trim().split("\r\n");
    assert.equal(lines[0], "time,path,value");
    assert.match(lines.at(-1), /^\d{4}-.*Z,player:player\/volume,64$/);
  },

  "says that the device is away, and goes on when it is back": async () => {
    await open(`webclient/#/${VOLUME}`);
    await value("64 %");
    await device.kill();
    await text("The device does not answer.");
    await device.restart();
    await page.getByText("The device does not answer.").waitFor({ state: "detached" });
    await setData(device, VOLUME, 12);
    await value("12 %");
  },

  "leads to a password, and from then on only writes with the right one": async () => {
    await open("", { host: ELSEWHERE });
    await button("Set a password").click();
    await page.getByLabel(/^New password \(/).fill("open sesame");
    await page.getByLabel("New password again").fill("open sesame");
    await button("Apply").click();
    await text("The password has been changed.");
    await page.getByText("admin").click();
    await button("Sign out").click();
    await page.getByRole("region", { name: "Player" }).getByText("Changing this needs a signed-in user.").waitFor();
    assert.ok(await page.getByRole("slider", { name: "Volume" }).isDisabled());
    await signIn("wrong");
    await text("The device does not know this user with this password.");
    await page.getByLabel("Password").fill("wrong again");
    await page.keyboard.press("Enter");
    await text(/^After wrong passwords the device answers later/);
    await text("The device does not know this user with this password.");
    await page.getByLabel("Password").fill("open sesame");
    await page.keyboard.press("Enter");
    await page.getByText("admin").waitFor();
    await page.getByRole("slider", { name: "Volume" }).fill("55");
    await becomes(VOLUME, '[{"type":"i32","value":55}]');
    const secrets = await page.evaluate(() => JSON.stringify([localStorage, sessionStorage, document.cookie]));
    assert.doesNotMatch(secrets, /sesame/);
  },
};

const VIEWS = { overview: "", tree: "tree", node: VOLUME, list: PLAYLIST, chart: "chart", device: "machine" };
const LOOKS = [
  { width: 1280, colorScheme: "light", locale: "en-US" },
  { width: 1280, colorScheme: "dark", locale: "de-DE" },
  { width: 360, colorScheme: "light", locale: "de-DE" },
  { width: 360, colorScheme: "dark", locale: "en-US" },
  { width: 320, colorScheme: "light", locale: "de-DE" },
];

/** Every view as it looks: nothing sticks out, axe has no serious word, and a picture stays for people to look at. */
async function look({ width, ...options }) {
  await open("", { width, height: 780, ...options });
  await page.evaluate(await readFile(AXE, "utf8"));
  for (const [name, hash] of Object.entries(VIEWS)) {
    await show(hash);
    await page.locator("main :is(h1, [role=row]):visible").first().waitFor();
    await page.waitForTimeout(500); // What is live has come.
    const overhang = await page.evaluate(() => document.documentElement.scrollWidth - innerWidth);
    assert.ok(overhang <= 0, `${name}: ${overhang} px too wide`);
    await page.screenshot({ path: join(SHOTS, `${name}-${width}-${options.colorScheme}.png`) });
    const { violations } = await page.evaluate(() => window.axe.run());
    const serious = violations.filter(({ impact }) => impact === "serious" || impact === "critical");
    assert.deepEqual(
      serious.map(({ id, nodes }) => [id, nodes.map(({ html }) => html)]),
      [],
      name,
    );
  }
}

describe("the explorer", () => {
  before(async () => {
    await mkdir(SHOTS, { recursive: true });
    device = await startDevice(ZARK_HOST, PROJECT);
    browser = await chromium.launch({
      executablePath: "/usr/bin/chromium",
      args: [
        "--no-sandbox",
        "--disable-gpu",
        "--disable-quic",
        `--host-resolver-rules=MAP ${ELSEWHERE} 127.0.0.1`,
        "--disable-background-networking",
        "--disable-sync",
      ],
    });
  });

  after(async () => {
    await browser?.close();
    assert.equal(await device?.stop(), 0);
  });

  const looks = LOOKS.map((each) => [`looks right: ${Object.values(each).join(", ")}`, () => look(each)]);
  for (const [name, scenario] of [...Object.entries(SCENARIOS), ...looks]) {
    it(name, async () => {
      complaints = [];
      await scenario();
      assert.deepEqual(complaints, []);
      await page.context().close();
    });
  }
});
