// Whether the device answers. A failed request marks it lost; a restart asked for by the
// page marks it restarting. Either way /version is polled until the device answers again
// (for a restart: until it has gone away and come back), then `generation` grows so every
// view loads its state anew: nothing from before is shown as current.
import { useEffect, useState } from "preact/hooks";

const listeners = new Set();
let state = { status: "online", generation: 0 };
let watching = false;

function publish(next) {
  state = { ...state, ...next };
  for (const l of listeners) l(state);
}

const pause = (ms) => new Promise((r) => setTimeout(r, ms));

async function answers() {
  try {
    const r = await fetch("/version", { cache: "no-store" });
    return r.ok;
  } catch {
    return false;
  }
}

// A restart comes about 2 s after it was asked for; a device that never went away within
// `downWithin` ms is taken as back (it applied the change without a restart).
async function watch(mustGoDown, downWithin) {
  if (watching) return;
  watching = true;
  const start = Date.now();
  let wentDown = !mustGoDown;
  for (;;) {
    await pause(wentDown ? 1000 : 400);
    const up = await answers();
    if (!up) wentDown = true;
    else if (wentDown || Date.now() - start > downWithin) break;
  }
  watching = false;
  publish({ status: "online", generation: state.generation + 1 });
}

export const connection = {
  lost() {
    if (state.status !== "online") return;
    publish({ status: "lost" });
    watch(false, 0);
  },
  restarting() {
    publish({ status: "restarting" });
    watch(true, 8000);
  },
  get current() {
    return state;
  },
};

export function useConnection() {
  const [s, set] = useState(state);
  useEffect(() => {
    listeners.add(set);
    set(state);
    return () => listeners.delete(set);
  }, []);
  return s;
}
