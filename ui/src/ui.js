// Small pieces every view uses: loading state, actions with a busy flag and a message,
// progress, and the two-step confirmation of destructive actions.
import { h } from "preact";
import { useCallback, useEffect, useRef, useState } from "preact/hooks";
import htm from "htm";
import { upload } from "./api.js";

export const html = htm.bind(h);

// Loads with `load()` once (and again on reload()); `data` stays null until it answered.
export function useLoad(load, deps = []) {
  const [state, setState] = useState({ data: null, error: null, loading: true });
  const alive = useRef(true);
  useEffect(() => () => (alive.current = false), []);
  const reload = useCallback(() => {
    setState((s) => ({ ...s, loading: true }));
    return load().then(
      (data) => alive.current && setState({ data, error: null, loading: false }),
      (e) => alive.current && setState({ data: null, error: e.message, loading: false }),
    );
  }, deps);
  useEffect(() => {
    reload();
  }, [reload]);
  return { ...state, reload, set: (data) => setState({ data, error: null, loading: false }) };
}

// run(fn): calls fn (a promise), shows its answer's message or its error; busy meanwhile.
export function useAction() {
  const [busy, setBusy] = useState(false);
  const [notice, setNotice] = useState(null);
  const run = useCallback(async (fn, okText) => {
    setBusy(true);
    setNotice(null);
    try {
      const answer = await fn();
      const text = okText || (answer && answer.message);
      if (text) setNotice({ ok: true, text });
      return answer;
    } catch (e) {
      setNotice({ ok: false, text: e.message });
      return undefined;
    } finally {
      setBusy(false);
    }
  }, []);
  return { run, busy, notice, setNotice };
}

export function Notice({ notice }) {
  if (!notice) return html`<p class="notice" role="status"></p>`;
  return notice.ok
    ? html`<p class="notice ok" role="status">${notice.text}</p>`
    : html`<p class="notice err" role="alert">${notice.text}</p>`;
}

// What a view shows until its data arrived, or why it did not.
export function Loading({ state, what }) {
  if (state.error) return html`<p class="notice err" role="alert">${state.error}</p>`;
  return html`<p class="muted" aria-busy="true">Loading ${what}…</p>`;
}

export function Progress({ value, label }) {
  if (value === null || value === undefined) return null;
  const pct = Math.round(value * 100);
  return html`<div class="progress">
    <progress max="100" value=${pct} aria-label=${label}></progress>
    <span>${pct < 100 ? `${label} ${pct}%` : `${label}: sent, waiting for the device…`}</span>
  </div>`;
}

// A destructive action: the first click asks, the second (on "Yes") does it.
export function ConfirmButton({ label, question, onConfirm, disabled }) {
  const [asking, setAsking] = useState(false);
  const yes = useRef(null);
  useEffect(() => {
    if (asking && yes.current) yes.current.focus();
  }, [asking]);
  if (!asking) {
    return html`<button type="button" class="danger" disabled=${disabled} onClick=${() => setAsking(true)}>
      ${label}
    </button>`;
  }
  return html`<span class="confirm" role="group" aria-label=${question}>
    <span>${question}</span>
    <button type="button" class="danger" ref=${yes} onClick=${() => (setAsking(false), onConfirm())}>Yes</button>
    <button type="button" onClick=${() => setAsking(false)}>No</button>
  </span>`;
}

export function Section({ title, children, id }) {
  const hid = `h-${id || title.toLowerCase().replace(/[^a-z0-9]+/g, "-")}`;
  return html`<section aria-labelledby=${hid}><h2 id=${hid}>${title}</h2>${children}</section>`;
}

// Upload form: a file picker, an optional second picker, a button, progress and answer.
export function UploadForm({ label, accept, path, extra, onDone, button = "Upload" }) {
  const [files, setFiles] = useState({});
  const [progress, setProgress] = useState(null);
  const act = useAction();
  const id = useRef(`up-${Math.random().toString(36).slice(2)}`).current;
  const submit = async (e) => {
    e.preventDefault();
    if (!files.file) return act.setNotice({ ok: false, text: "Choose a file first." });
    const form = e.target;
    setProgress(0);
    const list = [["file", files.file], ...(extra ? [[extra.name, files[extra.name]]] : [])];
    const answer = await act.run(() => upload(path, list, setProgress));
    setProgress(null);
    if (answer) {
      form.reset();
      setFiles({});
      if (onDone) onDone(answer);
    }
  };
  const pick = (name) => (e) => setFiles({ ...files, [name]: e.target.files[0] });
  return html`<form class="upload" onSubmit=${submit}>
    <label for=${id}>${label}</label>
    <input id=${id} type="file" accept=${accept} onChange=${pick("file")} disabled=${act.busy} />
    ${extra &&
    html`<label for=${id + "x"}>${extra.label}</label>
      <input id=${id + "x"} type="file" accept=${extra.accept} onChange=${pick(extra.name)} disabled=${act.busy} />`}
    <button type="submit" disabled=${act.busy}>${act.busy ? "Uploading…" : button}</button>
    <${Progress} value=${progress} label="Upload" />
    <${Notice} notice=${act.notice} />
  </form>`;
}

