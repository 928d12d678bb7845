// The demo device's page in a browser. The host's program and the project are named by the environment.

import assert from "node:assert/strict";
import { after, afterEach, before, beforeEach, describe, it } from "node:test";
import { chromium } from "playwright-core";

import { setVolume, startDevice, volume } from "./device.mjs";

const { ZARK_HOST, PROJECT } = process.env;
const FOLLOWS = 5000; // The page reads once a second; machines are busy.

let device;
let browser;
let page;
let complaints;

async function shows(selector, text) {
  await page.waitForFunction(([where, what]) => document.querySelector(where).textContent === what, [selector, text],
    { timeout: FOLLOWS });
}

async function open() {
  await page.goto(`${device.url}/`);
  await shows("#connection", "Live");
}

describe("the page", () => {
  before(async () => {
    browser = await chromium.launch({
      executablePath: "/usr/bin/chromium",
      args: ["--no-sandbox", "--disable-gpu", "--disable-quic", "--disable-background-networking", "--disable-sync"],
    });
  });

  after(() => browser?.close());

  beforeEach(async () => {
    device = undefined;
    device = await startDevice(ZARK_HOST, PROJECT);
    page = await browser.newPage();
    complaints = [];
    page.on("console", (message) => message.type() === "error" && complaints.push(message.text()));
    page.on("pageerror", (error) => complaints.push(error.message));
  });

  afterEach(async () => {
    await page.close();
    assert.equal(await device?.stop(), 0);
  });

  it("follows the volume", async () => {
    await open();
    assert.equal(new URL(page.url()).pathname, "/webclient/");
    await shows("#volume", String(await volume(device)));
    for (const value of [73, 0]) {
      await setVolume(device, value);
      await shows("#volume", String(value));
      assert.equal(await page.inputValue("#slider"), String(value));
    }
    assert.match(await page.textContent("#load"), /^\d+\.\d\d$/);
    assert.deepEqual(complaints, []);
  });

  it("sets the volume with its slider", async () => {
    await open();
    // Values follow each other faster than they can be written.
    for (const value of [10, 20, 55]) await page.fill("#slider", String(value));
    await shows("#volume", "55");
    for (const end = Date.now() + FOLLOWS; (await volume(device)) !== 55; ) assert.ok(Date.now() < end);
    assert.equal(await page.textContent("#refusal"), "");
    assert.deepEqual(complaints, []);
  });

  it("shows a refusal, and the old volume again", async () => {
    await open();
    const before = await volume(device);
    await page.evaluate(() => { document.querySelector("#slider").max = 200; });
    await page.fill("#slider", "150");
    await shows("#refusal", "Not set: The value must be at most 100.");
    await shows("#volume", String(before));
  });

  it("fits a narrow screen", async () => {
    await page.setViewportSize({ width: 320, height: 640 });
    await open();
    const tooWide = await page.evaluate(() => [...document.querySelectorAll("body *:not(svg *)")]
      .filter((each) => each.getBoundingClientRect().right > each.parentElement.getBoundingClientRect().right + 1)
      .map((each) => each.outerHTML));
    assert.deepEqual(tooWide, []);
  });

  it("says that the device is gone, and that it is back", async () => {
    await open();
    await page.route("**/api/**", (route) => route.abort());
    await shows("#connection", "No answer from the device");
    await page.unroute("**/api/**");
    await shows("#connection", "Live");
  });
});
