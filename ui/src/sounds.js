// The loaded set's sounds by category, searchable by id or name, with play and stop.
import { useState } from "preact/hooks";
import { get, TYPES } from "./api.js";
import { html, useLoad, useAction, Notice, Loading, Section } from "./ui.js";

const CATEGORIES = TYPES.slice(1);

async function loadSounds() {
  const lists = await Promise.all(CATEGORIES.map((c) => get(`/sounds/category/${c}`)));
  const all = [];
  lists.forEach((list, i) => list.forEach((s) => all.push({ ...s, category: CATEGORIES[i] })));
  return all.sort((a, b) => a.id - b.id);
}

function matches(sound, category, query) {
  if (category && sound.category !== category) return false;
  if (!query) return true;
  const q = query.trim().toLowerCase();
  return String(sound.id) === q || sound.name.toLowerCase().includes(q) || String(sound.id).startsWith(q);
}

export function SoundsView() {
  const s = useLoad(loadSounds);
  const [category, setCategory] = useState("");
  const [query, setQuery] = useState("");
  const act = useAction();
  const shown = s.data ? s.data.filter((x) => matches(x, category, query)) : [];
  return html`<${Section} title="Sounds">
    <div class="row">
      <label for="sound-cat">Category</label>
      <select id="sound-cat" value=${category} onChange=${(e) => setCategory(e.target.value)}>
        <option value="">all</option>
        ${CATEGORIES.map((c) => html`<option value=${c}>${c}</option>`)}
      </select>
      <label for="sound-q">Search id or name</label>
      <input id="sound-q" type="search" value=${query} onInput=${(e) => setQuery(e.target.value)} />
      <button type="button" onClick=${() => act.run(() => get("/sounds/play/stop"))}>Stop all</button>
    </div>
    <${Notice} notice=${act.notice} />
    ${!s.data
      ? html`<${Loading} state=${s} what="the sounds" />`
      : html`<p class="muted" aria-live="polite">${shown.length} of ${s.data.length} sounds</p>
          <ul class="sounds">
            ${shown.map(
              (x) => html`<li key=${x.id}>
                <span class="sound-id">${x.id}</span>
                <span class="sound-name">${x.name || "(no name)"} <span class="muted">${x.category}</span></span>
                <span class="actions">
                  <button type="button" class="play" onClick=${() => act.run(() => get(`/sounds/play/${x.id}`))}
                    aria-label=${`Play ${x.id} ${x.name}`}>Play</button>
                  <a class="button" href=${`#/sounds/${x.id}`} aria-label=${`Edit ${x.id} ${x.name}`}>Edit</a>
                </span>
              </li>`,
            )}
          </ul>`}
  <//>`;
}
