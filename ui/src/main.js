// The page: a bar of views (each one click away), the view named by the URL's hash, and a
// banner while the device is away. Views are mounted anew whenever the device comes back.
import { render } from "preact";
import { useEffect, useState } from "preact/hooks";
import { html } from "./ui.js";
import { useConnection } from "./connection.js";
import { StatusView } from "./status.js";
import { SoundsView } from "./sounds.js";
import { SoundView } from "./sound.js";
import { SetsView } from "./sets.js";
import { RecordingView } from "./recording.js";
import { ConfigView } from "./config.js";
import { NetworkView } from "./network.js";
import { AudioView } from "./audio.js";
import { FirmwareView } from "./firmware.js";
import "./style.css";

const VIEWS = [
  ["status", "Status", StatusView],
  ["sounds", "Sounds", SoundsView],
  ["sets", "Sound sets", SetsView],
  ["recording", "Recording", RecordingView],
  ["config", "Settings", ConfigView],
  ["network", "Network", NetworkView],
  ["audio", "Audio", AudioView],
  ["firmware", "Firmware", FirmwareView],
];

function useHash() {
  const [hash, setHash] = useState(location.hash);
  useEffect(() => {
    const on = () => setHash(location.hash);
    addEventListener("hashchange", on);
    return () => removeEventListener("hashchange", on);
  }, []);
  return hash.replace(/^#\/?/, "").split("/");
}

function Banner({ status }) {
  if (status === "online") return null;
  const text =
    status === "restarting"
      ? "The device is restarting. This page reconnects by itself."
      : "Connection lost. Waiting for the device; what you see may be out of date.";
  return html`<div class="banner" role="alert">${text}</div>`;
}

function App() {
  const [name, arg] = useHash();
  const conn = useConnection();
  const view = VIEWS.find((v) => v[0] === name) || VIEWS[0];
  const View = view[2];
  const body = name === "sounds" && arg ? html`<${SoundView} id=${Number(arg)} />` : html`<${View} />`;
  useEffect(() => {
    document.title = `${view[1]} · VELT!Audio`;
  }, [view]);
  const away = conn.status !== "online";
  return html`<header>
      <span class="brand">VELT!Audio</span>
      <nav aria-label="Views">
        ${VIEWS.map(
          ([key, label]) => html`<a href=${`#/${key}`} aria-current=${key === view[0] ? "page" : undefined}>${label}</a>`,
        )}
      </nav>
    </header>
    <${Banner} status=${conn.status} />
    <main class=${away ? "stale" : ""} aria-busy=${away} inert=${away} key=${`${conn.generation}`}>
      <h1 class="visually-hidden">${view[1]}</h1>
      ${body}
    </main>`;
}

render(html`<${App} />`, document.getElementById("app"));
