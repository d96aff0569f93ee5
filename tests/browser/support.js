// What the browser tests share: the real korvo daemon on a copy of the demo set (sim bus,
// SDL's disk driver writing the mix to a file), headless Chromium through puppeteer-core,
// and readers of the audio capture. Every wait is for something observable, with a
// generous deadline.
"use strict";
const fs = require("fs");
const net = require("net");
const os = require("os");
const path = require("path");
const { spawn } = require("child_process");
const puppeteer = require("puppeteer-core");

const SOURCE_DIR = path.resolve(__dirname, "../..");
const BINARY_DIR = process.env.KORVO_BINARY_DIR || path.join(SOURCE_DIR, "build");
const KORVO = path.join(BINARY_DIR, "src/app/korvo");
const CHROMIUM = process.env.KORVO_CHROMIUM || "/usr/bin/chromium";
const ARTIFACTS = path.join(BINARY_DIR, "tests/browser");
const DEADLINE = 30000;

// The capture: raw signed 16-bit little-endian stereo at 44.1 kHz (SDL's disk driver with
// the daemon's default format, as its "audio device ... open" line says).
const RATE = 44100;
const FRAME_BYTES = 4;
const TONE_HZ = 1000;
const TONE_ID = 15;

// A mono 16-bit WAV file of a sine tone.
function toneWav(seconds, amplitude, hz = TONE_HZ) {
  const n = Math.round(RATE * seconds);
  const b = Buffer.alloc(44 + n * 2);
  b.write("RIFF", 0);
  b.writeUInt32LE(36 + n * 2, 4);
  b.write("WAVEfmt ", 8);
  b.writeUInt32LE(16, 16);
  b.writeUInt16LE(1, 20);
  b.writeUInt16LE(1, 22);
  b.writeUInt32LE(RATE, 24);
  b.writeUInt32LE(RATE * 2, 28);
  b.writeUInt16LE(2, 32);
  b.writeUInt16LE(16, 34);
  b.write("data", 36);
  b.writeUInt32LE(n * 2, 40);
  for (let i = 0; i < n; i++) {
    b.writeInt16LE(Math.round(amplitude * 32767 * Math.sin((2 * Math.PI * hz * i) / RATE)), 44 + i * 2);
  }
  return b;
}

// A zip archive of stored (uncompressed) entries: enough for a sound set upload.
const CRC_TABLE = Array.from({ length: 256 }, (_, n) => {
  let c = n;
  for (let k = 0; k < 8; k++) c = c & 1 ? 0xedb88320 ^ (c >>> 1) : c >>> 1;
  return c >>> 0;
});
function crc32(buf) {
  let c = 0xffffffff;
  for (const b of buf) c = CRC_TABLE[(c ^ b) & 0xff] ^ (c >>> 8);
  return (c ^ 0xffffffff) >>> 0;
}
function storedZip(entries) {
  const parts = [];
  const central = [];
  let offset = 0;
  for (const [name, data] of entries) {
    const n = Buffer.from(name);
    const crc = crc32(data);
    const local = Buffer.alloc(30);
    local.writeUInt32LE(0x04034b50, 0);
    local.writeUInt16LE(20, 4);
    local.writeUInt32LE(crc, 14);
    local.writeUInt32LE(data.length, 18);
    local.writeUInt32LE(data.length, 22);
    local.writeUInt16LE(n.length, 26);
    const dir = Buffer.alloc(46);
    dir.writeUInt32LE(0x02014b50, 0);
    dir.writeUInt16LE(20, 4);
    dir.writeUInt16LE(20, 6);
    dir.writeUInt32LE(crc, 16);
    dir.writeUInt32LE(data.length, 20);
    dir.writeUInt32LE(data.length, 24);
    dir.writeUInt16LE(n.length, 28);
    dir.writeUInt32LE(offset, 42);
    parts.push(local, n, data);
    central.push(dir, n);
    offset += local.length + n.length + data.length;
  }
  const size = central.reduce((a, b) => a + b.length, 0);
  const end = Buffer.alloc(22);
  end.writeUInt32LE(0x06054b50, 0);
  end.writeUInt16LE(entries.length, 8);
  end.writeUInt16LE(entries.length, 10);
  end.writeUInt32LE(size, 12);
  end.writeUInt32LE(offset, 16);
  return Buffer.concat([...parts, ...central, end]);
}

function freePort() {
  return new Promise((resolve, reject) => {
    const s = net.createServer();
    s.once("error", reject);
    s.listen(0, "127.0.0.1", () => {
      const { port } = s.address();
      s.close(() => resolve(port));
    });
  });
}

// The demo set plus a test tone (sound 15, 1.5 s of 1 kHz at a quarter of full scale),
// with the start-up announcements off so the capture is silent until a test plays.
function makeBaseDir(root) {
  const base = path.join(root, "base");
  fs.cpSync(path.join(SOURCE_DIR, "demo/velt-demo"), path.join(base, "velt-demo"), { recursive: true });
  const tone = path.join(base, "velt-demo/sfx", `${TONE_ID}-test_tone`);
  fs.mkdirSync(tone);
  fs.writeFileSync(path.join(tone, "tone.wav"), toneWav(1.5, 0.25));
  fs.writeFileSync(
    path.join(base, "mellosound.ini"),
    "say_version=0\nsay_preload=0\nplay_boot=0\nsay_mode=0\nenable_eventsrv=0\n",
  );
  return base;
}

// korvo -H on a fixed free port. Exit code 1 is the daemon's own restart (saved settings,
// /restart): like the service manager on a board, the harness starts it again.
class Daemon {
  constructor(root, port) {
    this.root = root;
    this.port = port;
    this.base = makeBaseDir(root);
    this.run = path.join(root, "run");
    this.capture = path.join(root, "capture.raw");
    this.log = "";
    this.starts = 0;
    this.stopping = false;
    fs.mkdirSync(this.run);
  }

  get url() {
    return `http://127.0.0.1:${this.port}`;
  }

  start() {
    this.stopping = false;
    const env = {
      ...process.env,
      KORVO_GPIO: "sim",
      SDL_AUDIODRIVER: "disk",
      SDL_DISKAUDIOFILE: this.capture,
    };
    const child = spawn(KORVO, ["-H", "-N", String(this.port), "-l", "4", this.base], {
      cwd: this.run,
      env,
      stdio: ["ignore", "pipe", "pipe"],
    });
    this.child = child;
    this.starts++;
    const started = this.starts;
    child.stdout.on("data", (d) => (this.log += d));
    child.stderr.on("data", (d) => (this.log += d));
    this.exited = new Promise((resolve) => {
      child.on("exit", (code) => {
        if (code === 1 && !this.stopping && started === this.starts) this.start();
        resolve(code);
      });
    });
    return this.waitForLog(`started http service on port ${this.port}`, this.log.length);
  }

  // Resolves once the log, from byte `from` on, contains `text`.
  waitForLog(text, from = 0) {
    return waitFor(() => this.log.indexOf(text, from) >= 0, `log line "${text}"`);
  }

  async stop() {
    this.stopping = true;
    if (!this.child || this.child.exitCode !== null) return;
    this.child.kill("SIGTERM");
    await this.exited;
  }
}

async function waitFor(test, what, deadline = DEADLINE) {
  const end = Date.now() + deadline;
  while (!test()) {
    if (Date.now() > end) throw new Error(`timed out waiting for ${what}`);
    await new Promise((r) => setTimeout(r, 50));
  }
}

async function startDaemon() {
  const root = fs.mkdtempSync(path.join(os.tmpdir(), "korvo-browser-"));
  const d = new Daemon(root, await freePort());
  await d.start();
  return d;
}

async function startBrowser() {
  const dataDir = fs.mkdtempSync(path.join(os.tmpdir(), "korvo-chromium-"));
  const browser = await puppeteer.launch({
    executablePath: CHROMIUM,
    headless: true,
    userDataDir: dataDir,
    args: [
      "--headless",
      "--no-sandbox",
      "--disable-gpu",
      "--disable-quic",
      "--no-first-run",
      "--disable-background-networking",
      "--disable-component-update",
      "--disable-sync",
      "--autoplay-policy=no-user-gesture-required",
    ],
  });
  browser.dataDir = dataDir;
  return browser;
}

async function openPage(browser, daemon, hash = "", viewport = { width: 1280, height: 900 }) {
  const page = await browser.newPage();
  await page.setViewport(viewport);
  page.errors = [];
  page.on("pageerror", (e) => page.errors.push(e.message));
  await page.goto(`${daemon.url}/${hash}`, { waitUntil: "load" });
  await page.waitForSelector("main h2");
  return page;
}

// Clicks the button (or link) whose visible text is `text`, inside `scope` if given.
async function clickText(page, text, scope = "body") {
  const el = await page.waitForSelector(`${scope} ::-p-text(${text})`);
  await el.click();
}

const captureSize = (d) => (fs.existsSync(d.capture) ? fs.statSync(d.capture).size : 0);

// Waits until the capture holds `seconds` of audio past byte `from`, and returns the
// left channel of that stretch as numbers in -1..1.
async function captureAfter(d, from, seconds) {
  const start = from - (from % FRAME_BYTES);
  const bytes = Math.round(seconds * RATE) * FRAME_BYTES;
  await waitFor(() => captureSize(d) >= start + bytes, `${seconds} s of captured audio`);
  const buf = Buffer.alloc(bytes);
  const fd = fs.openSync(d.capture, "r");
  fs.readSync(fd, buf, 0, bytes, start);
  fs.closeSync(fd);
  const out = new Float64Array(bytes / FRAME_BYTES);
  for (let i = 0; i < out.length; i++) out[i] = buf.readInt16LE(i * FRAME_BYTES) / 32768;
  return out;
}

// Waits until the last half second of the capture is silent: the start-up prompts (the
// set's number, "ready") are over and a test's sound is the only one.
function tailRms(d, seconds) {
  const bytes = Math.round(seconds * RATE) * FRAME_BYTES;
  const size = captureSize(d) - (captureSize(d) % FRAME_BYTES);
  if (size < bytes) return 1;
  const buf = Buffer.alloc(bytes);
  const fd = fs.openSync(d.capture, "r");
  fs.readSync(fd, buf, 0, bytes, size - bytes);
  fs.closeSync(fd);
  let sum = 0;
  for (let i = 0; i < bytes; i += 2) sum += (buf.readInt16LE(i) / 32768) ** 2;
  return Math.sqrt(sum / (bytes / 2));
}
const waitForSilence = (d) => waitFor(() => tailRms(d, 0.5) < 1e-4, "a silent capture");

const rms = (x) => Math.sqrt(x.reduce((s, v) => s + v * v, 0) / Math.max(1, x.length));

// The RMS of the stretch's component at `hz` (Goertzel), to tell the tone from noise.
function toneRms(x, hz = TONE_HZ) {
  const w = (2 * Math.PI * hz) / RATE;
  let re = 0;
  let im = 0;
  for (let i = 0; i < x.length; i++) {
    re += x[i] * Math.cos(w * i);
    im += x[i] * Math.sin(w * i);
  }
  return (Math.sqrt(re * re + im * im) / x.length) * Math.SQRT2;
}

// The loudest window of `win` seconds: the sound's level wherever in the stretch it began.
function loudestWindow(x, win = 0.5) {
  const n = Math.round(win * RATE);
  let best = { rms: 0, at: 0 };
  for (let at = 0; at + n <= x.length; at += Math.round(n / 4)) {
    const r = rms(x.subarray(at, at + n));
    if (r > best.rms) best = { rms: r, at };
  }
  return { ...best, samples: x.subarray(best.at, best.at + n) };
}

// A view has loaded when its heading is there and nothing in it still says "Loading".
async function viewLoaded(page) {
  await page.waitForSelector("main h2");
  await page.waitForFunction(() => !document.querySelector('main [aria-busy="true"]'), { timeout: DEADLINE });
}

// axe-core's findings of impact "serious" or "critical" on the page as it is now.
async function seriousA11yViolations(page) {
  if (!(await page.evaluate(() => typeof window.axe === "object"))) {
    await page.addScriptTag({ path: require.resolve("axe-core/axe.min.js") });
  }
  const found = await page.evaluate(() => window.axe.run(document, { resultTypes: ["violations"] }));
  return found.violations
    .filter((v) => v.impact === "serious" || v.impact === "critical")
    .map((v) => ({ id: v.id, help: v.help, nodes: v.nodes.map((n) => n.html.slice(0, 120)) }));
}

// Chromium's own network throttling, so that an upload on loopback takes long enough for
// its progress to be seen.
async function throttleUploads(page, bytesPerSecond) {
  const cdp = await page.createCDPSession();
  await cdp.send("Network.enable");
  await cdp.send("Network.emulateNetworkConditions", {
    offline: false,
    latency: 0,
    downloadThroughput: -1,
    uploadThroughput: bytesPerSecond,
  });
}

// Collects every value the page's progress bar shows into window.progressSeen.
function recordProgress(page) {
  return page.evaluate(() => {
    window.progressSeen = [];
    const note = () => {
      const bar = document.querySelector("progress");
      if (bar) window.progressSeen.push(Number(bar.value));
    };
    new MutationObserver(note).observe(document.body, {
      subtree: true,
      childList: true,
      characterData: true,
      attributes: true,
    });
  });
}

async function screenshot(page, name) {
  fs.mkdirSync(path.join(ARTIFACTS, "screenshots"), { recursive: true });
  const file = path.join(ARTIFACTS, "screenshots", `${name}.png`);
  await page.screenshot({ path: file, fullPage: true });
  return file;
}

// One daemon and one browser for a whole test file, through node:test's before and after
// hooks; `started(daemon, browser)` receives them (and may prepare more) once both run.
function shareRig(started) {
  const { before, after } = require("node:test");
  let daemon;
  let browser;
  before(async () => {
    daemon = await startDaemon();
    browser = await startBrowser();
    await started(daemon, browser);
  });
  after(() => closeAll(browser, daemon));
}

// Replaces the text of the input `selector` by `text`, as a person selecting it and typing.
async function typeOver(page, selector, text) {
  const field = await page.waitForSelector(selector);
  await field.click({ clickCount: 3 });
  await field.type(text);
  return field;
}

async function closeAll(browser, daemon) {
  if (browser) {
    await browser.close();
    fs.rmSync(browser.dataDir, { recursive: true, force: true });
  }
  if (daemon) {
    await daemon.stop();
    fs.rmSync(daemon.root, { recursive: true, force: true });
  }
}

module.exports = {
  ARTIFACTS,
  TONE_ID,
  captureAfter,
  captureSize,
  clickText,
  closeAll,
  loudestWindow,
  openPage,
  rms,
  recordProgress,
  screenshot,
  shareRig,
  throttleUploads,
  typeOver,
  storedZip,
  seriousA11yViolations,
  viewLoaded,
  startBrowser,
  startDaemon,
  toneRms,
  toneWav,
  waitFor,
  waitForSilence,
};
