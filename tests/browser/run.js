// Runs one browser test file under node's test runner, or reports it skipped (exit 77,
// CTest's SKIP_RETURN_CODE) when Chromium or the npm packages are missing here.
"use strict";
const fs = require("fs");
const { spawnSync } = require("child_process");

const file = process.argv[2];
const chromium = process.env.KORVO_CHROMIUM || "/usr/bin/chromium";
const missing = [];
if (!fs.existsSync(chromium)) missing.push(`Chromium (${chromium})`);
for (const pkg of ["puppeteer-core", "axe-core"]) {
  try {
    require.resolve(pkg);
  } catch {
    missing.push(`the npm package ${pkg} (built with the web UI when node and npm are present)`);
  }
}
if (missing.length) {
  console.log(`browser tests skipped: missing ${missing.join(", ")}`);
  process.exit(77);
}
const r = spawnSync(process.execPath, ["--test", "--test-reporter=spec", file], { stdio: "inherit" });
process.exit(r.status === null ? 1 : r.status);
