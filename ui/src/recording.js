// Recording of the bus session: start, stop, state, download, and replay of an upload.
import { get } from "./api.js";
import { html, useLoad, useAction, Notice, Loading, Section, UploadForm } from "./ui.js";

export function RecordingView() {
  const s = useLoad(() => get("/recording/state"));
  const act = useAction();
  const running = s.data && s.data.state === "running";
  const run = (path) => act.run(() => get(path)).then(s.reload);
  return html`<div class="grid">
    <${Section} title="Recording">
      ${s.data
        ? html`<p aria-live="polite">Recorder: <strong>${running ? "recording" : "stopped"}</strong>${s.data.available
              ? " · a recording is ready"
              : ""}</p>`
        : html`<${Loading} state=${s} what="the recorder" />`}
      <div class="row">
        <button type="button" disabled=${act.busy || running} onClick=${() => run("/recording/start")}>Start</button>
        <button type="button" disabled=${act.busy || !running} onClick=${() => run("/recording/stop")}>Stop</button>
        <button type="button" disabled=${act.busy} onClick=${s.reload}>Refresh</button>
        ${s.data && s.data.available && html`<a class="button" href="/recording" download="session.rec">Download</a>`}
      </div>
      <${Notice} notice=${act.notice} />
    <//>
    <${Section} title="Replay a recording">
      <${UploadForm} label="Recording file (.rec)" accept=".rec" path="/recording" button="Upload and replay" />
    <//>
  </div>`;
}
