// What plays on each mixer channel and on the music stream, polled from /sounds/playing.
// A daemon without the route (404) hides the block.
import { useEffect, useState } from "preact/hooks";
import { get, TYPES } from "./api.js";
import { html, Section } from "./ui.js";

async function soundNames() {
  const lists = await Promise.all(TYPES.slice(1).map((c) => get(`/sounds/category/${c}`).catch(() => [])));
  return new Map(lists.flat().map((s) => [s.id, s.name]));
}

export function NowPlaying() {
  const [state, setState] = useState(null);
  const [names, setNames] = useState(new Map());
  useEffect(() => {
    soundNames().then(setNames, () => {});
    let timer = 0;
    let stopped = false;
    const poll = async () => {
      let next = 1000;
      try {
        setState(await get("/sounds/playing"));
      } catch (e) {
        if (e.status === 404) next = 0;
        setState(e.status === 404 ? { missing: true } : { failed: e.message });
      }
      if (!stopped && next) timer = setTimeout(poll, next);
    };
    poll();
    return () => {
      stopped = true;
      clearTimeout(timer);
    };
  }, []);
  if (!state || state.missing) return null;
  if (state.failed) return html`<${Section} title="Now playing"><p class="notice err" role="alert">${state.failed}</p><//>`;
  const label = (id) => (id < 0 ? "idle" : `${id} ${names.get(id) || ""}`);
  const busy = state.channels.filter((id) => id >= 0).length;
  return html`<${Section} title="Now playing">
    <p>Music: <strong>${state.music < 0 ? "none" : label(state.music)}</strong> · ${busy} of ${state.channels.length} channels busy</p>
    <ol class="channels" aria-label="Channels">
      ${state.channels.map((id, ch) => html`<li key=${ch} class=${id < 0 ? "idle" : "busy"}>
        <span class="ch">${ch + 1}</span> ${label(id)}
      </li>`)}
    </ol>
  <//>`;
}
