// Sound sets: the installed ones, switch, next, remove, export as an AltSound pack, upload.
import { useState } from "preact/hooks";
import { download, get, SET_KINDS } from "./api.js";
import { html, useLoad, useAction, Notice, Loading, Section, ConfirmButton, UploadForm } from "./ui.js";

// The set's name as a URL path (a set below a folder keeps its slashes).
const setPath = (name) => name.split("/").map(encodeURIComponent).join("/");

function SetRow({ set, act, reload }) {
  const doThen = (fn) => act.run(fn).then(reload);
  const [exporting, setExporting] = useState(false);
  const exportText = exporting ? "Exporting…" : "Export AltSound";
  const exportPack = () => {
    setExporting(true);
    act
      .run(() => download(`/soundsets/${setPath(set.name)}/altsound.zip`, `${set.name}-altsound.zip`))
      .finally(() => setExporting(false));
  };
  return html`<li class=${set.selected ? "set selected" : "set"}>
    <span class="set-name">
      <strong>${set.id}: ${set.name}</strong>
      <span class="muted"> ${SET_KINDS[set.type] || "unknown kind"}${set.selected ? " · playing" : ""}</span>
    </span>
    <span class="actions">
      <button type="button" disabled=${set.selected || act.busy} onClick=${() => doThen(() => get(`/soundsets/${set.id}`))}
        aria-label=${`Switch to ${set.name}`}>Switch</button>
      <button type="button" class="export" disabled=${act.busy} onClick=${exportPack} aria-busy=${exporting}
        aria-label=${`${exportText}: ${set.name}`}>${exportText}</button>
      <${ConfirmButton} label="Remove" question=${`Delete ${set.name} from the device?`} disabled=${act.busy}
        onConfirm=${() => doThen(() => get(`/soundsets/${set.id}/remove`))} />
    </span>
  </li>`;
}

export function SetsView() {
  const s = useLoad(() => get("/soundsets"));
  const act = useAction();
  const refresh = () => act.run(() => get("/soundsets?refresh=1").then((d) => (s.set(d), null)));
  return html`<div class="grid">
    <${Section} title="Sound sets">
      ${s.data
        ? html`<ul class="sets" aria-busy=${act.busy}>
            ${s.data.map((set) => html`<${SetRow} key=${set.id} set=${set} act=${act} reload=${s.reload} />`)}
          </ul>
          ${s.data.length === 0 && html`<p>No sound set is installed yet: upload one below.</p>`}`
        : html`<${Loading} state=${s} what="the sound sets" />`}
      <div class="row">
        <button type="button" disabled=${act.busy} onClick=${() => act.run(() => get("/soundset/next")).then(s.reload)}>
          Next set
        </button>
        <button type="button" disabled=${act.busy} onClick=${refresh}>Scan again</button>
        ${act.busy && html`<span class="muted" aria-live="polite">Working…</span>`}
      </div>
      <${Notice} notice=${act.notice} />
    <//>
    <${Section} title="Add a sound set">
      <p class="muted">A .zip of a set's directory, or an .xsnd container.</p>
      <${UploadForm} label="Sound set file" accept=".zip,.xsnd" path="/soundsets" onDone=${s.reload} />
    <//>
  </div>`;
}
