// One sample file's waveform, drawn from the device's copy of it, with a play cursor. The
// cursor follows either the browser's own playback ("Listen here") or, after "Play on
// device", the time since the device was asked to play (the device reports no position).
import { useEffect, useRef, useState } from "preact/hooks";
import WaveSurfer from "wavesurfer.js";
import { get } from "./api.js";
import { html, useAction, Notice } from "./ui.js";

export function Waveform({ soundId, index, name }) {
  const box = useRef(null);
  const ws = useRef(null);
  const frame = useRef(0);
  const [ready, setReady] = useState(false);
  const [failed, setFailed] = useState(null);
  const [listening, setListening] = useState(false);
  const act = useAction();

  useEffect(() => {
    const w = WaveSurfer.create({
      container: box.current,
      url: `/sounds/${soundId}/${index}/file`,
      height: 56,
      waveColor: "#6f7a91",
      progressColor: "#ff5a73",
      cursorColor: "#ffffff",
      cursorWidth: 2,
      normalize: true,
    });
    w.on("ready", () => setReady(true));
    w.on("error", (e) => setFailed(`The waveform could not be drawn: ${e && e.message ? e.message : e}`));
    w.on("play", () => setListening(true));
    w.on("pause", () => setListening(false));
    w.on("finish", () => setListening(false));
    ws.current = w;
    return () => {
      cancelAnimationFrame(frame.current);
      w.destroy();
    };
  }, [soundId, index]);

  // Moves the cursor along with the device's playback of the whole file.
  const follow = () => {
    const w = ws.current;
    cancelAnimationFrame(frame.current);
    if (!w || !ready) return;
    w.pause();
    const start = performance.now();
    const duration = w.getDuration();
    // Drawn straight on the waveform: seeking the browser's own media element instead
    // would let its time updates (still 0 while a seek is pending) pull the cursor back.
    const step = () => {
      const t = Math.min((performance.now() - start) / 1000, duration);
      w.getRenderer().renderProgress(duration > 0 ? t / duration : 0, false);
      if (t < duration) frame.current = requestAnimationFrame(step);
    };
    step();
  };
  const playOnDevice = () => act.run(() => get(`/sounds/play/${soundId}/${index}`)).then((a) => a && follow());

  return html`<div class="wave">
    <div class="wave-canvas" ref=${box} aria-label=${`Waveform of ${name}`} role="img"></div>
    ${failed && html`<p class="notice err" role="alert">${failed}</p>`}
    <div class="row">
      <button type="button" class="play" onClick=${playOnDevice} disabled=${act.busy}
        aria-label=${`Play on device: ${name}`}>Play on device</button>
      <button type="button" disabled=${!ready} onClick=${() => (cancelAnimationFrame(frame.current), ws.current.playPause())}
        aria-label=${`${listening ? "Pause" : "Listen here"}: ${name}`}>${listening ? "Pause" : "Listen here"}</button>
    </div>
    <${Notice} notice=${act.notice} />
  </div>`;
}
