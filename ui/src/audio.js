// Audio output devices and the ALSA mixer controls of each.
import { useState } from "preact/hooks";
import { get } from "./api.js";
import { html, useLoad, useAction, Notice, Loading, Section } from "./ui.js";

function Control({ device, control, act }) {
  const [values, setValues] = useState(control.values || []);
  const numeric = control.type === "INTEGER";
  const setValue = (i, v) => {
    const next = values.slice();
    next[i] = v;
    setValues(next);
    act.run(() => get(`/audioDevices/${device}/control/${control.numid}/value/${i}/${v}`));
  };
  return html`<fieldset class="control">
    <legend>${control.name}</legend>
    ${values.map((v, i) => {
      const id = `ctl-${device}-${control.numid}-${i}`;
      const what = `${control.name}${values.length > 1 ? ` channel ${i + 1}` : ""}`;
      return numeric
        ? html`<div class="field"><label for=${id}>${what}: ${v}</label>
            <input id=${id} type="range" min=${control.min} max=${control.max} value=${v}
              onChange=${(e) => setValue(i, Number(e.target.value))} /></div>`
        : html`<div class="field check"><input id=${id} type="checkbox" checked=${v !== 0}
              onChange=${(e) => setValue(i, e.target.checked ? 1 : 0)} /><label for=${id}>${what}</label></div>`;
    })}
  </fieldset>`;
}

function Controls({ device }) {
  // A device without an ALSA card (SDL's own drivers) answers 404: it has no controls.
  const s = useLoad(
    () => get(`/audioDevices/${device}/controls`).catch((e) => (e.status === 404 ? [] : Promise.reject(e))),
    [device],
  );
  const act = useAction();
  if (!s.data) return html`<${Loading} state=${s} what="the mixer controls" />`;
  if (!s.data.length) return html`<p class="muted">This device has no mixer controls.</p>`;
  return html`<div>
    ${s.data.map((c) => html`<${Control} key=${c.numid} device=${device} control=${c} act=${act} />`)}
    <${Notice} notice=${act.notice} />
  </div>`;
}

export function AudioView() {
  const s = useLoad(() => get("/audioDevices"));
  const act = useAction();
  const [open, setOpen] = useState(null);
  return html`<div class="grid">
    <${Section} title="Audio devices">
      ${s.data
        ? html`<ul class="sets">
            ${s.data.map(
              (d, i) => html`<li key=${i} class=${d.selected ? "set selected" : "set"}>
                <span class="set-name"><strong>${d.name}</strong> <span class="muted">${d.descr}${d.selected ? " · in use" : ""}</span></span>
                <span class="actions">
                  <button type="button" disabled=${d.selected || act.busy}
                    onClick=${() => act.run(() => get(`/audioDevices/${i}`)).then(s.reload)}>Use</button>
                  <button type="button" aria-expanded=${open === i} onClick=${() => setOpen(open === i ? null : i)}>Controls</button>
                </span>
              </li>`,
            )}
          </ul>
          ${s.data.length === 0 && html`<p>No audio device found.</p>`}`
        : html`<${Loading} state=${s} what="the audio devices" />`}
      <${Notice} notice=${act.notice} />
    <//>
    ${open !== null && html`<${Section} title="Mixer controls"><${Controls} device=${open} /><//>`}
  </div>`;
}
