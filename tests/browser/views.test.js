// Every view at phone and desktop width: it loads without a script error, passes the
// accessibility check with no serious violation, and leaves a screenshot in the build
// directory (tests/browser/screenshots) for a person to look at.
"use strict";
const { test, before, after } = require("node:test");
const assert = require("node:assert/strict");
const t = require("./support.js");

const VIEWS = ["status", "sounds", "sounds/11", "sets", "recording", "config", "network", "audio", "firmware"];
const WIDTHS = [
  ["phone", { width: 360, height: 740, isMobile: true, hasTouch: true, deviceScaleFactor: 1 }],
  ["desktop", { width: 1280, height: 900 }],
];

let daemon;
let browser;

before(async () => {
  daemon = await t.startDaemon();
  browser = await t.startBrowser();
});

after(() => t.closeAll(browser, daemon));

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
