// A mirror of the front panel's 128x64 OLED. /display answers the controller's memory:
// 8 pages of 128 column bytes, bit 0 the top row of a page. While the route answers 404
// (no panel support in this build) the mirror stays hidden and asks again now and then.
import { useEffect, useRef, useState } from "preact/hooks";
import { getBytes } from "./api.js";
import { html, Section } from "./ui.js";

const W = 128;
const H = 64;

function draw(canvas, bytes) {
  const ctx = canvas.getContext("2d");
  const img = ctx.createImageData(W, H);
  for (let page = 0; page < 8; page++) {
    for (let x = 0; x < W; x++) {
      const b = bytes[page * W + x];
      for (let bit = 0; bit < 8; bit++) {
        const on = (b >> bit) & 1;
        const o = ((page * 8 + bit) * W + x) * 4;
        img.data[o] = on ? 120 : 8;
        img.data[o + 1] = on ? 200 : 10;
        img.data[o + 2] = on ? 255 : 16;
        img.data[o + 3] = 255;
      }
    }
  }
  ctx.putImageData(img, 0, 0);
}

export function PanelMirror() {
  const [present, setPresent] = useState(false);
  const canvas = useRef(null);
  useEffect(() => {
    let timer = 0;
    let stopped = false;
    const poll = async () => {
      let next = 5000;
      try {
        const bytes = await getBytes("/display");
        const ok = bytes !== null && bytes.length >= W * 8;
        setPresent(ok);
        if (ok && canvas.current) draw(canvas.current, bytes);
        if (ok) next = 500;
      } catch {
        setPresent(false);
      }
      if (!stopped) timer = setTimeout(poll, next);
    };
    poll();
    return () => {
      stopped = true;
      clearTimeout(timer);
    };
  }, []);
  return html`<div hidden=${!present}>
    <${Section} title="Front panel">
      <canvas class="oled" ref=${canvas} width=${W} height=${H} role="img"
        aria-label="What the front panel's display shows"></canvas>
    <//>
  </div>`;
}
