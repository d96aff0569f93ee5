// Network: interfaces, Wi-Fi scan and join, host name. Changes apply after a reboot.
import { useState } from "preact/hooks";
import { get } from "./api.js";
import { connection } from "./connection.js";
import { html, useLoad, useAction, Notice, Loading, Section, ConfirmButton } from "./ui.js";

const COUNTRIES = ["DE", "GB", "FR", "US", "SE", "JP"];

function Interfaces() {
  const s = useLoad(() => get("/network"));
  if (!s.data) return html`<${Loading} state=${s} what="the interfaces" />`;
  return html`<ul class="plain">
    ${s.data.map((n) => html`<li key=${n.name}><strong>${n.name}</strong> ${n.ip === "NOIP" ? "no address" : n.ip}</li>`)}
  </ul>`;
}

function Wifi() {
  const [networks, setNetworks] = useState(null);
  const [form, setForm] = useState({ sid: "", passphrase: "", country: "DE" });
  const scan = useAction();
  const join = useAction();
  const doScan = () => scan.run(() => get("/wifi").then((list) => (setNetworks(list), null)));
  const put = (k) => (e) => setForm({ ...form, [k]: e.target.value });
  const submit = (e) => {
    e.preventDefault();
    const q = new URLSearchParams(form).toString().replace(/\+/g, "%20");
    join.run(() => get(`/setupWifi?${q}`));
  };
  return html`<div>
    <div class="row">
      <button type="button" onClick=${doScan} disabled=${scan.busy}>${scan.busy ? "Scanning (takes a few seconds)…" : "Scan for networks"}</button>
    </div>
    <${Notice} notice=${scan.notice} />
    ${networks &&
    html`<p class="muted">${networks.length ? "Pick a network or type its name:" : "No network found."}</p>
      <ul class="chips">${networks.map(
        (n) => html`<li key=${n.name}><button type="button" onClick=${() => setForm({ ...form, sid: n.name })}>${n.name}</button></li>`,
      )}</ul>`}
    <form class="fields" onSubmit=${submit}>
      <div class="field"><label for="wifi-sid">Network name (SSID)</label>
        <input id="wifi-sid" value=${form.sid} onInput=${put("sid")} required /></div>
      <div class="field"><label for="wifi-pass">Passphrase</label>
        <input id="wifi-pass" type="password" value=${form.passphrase} onInput=${put("passphrase")} autocomplete="off" required /></div>
      <div class="field"><label for="wifi-country">Country</label>
        <select id="wifi-country" value=${form.country} onChange=${put("country")}>
          ${COUNTRIES.map((c) => html`<option value=${c}>${c}</option>`)}
        </select></div>
      <div class="row"><button type="submit" disabled=${join.busy}>Join network</button></div>
      <${Notice} notice=${join.notice} />
    </form>
  </div>`;
}

function Hostname() {
  const s = useLoad(() => get("/hostname"));
  const [name, setName] = useState(null);
  const act = useAction();
  if (!s.data) return html`<${Loading} state=${s} what="the host name" />`;
  const value = name ?? s.data.hostname;
  const submit = (e) => {
    e.preventDefault();
    act.run(() => get(`/setHostname?hostname=${encodeURIComponent(value)}`));
  };
  return html`<form class="row" onSubmit=${submit}>
    <label for="hostname">Host name</label>
    <input id="hostname" value=${value} onInput=${(e) => setName(e.target.value)} />
    <button type="submit" disabled=${act.busy}>Set host name</button>
    <${Notice} notice=${act.notice} />
  </form>`;
}

function Reboot() {
  const act = useAction();
  const reboot = async () => {
    if (await act.run(() => get("/restart?code=2"))) connection.restarting();
  };
  return html`<div class="row">
    <${ConfirmButton} label="Reboot the device" question="Reboot now? Sound stops until it is back." onConfirm=${reboot}
      disabled=${act.busy} />
    <${Notice} notice=${act.notice} />
  </div>`;
}

export function NetworkView() {
  return html`<div class="grid">
    <${Section} title="Interfaces"><${Interfaces} /><//>
    <${Section} title="Wi-Fi"><${Wifi} /><//>
    <${Section} title="Host name"><${Hostname} /><p class="muted">Network changes apply after a reboot.</p><${Reboot} /><//>
  </div>`;
}
