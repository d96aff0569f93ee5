// Managing the device from the page: a sound set upload with its progress, an edit that
// reaches the file on disk, and refusals shown with the API's own message.
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

test("a sound set upload shows its progress and the new set joins the list", async () => {
  const zip = path.join(daemon.root, "uploaded.zip");
  // A directory set is one with a music directory.
  const set = [
    ["uploaded-set/music/1-theme/theme.wav", t.toneWav(10, 0.2, 440)],
    ["uploaded-set/sfx/50-beep/beep.wav", t.toneWav(10, 0.2)],
  ];
  fs.writeFileSync(zip, t.storedZip(set));
  const page = await t.openPage(browser, daemon, "#/sets");
  await t.viewLoaded(page);
  await t.throttleUploads(page, 512 * 1024);
  await t.recordProgress(page);
  await (await page.$("form.upload input[type=file]")).uploadFile(zip);
  await page.click("form.upload button[type=submit]");
  await page.waitForSelector("form.upload ::-p-text(Soundset added.)");
  await page.waitForSelector("li.set ::-p-text(uploaded-set)");
  const seen = await page.evaluate(() => window.progressSeen);
  assert.ok(seen.some((v) => v > 0 && v < 100), `the bar moved through the upload: ${seen.join(" ")}`);
  assert.ok(fs.existsSync(path.join(daemon.base, "uploaded-set/sfx/50-beep/beep.wav")));
  await page.close();
});

test("saving a sound's gain rewrites its file on disk", async () => {
  const gainFile = path.join(daemon.base, "velt-demo/sfx/10-bumper/gain.txt");
  assert.ok(!fs.existsSync(gainFile), "the demo's bumper has the neutral gain");
  const page = await t.openPage(browser, daemon, "#/sounds/10");
  await t.viewLoaded(page);
  await t.typeOver(page, "#f-gain", "80");
  await t.clickText(page, "Save changes");
  await page.waitForSelector(".sound-form ::-p-text(gain updated)");
  assert.equal(fs.readFileSync(gainFile, "utf8").trim(), "24"); // 0..30 in the set's files
  assert.equal(await page.$eval("#f-gain", (el) => el.value), "80", "the form shows the stored value");
  await page.close();
});

test("a refused request shows the API's message", async () => {
  const page = await t.openPage(browser, daemon, "#/sounds/11");
  await t.viewLoaded(page);
  await t.typeOver(page, "#f-name", "ramp left");
  await t.clickText(page, "Save changes");
  await page.waitForSelector(".sound-form [role=alert] ::-p-text(name update not supported)");

  await page.goto(`${daemon.url}/#/network`);
  await t.viewLoaded(page);
  await t.typeOver(page, "#hostname", "my.box");
  await t.clickText(page, "Set host name");
  await page.waitForSelector("[role=alert] ::-p-text(Hostname not valid. Please retry.)");

  const notes = path.join(daemon.root, "notes.txt");
  fs.writeFileSync(notes, "not a sound set");
  await page.goto(`${daemon.url}/#/sets`);
  await t.viewLoaded(page);
  await (await page.$("form.upload input[type=file]")).uploadFile(notes);
  await page.click("form.upload button[type=submit]");
  await page.waitForSelector("form.upload [role=alert] ::-p-text(Soundset must be a .zip or .xsnd file.)");
  assert.deepEqual(page.errors, []);
  await page.close();
});

test("a sample file is added with its waveform, and removed only after a confirmation", async () => {
  const wav = path.join(daemon.root, "extra.wav");
  fs.writeFileSync(wav, t.toneWav(1, 0.2, 440));
  const dir = path.join(daemon.base, "velt-demo/sfx/13-rollover");
  const page = await t.openPage(browser, daemon, "#/sounds/13");
  await t.viewLoaded(page);
  await (await page.$("form.upload input[type=file]")).uploadFile(wav);
  await page.click("form.upload button[type=submit]");
  await page.waitForSelector("form.upload ::-p-text(Sample added.)");
  const item = await page.waitForSelector('::-p-xpath(//ol[@class="samples"]/li[.//strong[text()="extra.wav"]])');
  // The waveform is drawn once the file is decoded; then the browser preview is offered.
  await item.waitForSelector('button[aria-label="Listen here: extra.wav"]:not([disabled])');
  assert.ok(fs.existsSync(path.join(dir, "extra.wav")));

  await (await item.waitForSelector("::-p-text(Remove file)")).click();
  assert.ok(fs.existsSync(path.join(dir, "extra.wav")), "the first click only asks");
  await (await item.waitForSelector("button ::-p-text(Yes)")).click();
  await page.waitForSelector("::-p-text(sample removed)");
  await page.waitForFunction(() => ![...document.querySelectorAll("ol.samples strong")].some((e) => e.textContent === "extra.wav"));
  assert.ok(!fs.existsSync(path.join(dir, "extra.wav")));
  assert.deepEqual(page.errors, []);
  await page.close();
});

test("a set is exported as an AltSound pack and handed to the browser as a download", async () => {
  const page = await t.openPage(browser, daemon, "#/sets");
  await t.viewLoaded(page);
  const cdp = await page.createCDPSession();
  await cdp.send("Browser.setDownloadBehavior", { behavior: "allow", downloadPath: daemon.root });
  const answered = page.waitForResponse((r) => r.url().endsWith("/soundsets/velt-demo/altsound.zip"));
  await page.click('button[aria-label="Export AltSound: velt-demo"]');
  const r = await answered;
  assert.equal(r.status(), 200);
  assert.equal(r.headers()["content-type"], "application/zip");
  assert.equal(r.headers()["content-disposition"], 'attachment; filename="velt-demo-altsound.zip"');
  await page.waitForSelector("[role=status] ::-p-text(Saved velt-demo-altsound.zip.)");
  const saved = path.join(daemon.root, "velt-demo-altsound.zip");
  await t.waitFor(() => fs.existsSync(saved) && fs.statSync(saved).size > 0, "the saved pack");
  assert.equal(fs.readFileSync(saved).subarray(0, 4).toString("latin1"), "PK\x03\x04");
  assert.ok(!fs.readdirSync(daemon.base).some((n) => n.startsWith(".altsound-export")), "no staging left");
  assert.deepEqual(page.errors, []);
  await page.close();
});
