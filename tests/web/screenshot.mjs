// Makes the picture of the explorer in the README: a window and, in front of it, a phone.
// node screenshot.mjs FILE.png; the host's program and the project are named by the environment.

import { chromium } from "playwright-core";

import { setData, startDevice } from "./device.mjs";

const { ZARK_HOST, PROJECT } = process.env;
const SETTLED = 4000; // Curves have begun.

const device = await startDevice(ZARK_HOST, PROJECT);
const browser = await chromium.launch({ executablePath: "/usr/bin/chromium", args: ["--no-sandbox", "--disable-gpu"] });

async function shoot(hash, width, height, colorScheme) {
  const page = await browser.newPage({ viewport: { width, height }, colorScheme, locale: "en-US" });
  await page.goto(`${device.url}/webclient/${hash}`);
  await page.waitForTimeout(SETTLED / 2);
  for (const volume of [30, 55, 42]) {
    await setData(device, "player:player/volume", volume);
    await page.waitForTimeout(SETTLED / 6);
  }
  return `data:image/png;base64,${(await page.screenshot()).toString("base64")}`;
}

await setData(device, "player:player/control", "play", "activate");
const desktop = await shoot("#/player:player/volume", 1180, 720, "light");
const phone = await shoot("", 360, 640, "dark");
const page = await browser.newPage({ viewport: { width: 1320, height: 800 } });
await page.setContent(`<style>
  body { margin: 0; background: #e4e8e6; }
  img { position: absolute; border-radius: 12px; box-shadow: 0 8px 40px rgb(0 0 0 / 25%); }
</style><img src="${desktop}" style="left: 30px; top: 30px"><img src="${phone}" style="right: 30px; bottom: 30px">`);
await page.screenshot({ path: process.argv[2] });
await browser.close();
await device.stop();
