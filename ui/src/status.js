// The start page: what the device is and does, the volume, gains and ducking by type,
// the front-panel mirror and the live log.
import { useState } from "preact/hooks";
import { get, TYPES } from "./api.js";
import { html, useLoad, useAction, Notice, Loading, Section } from "./ui.js";
import { PanelMirror } from "./panel.js";
import { LiveLog } from "./livelog.js";
import { NowPlaying } from "./playing.js";

async function loadDevice() {
  const [version, config, sets, net] = await Promise.all([
    get("/version"),
    get("/config"),
    get("/soundsets"),
    get("/network"),
  ]);
  const vendor = config.find((r) => r.name === "vendor");
  const option = vendor && vendor.options && vendor.options.find((o) => String(o.value) === String(vendor.value));
  const set = sets.find((s) => s.selected);
  const addresses = net.filter((n) => n.name !== "lo" && n.ip !== "NOIP").map((n) => `${n.name} ${n.ip}`);
  return {
    version: version.version,
    memory: Number(version.memory),
    protocol: option ? option.label : "unknown",
    set: set ? `${set.id}: ${set.name}` : "none loaded",
    addresses: addresses.length ? addresses.join(", ") : "no network address",
  };
}

function DeviceFacts() {
  const s = useLoad(loadDevice);
  if (!s.data) return html`<${Loading} state=${s} what="the device's state" />`;
  const d = s.data;
  return html`<dl class="facts">
    <dt>Version</dt><dd>${d.version}</dd>
    <dt>Protocol</dt><dd>${d.protocol}</dd>
    <dt>Address</dt><dd>${d.addresses} (page served from ${location.host})</dd>
    <dt>Sound set</dt><dd>${d.set}</dd>
    <dt>Memory</dt><dd>${(d.memory / 1048576).toFixed(1)} MiB</dd>
  </dl>`;
}

function Volume() {
  const s = useLoad(() => get("/volume"));
  const [shown, setShown] = useState(null);
  const act = useAction();
  if (!s.data) return html`<${Loading} state=${s} what="the volume" />`;
  const value = shown ?? Number(s.data.volume);
  const apply = (e) => act.run(() => get(`/volume/${e.target.value}`));
  return html`<div class="volume">
    <label for="volume">Master volume <output for="volume">${value}</output> / 128</label>
    <input id="volume" type="range" min="0" max="128" value=${value}
      onInput=${(e) => setShown(Number(e.target.value))} onChange=${apply} />
    <${Notice} notice=${act.notice} />
  </div>`;
}

async function loadMix() {
  const types = [1, 2, 3, 4, 5, 6];
  const rows = await Promise.all(
    types.map(async (t) => {
      const [g, d] = await Promise.all([get(`/gainByType/${t}`), get(`/duckByType/${t}`)]);
      return { type: t, gain: Number(g.gain), ducking: Number(d.ducking) };
    }),
  );
  return rows;
}

function MixTable() {
  const s = useLoad(loadMix);
  const act = useAction();
  if (!s.data) return html`<${Loading} state=${s} what="gains" />`;
  const change = (route, type) => (e) => {
    const v = Math.max(0, Math.min(100, Math.round(Number(e.target.value))));
    act.run(() => get(`/${route}/${type}/${v}`)).then(s.reload);
  };
  return html`<table class="mix">
      <caption>Gain (50 neutral) and the music's level while each type plays, in percent</caption>
      <thead><tr><th scope="col">Type</th><th scope="col">Gain</th><th scope="col">Ducking</th></tr></thead>
      <tbody>
        ${s.data.map(
          (r) => html`<tr key=${r.type}>
            <th scope="row">${TYPES[r.type]}</th>
            <td><input type="number" min="0" max="100" value=${r.gain} aria-label=${`gain of ${TYPES[r.type]}`}
              onChange=${change("gainByType", r.type)} /></td>
            <td><input type="number" min="0" max="100" value=${r.ducking} aria-label=${`ducking of ${TYPES[r.type]}`}
              onChange=${change("duckByType", r.type)} /></td>
          </tr>`,
        )}
      </tbody>
    </table>
    <${Notice} notice=${act.notice} />`;
}

function QuickPlay() {
  const [id, setId] = useState("");
  const act = useAction();
  const play = (e) => {
    e.preventDefault();
    if (id !== "") act.run(() => get(`/sounds/play/${Number(id)}`));
  };
  return html`<form class="row" onSubmit=${play}>
    <label for="quick-id">Command id</label>
    <input id="quick-id" type="number" min="0" max="65535" value=${id} onInput=${(e) => setId(e.target.value)} />
    <button type="submit" disabled=${act.busy}>Play</button>
    <button type="button" onClick=${() => act.run(() => get("/sounds/play/stop"))}>Stop all</button>
    <${Notice} notice=${act.notice} />
  </form>`;
}

export function StatusView() {
  return html`<div class="grid">
    <${Section} title="Device"><${DeviceFacts} /><//>
    <${PanelMirror} />
    <${Section} title="Volume"><${Volume} /><${QuickPlay} /><//>
    <${NowPlaying} />
    <${Section} title="Gain and ducking by type"><${MixTable} /><//>
    <${Section} title="Live log"><${LiveLog} /><//>
  </div>`;
}
