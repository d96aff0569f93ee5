// The daemon's JSON API as promises. Every failure becomes an ApiError whose message is
// the one a person should read: the API's own "message" when it sent one, the error page's
// heading for an HTTP error, or a plain sentence when the device did not answer at all.
import { connection } from "./connection.js";

export class ApiError extends Error {
  constructor(message, status = 0) {
    super(message);
    this.status = status;
  }
}

const lostMessage = "The device does not answer. Waiting for it to come back.";

// The heading of the daemon's HTML error pages ("404 - File / Resource not found").
function errorPageText(status, text) {
  const m = /<h2>([^<]*)<\/h2>/.exec(text);
  return m ? m[1] : `The device answered HTTP ${status}.`;
}

function parseAnswer(status, ok, text) {
  let body = null;
  try {
    body = JSON.parse(text);
  } catch {
    if (ok) throw new ApiError("The device sent an answer the page cannot read.", status);
  }
  if (!ok) throw new ApiError(body && body.message ? body.message : errorPageText(status, text), status);
  if (body && (body.result === "error" || body.result === "failed")) {
    throw new ApiError(body.message || "The device refused the request.", status);
  }
  return body;
}

// fetch without the browser's cache; a device that does not answer at all is reported
// lost and the request fails with the lost message.
async function fetchDevice(path, init) {
  try {
    return await fetch(path, { cache: "no-store", ...init });
  } catch {
    connection.lost();
    throw new ApiError(lostMessage);
  }
}

async function send(path, init) {
  const r = await fetchDevice(path, init);
  const text = await r.text();
  return parseAnswer(r.status, r.ok, text);
}

export const get = (path) => send(path);

// A URL-encoded form, as the settings and per-sound routes read it.
export function postForm(path, fields) {
  const body = new URLSearchParams();
  for (const [k, v] of fields) body.append(k, v);
  return send(path, { method: "POST", body });
}

// A multipart upload with `file` (and extra file fields) followed by `endOfUpload`, the
// marker the daemon waits for. XMLHttpRequest because fetch reports no upload progress;
// onProgress gets a fraction 0..1.
export function upload(path, files, onProgress) {
  const form = new FormData();
  for (const [name, file] of files) if (file) form.append(name, file, file.name);
  form.append("endOfUpload", "1");
  return new Promise((resolve, reject) => {
    const xhr = new XMLHttpRequest();
    xhr.open("POST", path);
    xhr.upload.onprogress = (e) => {
      if (e.lengthComputable && e.total > 0) onProgress(e.loaded / e.total);
    };
    xhr.onload = () => {
      try {
        resolve(parseAnswer(xhr.status, xhr.status >= 200 && xhr.status < 300, xhr.responseText));
      } catch (e) {
        reject(e);
      }
    };
    xhr.onerror = () => {
      connection.lost();
      reject(new ApiError("The connection broke off during the upload; nothing was stored."));
    };
    xhr.send(form);
  });
}

// The raw bytes of a route, or null when it answers 404 (a route this build lacks).
export async function getBytes(path) {
  const r = await fetchDevice(path);
  if (r.status === 404) return null;
  if (!r.ok) throw new ApiError(errorPageText(r.status, await r.text()), r.status);
  return new Uint8Array(await r.arrayBuffer());
}

// A file the device builds on request, fetched so that a refusal (a JSON error answer)
// shows its message instead of being saved, then handed to the browser as a download
// under the name the device gives it.
export async function download(path, fallbackName) {
  const r = await fetchDevice(path);
  if (!r.ok || (r.headers.get("Content-Type") || "").startsWith("application/json")) {
    parseAnswer(r.status, r.ok, await r.text());
    throw new ApiError("The device sent no file.", r.status);
  }
  const blob = await r.blob();
  const m = /filename="([^"]+)"/.exec(r.headers.get("Content-Disposition") || "");
  const name = m ? m[1] : fallbackName;
  const url = URL.createObjectURL(blob);
  const a = document.createElement("a");
  a.href = url;
  a.download = name;
  document.body.appendChild(a);
  a.click();
  a.remove();
  setTimeout(() => URL.revokeObjectURL(url), 60000);
  return { message: `Saved ${name}.` };
}

export const TYPES = ["unknown", "music", "sfx", "voice", "jingle", "single", "system"];
export const SET_KINDS = ["directory", "xsnd container", "zip", "AltSound table"];
