// What a click does to the sound: play puts the sample's tone into the daemon's audio
// capture, and the volume slider changes the captured level.
"use strict";
const { test } = require("node:test");
const assert = require("node:assert/strict");
const t = require("./support.js");

let daemon;
let page;
t.shareRig(async (d, browser) => {
  daemon = d;
  page = await t.openPage(browser, daemon, "#/sounds");
  await page.waitForSelector(`button[aria-label="Play ${t.TONE_ID} test_tone"]`);
  await t.waitForSilence(daemon);
});

// Sets the master volume with the status page's slider, as a drag ends (change event).
async function setVolume(value) {
  await page.goto(`${daemon.url}/#/status`);
  const slider = await page.waitForSelector("#volume");
  const answered = page.waitForResponse((r) => r.url().endsWith(`/volume/${value}`));
  await slider.evaluate((el, v) => {
    el.value = String(v);
    el.dispatchEvent(new Event("input", { bubbles: true }));
    el.dispatchEvent(new Event("change", { bubbles: true }));
  }, value);
  assert.equal((await answered).status(), 200);
  await page.waitForSelector(`::-p-text(volume set to ${value})`);
}

// Clicks play on the test tone and returns the captured stretch that holds it.
async function playToneAndCapture() {
  await page.goto(`${daemon.url}/#/sounds`);
  const button = await page.waitForSelector(`button[aria-label="Play ${t.TONE_ID} test_tone"]`);
  const from = t.captureSize(daemon);
  await button.click();
  await page.waitForSelector(`::-p-text(sound ${t.TONE_ID} is playing)`);
  const level = t.loudestWindow(await t.captureAfter(daemon, from, 2.5));
  await t.waitForSilence(daemon);
  return level;
}

test("a click on play puts the sample's tone into the capture, at the slider's level", async () => {
  await setVolume(128);
  const loud = await playToneAndCapture();
  assert.ok(loud.rms > 0.05, `the tone is in the capture (rms ${loud.rms.toFixed(4)})`);
  const tone = t.toneRms(loud.samples);
  assert.ok(tone / loud.rms > 0.9, `what plays is the 1 kHz tone (${tone.toFixed(4)} of ${loud.rms.toFixed(4)})`);

  await setVolume(64);
  const soft = await playToneAndCapture();
  const ratio = loud.rms / soft.rms;
  assert.ok(ratio > 1.8 && ratio < 2.2, `half the volume halves the level (ratio ${ratio.toFixed(3)})`);
  assert.deepEqual(page.errors, []);
});

test("the status view shows what plays on the channels and the music stream", async () => {
  await page.goto(`${daemon.url}/#/sounds`);
  await (await page.waitForSelector('button[aria-label="Play 1 main_theme"]')).click();
  await page.waitForSelector("::-p-text(sound 1 is playing)");
  await page.goto(`${daemon.url}/#/status`);
  await page.waitForSelector("section ::-p-text(Music: 1 main_theme)");
  await t.clickText(page, "Stop all");
  await page.waitForSelector("section ::-p-text(Music: none)");
  assert.deepEqual(page.errors, []);
});

test("a file played on the device from its waveform plays and moves the waveform's cursor", async () => {
  await page.goto(`${daemon.url}/#/sounds/${t.TONE_ID}`);
  const play = await page.waitForSelector('button[aria-label="Play on device: tone.wav"]');
  await page.waitForSelector('button[aria-label="Listen here: tone.wav"]:not([disabled])');
  const from = t.captureSize(daemon);
  await play.click();
  // wavesurfer draws in an open shadow root; its cursor's left offset is the position.
  await page.waitForFunction(() => {
    const host = document.querySelector(".wave-canvas > div");
    const cursor = host && host.shadowRoot && host.shadowRoot.querySelector('[part="cursor"]');
    return cursor && parseFloat(cursor.style.left) > 20;
  });
  const level = t.loudestWindow(await t.captureAfter(daemon, from, 2.5));
  assert.ok(t.toneRms(level.samples) > 0.05, `the tone is in the capture (${level.rms.toFixed(4)})`);
  await t.waitForSilence(daemon);
});
