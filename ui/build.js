// Bundles the page with esbuild into the html directory beside the korvo program and
// writes a gzip variant of each file (the web service sends it when it exists).
// Usage: node build.js <source dir> <output dir> <node_modules dir>
"use strict";
const fs = require("fs");
const path = require("path");
const { execFileSync } = require("child_process");

const BUDGET = 150 * 1024; // the whole page, gzipped: a Pi Zero on weak Wi-Fi

async function main() {
  const [src, out, modules] = process.argv.slice(2).map((p) => path.resolve(p));
  if (!src || !out || !modules) throw new Error("usage: node build.js <src> <out> <node_modules>");
  const esbuild = require(path.join(modules, "esbuild"));
  fs.mkdirSync(out, { recursive: true });
  await esbuild.build({
    entryPoints: [path.join(src, "main.js")],
    outfile: path.join(out, "app.js"),
    bundle: true,
    minify: true,
    format: "iife",
    target: "es2020",
    nodePaths: [modules],
    legalComments: "none",
    logLevel: "warning",
  });
  fs.copyFileSync(path.join(src, "index.html"), path.join(out, "index.html"));
  let total = 0;
  for (const name of ["index.html", "app.js", "app.css"]) {
    const file = path.join(out, name);
    execFileSync("gzip", ["-9", "-n", "-k", "-f", file]);
    const raw = fs.statSync(file).size;
    const gz = fs.statSync(file + ".gz").size;
    total += gz;
    console.log(`web UI: ${name} ${raw} bytes, ${gz} gzipped`);
  }
  console.log(`web UI: ${(total / 1024).toFixed(1)} KiB gzipped in all (budget ${BUDGET / 1024} KiB)`);
  if (total > BUDGET) throw new Error(`the web UI is over its budget of ${BUDGET / 1024} KiB gzipped`);
}

main().catch((e) => {
  console.error(`web UI build failed: ${e.message}`);
  process.exit(1);
});
