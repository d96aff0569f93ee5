// Every view at phone and desktop width: it loads without a script error, passes the
// accessibility check with no serious violation, and leaves a screenshot in the build
// directory (tests/browser/screenshots) for a person to look at.
"use strict";
const { test } = require("node:test");
const assert = require("node:assert/strict");
const t = require("./support.js");

const VIEWS = ["status", "sounds", "sounds/11", "sets", "recording", "config", "network", "audio", "firmware"];
const WIDTHS = [
  ["phone", { width: 360, height: 740, isMobile: true, hasTouch: true, deviceScaleFactor: 1 }],
  ["desktop", { width: 1280, height: 900 }],
];

let daemon;
let browser;
t.shareRig((d, b) => {
  daemon = d;
  browser = b;
});

for (const [size, viewport] of WIDTHS) {
  test(`every view at ${size} width loads, is accessible and fits`, async () => {
    const page = await t.openPage(browser, daemon, "#/status", viewport);
    for (const view of VIEWS) {
      await page.goto(`${daemon.url}/#/${view}`);
      await t.viewLoaded(page);
      const violations = await t.seriousA11yViolations(page);
      assert.deepEqual(violations, [], `${view}: ${JSON.stringify(violations, null, 1)}`);
      const overflow = await page.evaluate(() => document.documentElement.scrollWidth - innerWidth);
      assert.ok(overflow <= 0, `${view} is ${overflow} px wider than the ${size} screen`);
      await t.screenshot(page, `${size}-${view.replace("/", "-")}`);
    }
    assert.deepEqual(page.errors, []);
    await page.close();
  });
}

test("the keyboard reaches a sound's fields and its files' play buttons", async () => {
  const page = await t.openPage(browser, daemon, "#/sounds/11");
  await t.viewLoaded(page);
  const reached = new Set();
  for (let i = 0; i < 40; i++) {
    await page.keyboard.press("Tab");
    reached.add(await page.evaluate(() => document.activeElement.id || document.activeElement.getAttribute("aria-label")));
  }
  assert.ok(reached.has("f-name"), "the name field");
  assert.ok(reached.has("Play on device: ramp.ogg"), "the file's play button");
  await page.close();
});

// The daemon has no /display yet: its 404 keeps the mirror hidden. What the page draws
// from an answer is checked with Chromium answering the route in the daemon's place.
test("the front-panel mirror stays hidden on 404 and draws the display's memory layout", async () => {
  const hiddenPage = await browser.newPage();
  const answered = hiddenPage.waitForResponse((r) => r.url().endsWith("/display"));
  await hiddenPage.goto(`${daemon.url}/#/status`);
  assert.equal((await answered).status(), 404);
  await t.viewLoaded(hiddenPage);
  assert.ok(await hiddenPage.$eval("canvas.oled", (el) => el.closest("[hidden]") !== null));
  await hiddenPage.close();

  const page = await browser.newPage();
  const frame = Buffer.alloc(1024);
  frame[0] = 0x01; // page 0, column 0, bit 0: the top-left pixel
  frame[7 * 128 + 127] = 0x80; // page 7, column 127, bit 7: the bottom-right pixel
  await page.setRequestInterception(true);
  page.on("request", (r) =>
    r.url().endsWith("/display")
      ? r.respond({ status: 200, contentType: "application/octet-stream", body: frame })
      : r.continue(),
  );
  await page.goto(`${daemon.url}/#/status`);
  await page.waitForFunction(() => {
    const c = document.querySelector("canvas.oled");
    return c && !c.closest("[hidden]") && c.getContext("2d").getImageData(0, 0, 1, 1).data[1] > 100;
  });
  const lit = await page.$eval("canvas.oled", (c) => {
    const px = (x, y) => c.getContext("2d").getImageData(x, y, 1, 1).data[1] > 100;
    return [px(0, 0), px(1, 0), px(0, 1), px(127, 63), px(127, 62), px(126, 63)];
  });
  assert.deepEqual(lit, [true, false, false, true, false, false]);
  await page.close();
});
