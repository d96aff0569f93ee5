// One sound: its fields as a form (only changed fields are sent), its files with their
// waveforms, adding and removing files.
import { useEffect, useState } from "preact/hooks";
import { get, postForm, TYPES } from "./api.js";
import { connection } from "./connection.js";
import { html, useLoad, useAction, Notice, Loading, Section, ConfirmButton, UploadForm } from "./ui.js";
import { Waveform } from "./waveform.js";

// Field -> how a change is sent. The value routes take one form value.
const FIELDS = [
  ["name", (id, v) => postForm(`/sounds/${id}/name`, [["value", v]])],
  ["type", (id, v) => postForm(`/sounds/${id}/type`, [["value", String(v)]])],
  ["gain", (id, v) => postForm(`/sounds/${id}/gain`, [["value", String(v)]])],
  ["ducking", (id, v) => postForm(`/sounds/${id}/ducking`, [["value", String(v)]])],
  ["shakerSeq", (id, v) => postForm(`/sounds/${id}/shaker`, [["value", v]])],
  ["serialCmd", (id, v) => postForm(`/sounds/${id}/serial`, [["value", v]])],
  ["preload", (id, v) => postForm(`/sounds/${id}/preload`, [["value", v ? "true" : "false"]])],
  ["category", (id, v) => get(`/sounds/${id}/move/${v}`)],
];

function draftOf(d) {
  return {
    name: d.name || "",
    type: d.type,
    gain: d.gain,
    ducking: d.ducking,
    shakerSeq: d.shakerSeq || "",
    serialCmd: d.serialCmd || "",
    preload: !!d.preload,
    category: d.category,
  };
}

function Field({ id, label, children }) {
  return html`<div class="field"><label for=${id}>${label}</label>${children}</div>`;
}

function SoundForm({ sound, onSaved }) {
  const [draft, setDraft] = useState(draftOf(sound));
  useEffect(() => setDraft(draftOf(sound)), [sound]);
  const act = useAction();
  const base = draftOf(sound);
  const changed = FIELDS.filter(([k]) => String(draft[k]) !== String(base[k]));
  const set = (k, num) => (e) => {
    const t = e.target;
    setDraft({ ...draft, [k]: t.type === "checkbox" ? t.checked : num ? Number(t.value) : t.value });
  };
  const save = async (e) => {
    e.preventDefault();
    // Every changed field is tried: one refused field (a name in a directory set) does not
    // keep the others from being saved; the refusals are reported together.
    await act.run(async () => {
      const said = [];
      const refused = [];
      for (const [k, send] of changed) {
        try {
          said.push((await send(sound.id, draft[k])).message);
        } catch (err) {
          if (!err.status && connection.current.status !== "online") throw err;
          refused.push(err.message);
        }
      }
      onSaved();
      if (refused.length) throw new Error(refused.concat(said).join(" · "));
      return { message: said.join(" · ") };
    });
  };
  const typeOptions = TYPES.map((t, i) => html`<option value=${i}>${t}</option>`);
  return html`<form class="sound-form" onSubmit=${save}>
    <${Field} id="f-name" label="Name"><input id="f-name" value=${draft.name} onInput=${set("name")} /><//>
    <${Field} id="f-type" label="Type"><select id="f-type" value=${draft.type} onChange=${set("type", true)}>${typeOptions}</select><//>
    <${Field} id="f-gain" label="Gain (0–100, 50 neutral)">
      <input id="f-gain" type="number" min="0" max="100" value=${draft.gain} onInput=${set("gain", true)} /><//>
    <${Field} id="f-duck" label="Ducking (music level %)">
      <input id="f-duck" type="number" min="0" max="100" value=${draft.ducking} onInput=${set("ducking", true)} /><//>
    <${Field} id="f-shaker" label="Shaker sequence"><input id="f-shaker" value=${draft.shakerSeq} onInput=${set("shakerSeq")} /><//>
    <${Field} id="f-serial" label="Serial command"><input id="f-serial" value=${draft.serialCmd} onInput=${set("serialCmd")} /><//>
    <${Field} id="f-group" label="Group (directory)">
      <select id="f-group" value=${draft.category} onChange=${set("category")}>
        ${TYPES.slice(1, 6).map((t) => html`<option value=${t}>${t}</option>`)}
        ${!TYPES.slice(1, 6).includes(draft.category) && html`<option value=${draft.category}>${draft.category}</option>`}
      </select><//>
    <div class="field check">
      <input id="f-preload" type="checkbox" checked=${draft.preload} onChange=${set("preload")} />
      <label for="f-preload">Keep in memory (preload)</label>
    </div>
    <div class="row">
      <button type="submit" disabled=${act.busy || changed.length === 0}>${act.busy ? "Saving…" : "Save changes"}</button>
      <button type="button" disabled=${act.busy || changed.length === 0} onClick=${() => setDraft(base)}>Undo</button>
    </div>
    <${Notice} notice=${act.notice} />
  </form>`;
}

function Samples({ sound, reload }) {
  const act = useAction();
  return html`<ol class="samples">
      ${sound.samples.map(
        (file, n) => html`<li key=${`${sound.id}/${n}/${file}`}>
          <div class="row between"><strong>${file}</strong>
            <${ConfirmButton} label="Remove file" question=${`Remove ${file}?`} disabled=${act.busy}
              onConfirm=${() => act.run(() => get(`/sounds/${sound.id}/sample/${n}/remove`)).then(reload)} />
          </div>
          <${Waveform} soundId=${sound.id} index=${n} name=${file} />
        </li>`,
      )}
    </ol>
    <${Notice} notice=${act.notice} />
    <${UploadForm} label="Add a sample file" accept="audio/*,.ogg,.wav,.mp3" path=${`/sounds/${sound.id}/sample/add`}
      onDone=${reload} button="Add file" />`;
}

export function SoundView({ id }) {
  const s = useLoad(() => get(`/sounds/${id}`), [id]);
  const title = s.data ? `Sound ${s.data.id}: ${s.data.name}` : `Sound ${id}`;
  return html`<div class="grid one">
    <${Section} title=${title} id="sound">
      <p><a href="#/sounds">← All sounds</a></p>
      ${s.data
        ? html`<p class="muted">${s.data.path}</p><${SoundForm} sound=${s.data} onSaved=${() => s.reload()} />`
        : html`<${Loading} state=${s} what="the sound" />`}
    <//>
    ${s.data && html`<${Section} title="Files"><${Samples} sound=${s.data} reload=${s.reload} /><//>`}
  </div>`;
}
