// The configuration catalogue from /config as a form, one section per GROUP row. Saving
// replaces mellosound.ini and restarts the daemon; the page waits for it to come back.
import { useEffect, useState } from "preact/hooks";
import { get, postForm } from "./api.js";
import { connection } from "./connection.js";
import { html, useLoad, useAction, Notice, Loading, Section } from "./ui.js";

const [INT, BOOL, HEX, , ENUM, GROUP] = [0, 1, 2, 3, 4, 5];

function sections(rows) {
  const out = [];
  for (const r of rows) {
    if (r.type === GROUP || out.length === 0) out.push({ title: r.type === GROUP ? r.name : "General", rows: [] });
    if (r.type !== GROUP) out[out.length - 1].rows.push(r);
  }
  return out.filter((s) => s.rows.length);
}

const label = (r) => r.displayName || r.name.replace(/_/g, " ");
const shown = (r) => (r.value === null || r.value === undefined ? "" : r.value);

function Input({ row, value, onChange }) {
  const id = `cfg-${row.name}`;
  const put = (e) => onChange(row.name, row.type === BOOL ? e.target.checked : e.target.value);
  switch (row.type) {
    case BOOL:
      return html`<div class="field check"><input id=${id} type="checkbox" checked=${value} onChange=${put} />
        <label for=${id}>${label(row)}</label></div>`;
    case ENUM:
      return html`<div class="field"><label for=${id}>${label(row)}</label>
        <select id=${id} value=${value} onChange=${put}>
          ${row.options.map((o) => html`<option value=${o.value}>${o.label}</option>`)}
        </select></div>`;
    case INT:
      return html`<div class="field"><label for=${id}>${label(row)}</label>
        <input id=${id} type="number" value=${value} onInput=${put} /></div>`;
    default: {
      const secret = row.name === "http_password";
      return html`<div class="field"><label for=${id}>${label(row)}${secret ? " (empty keeps it)" : ""}</label>
        <input id=${id} type=${secret ? "password" : "text"} value=${value} onInput=${put}
          autocomplete=${secret ? "new-password" : "off"} pattern=${row.type === HEX ? "[0-9a-fA-Fx ]*" : undefined} /></div>`;
    }
  }
}

// The form's values as the settings file wants them: BOOL as 1/0, the rest as text.
function fields(rows, values) {
  return rows
    .filter((r) => r.type !== GROUP)
    .map((r) => [r.name, r.type === BOOL ? (values[r.name] ? "1" : "0") : String(values[r.name])]);
}

export function ConfigView() {
  const s = useLoad(() => get("/config"));
  const [values, setValues] = useState({});
  const act = useAction();
  useEffect(() => {
    if (s.data) setValues(Object.fromEntries(s.data.filter((r) => r.type !== GROUP).map((r) => [r.name, shown(r)])));
  }, [s.data]);
  if (!s.data) return html`<${Loading} state=${s} what="the configuration" />`;
  const change = (name, v) => setValues({ ...values, [name]: v });
  const save = async (e) => {
    e.preventDefault();
    const answer = await act.run(() => postForm("/config", fields(s.data, values)));
    if (answer) connection.restarting();
  };
  return html`<form class="grid config" onSubmit=${save}>
    ${sections(s.data).map(
      (sec) => html`<${Section} title=${sec.title} key=${sec.title}>
        <div class="fields">
          ${sec.rows.map((r) => html`<${Input} key=${r.name} row=${r} value=${values[r.name] ?? ""} onChange=${change} />`)}
        </div>
      <//>`,
    )}
    <div class="savebar">
      <button type="submit" disabled=${act.busy}>${act.busy ? "Saving…" : "Save and restart"}</button>
      <span class="muted">The device restarts to apply the settings and this page reconnects by itself.</span>
      <${Notice} notice=${act.notice} />
    </div>
  </form>`;
}

