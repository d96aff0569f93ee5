// A device that goes away, mid-request or mid-upload, or restarts after its settings were
// saved: the page says so, shows nothing stale as current, and recovers by itself.
"use strict";
const { test } = require("node:test");
const assert = require("node:assert/strict");
const fs = require("fs");
const path = require("path");
const t = require("./support.js");

let daemon;
let browser;
t.shareRig((d, b) => {
  daemon = d;
  browser = b;
});

const banner = (page, text) => page.waitForSelector(`.banner ::-p-text(${text})`);
const bannerGone = (page) => page.waitForFunction(() => !document.querySelector(".banner"), { timeout: 30000 });

test("a device that goes away is reported, and the page reloads its state when it is back", async () => {
  const page = await t.openPage(browser, daemon, "#/sets");
  await t.viewLoaded(page);
  await daemon.stop();
  await t.clickText(page, "Scan again");
  await banner(page, "Connection lost");
  assert.ok(await page.$("main.stale[inert]"), "the old state is marked as out of date and cannot be used");
  await daemon.start();
  await bannerGone(page);
  await page.waitForSelector("main:not(.stale) li.set ::-p-text(velt-demo)");
  await page.close();
});

test("an upload cut off by the device going away says so and stores nothing", async () => {
  const zip = path.join(daemon.root, "cut.zip");
  fs.writeFileSync(zip, t.storedZip([["cut-set/music/1-theme/theme.wav", t.toneWav(30, 0.2)]]));
  const page = await t.openPage(browser, daemon, "#/sets");
  await t.viewLoaded(page);
  await t.throttleUploads(page, 256 * 1024);
  await (await page.$("form.upload input[type=file]")).uploadFile(zip);
  await page.click("form.upload button[type=submit]");
  await page.waitForFunction(() => Number((document.querySelector("progress") || {}).value) >= 10);
  await daemon.stop();
  await page.waitForSelector("form.upload [role=alert] ::-p-text(The connection broke off during the upload)");
  await banner(page, "Connection lost");
  await daemon.start();
  await bannerGone(page);
  await page.waitForSelector("li.set ::-p-text(velt-demo)");
  const names = await page.$$eval("li.set strong", (els) => els.map((e) => e.textContent));
  assert.deepEqual(names, ["1: velt-demo"]);
  assert.ok(!fs.existsSync(path.join(daemon.base, "cut-set")));
  await page.close();
});

test("saved settings restart the device; the page waits for it and shows the stored values", async () => {
  const page = await t.openPage(browser, daemon, "#/config");
  await t.viewLoaded(page);
  await t.typeOver(page, "#cfg-attract_timeout", "45000");
  const starts = daemon.starts;
  const from = daemon.log.length;
  await t.clickText(page, "Save and restart");
  await banner(page, "The device is restarting");
  await daemon.waitForLog("started http service", from);
  await bannerGone(page);
  assert.equal(daemon.starts, starts + 1, "the daemon was started again");
  await page.waitForSelector("#cfg-attract_timeout");
  assert.equal(await page.$eval("#cfg-attract_timeout", (el) => el.value), "45000");
  const ini = fs.readFileSync(path.join(daemon.base, "mellosound.ini"), "utf8");
  assert.match(ini, /^attract_timeout=45000$/m);
  assert.deepEqual(page.errors, []);
  await page.close();
});
