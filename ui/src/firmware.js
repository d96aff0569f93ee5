// Firmware: the running version, an uploaded update, or one fetched from the update server.
import { useState } from "preact/hooks";
import { get } from "./api.js";
import { connection } from "./connection.js";
import { html, useLoad, useAction, Notice, Loading, Section, UploadForm, ConfirmButton } from "./ui.js";

function Download() {
  const [version, setVersion] = useState("");
  const act = useAction();
  const submit = async (e) => {
    e.preventDefault();
    const answer = await act.run(() => get(`/firmware/auto?version=${encodeURIComponent(version.trim())}`));
    if (answer) connection.restarting();
  };
  return html`<form class="row" onSubmit=${submit}>
    <label for="fw-version">Version to fetch</label>
    <input id="fw-version" value=${version} onInput=${(e) => setVersion(e.target.value)} placeholder="e.g. 1.31" required />
    <button type="submit" disabled=${act.busy}>${act.busy ? "Downloading…" : "Update from server"}</button>
    ${act.busy && html`<span class="muted" aria-live="polite">The device fetches the update; this can take a minute.</span>`}
    <${Notice} notice=${act.notice} />
  </form>`;
}

function Restart() {
  const act = useAction();
  const restart = async () => {
    if (await act.run(() => get("/restart"))) connection.restarting();
  };
  return html`<div class="row">
    <${ConfirmButton} label="Restart now" question="Restart the sound board now?" onConfirm=${restart} disabled=${act.busy} />
    <${Notice} notice=${act.notice} />
  </div>`;
}

export function FirmwareView() {
  const s = useLoad(() => get("/version"));
  return html`<div class="grid">
    <${Section} title="Firmware">
      ${s.data ? html`<p>Running version <strong>${s.data.version}</strong></p>` : html`<${Loading} state=${s} what="the version" />`}
      <${Download} />
    <//>
    <${Section} title="Upload an update">
      <${UploadForm} label="Update archive (.zip)" accept=".zip" path="/firmware"
        extra=${{ name: "signature", label: "Signature (optional)", accept: ".sig" }} />
      <p class="muted">The update is installed at the next start.</p>
      <${Restart} />
    <//>
  </div>`;
}
