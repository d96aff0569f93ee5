// Follows /livelog: asks for entries newer than the highest sequence number seen. The live
// log is off in the daemon until a reader sets its level, so the first request sets it.
import { useEffect, useRef, useState } from "preact/hooks";
import { get } from "./api.js";
import { html } from "./ui.js";

const LEVELS = ["off", "error", "warn", "info", "debug", "trace"];
const KEEP = 400;

export function LiveLog() {
  const [lines, setLines] = useState([]);
  const [level, setLevel] = useState(3);
  const [filter, setFilter] = useState("");
  const [failed, setFailed] = useState(null);
  const box = useRef(null);
  const wanted = useRef({ level: 3, filter: "", dirty: true });

  useEffect(() => {
    let inc = 0;
    let timer = 0;
    let stopped = false;
    const poll = async () => {
      let next = 1000;
      try {
        const w = wanted.current;
        const args = w.dirty ? `&l=${w.level}&f=${encodeURIComponent(w.filter)}` : "";
        w.dirty = false;
        const entries = await get(`/livelog?i=${inc}${args}`);
        if (entries.length) {
          inc = Math.max(inc, ...entries.map((e) => e.inc));
          setLines((old) => old.concat(entries.map((e) => ({ inc: e.inc, msg: e.msg }))).slice(-KEEP));
          next = 100;
        }
        setFailed(null);
      } catch (e) {
        setFailed(e.message);
        next = 3000;
      }
      if (!stopped) timer = setTimeout(poll, next);
    };
    poll();
    return () => {
      stopped = true;
      clearTimeout(timer);
    };
  }, []);

  useEffect(() => {
    const el = box.current;
    if (el && el.dataset.follow !== "no") el.scrollTop = el.scrollHeight;
  }, [lines]);

  const ask = (next) => {
    wanted.current = { ...wanted.current, ...next, dirty: true };
  };
  const onScroll = (e) => {
    const el = e.target;
    el.dataset.follow = el.scrollTop + el.clientHeight >= el.scrollHeight - 8 ? "yes" : "no";
  };
  return html`<div class="livelog">
    <div class="row">
      <label for="log-level">Level</label>
      <select id="log-level" value=${level} onChange=${(e) => (setLevel(Number(e.target.value)), ask({ level: Number(e.target.value) }))}>
        ${LEVELS.map((l, i) => html`<option value=${i}>${l}</option>`)}
      </select>
      <label for="log-filter">Only lines containing</label>
      <input id="log-filter" type="search" value=${filter}
        onChange=${(e) => (setFilter(e.target.value), ask({ filter: e.target.value }))} />
      <button type="button" onClick=${() => setLines([])}>Clear</button>
    </div>
    ${failed && html`<p class="notice err" role="alert">${failed}</p>`}
    <pre class="log" ref=${box} onScroll=${onScroll} tabindex="0" aria-label="Live log" aria-live="off">${lines
      .map((l) => l.msg)
      .join("\n")}</pre>
  </div>`;
}
