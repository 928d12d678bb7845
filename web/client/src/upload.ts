import type { Connection } from "./Connection.js";
import { DeviceError } from "./DeviceError.js";

export interface UploadOptions {
  /** Of the file; its own name by default, where it has one. */
  name?: string;
  /** SHA-256 that the file should have, in hexadecimal. The device refuses another one. */
  sha256?: string;
  /** Bytes that have been sent, and all of them. Called in pages. */
  onProgress?: (sent: number, total: number) => void;
  signal?: AbortSignal;
}

export interface Uploaded {
  bytes: number;
  /** In hexadecimal. */
  sha256: string;
}

/** Rejects with a DeviceError, or with the reason of the signal. */
export async function upload(connection: Connection, file: Blob, options: UploadOptions): Promise<Uploaded> {
  const { signal } = options;
  const url = connection.url("/firmware/update");
  // Only the URI is signed, as of a GET: nobody could tell the sum before the last byte.
  const post = async (body: FormData) => ({ method: "POST", body, headers: await connection.headers(url) });
  const form = new FormData();
  if (options.sha256) form.append("sha256", options.sha256);
  form.append("firmware", file, options.name);
  const init = await post(form);
  signal?.throwIfAborted();
  try {
    // Pages have a way that tells the progress.
    const send = globalThis.XMLHttpRequest ? sendInPage(connection, url, init, file.size, options) : connection.send(url, init, signal);
    return (await send) as Uploaded;
  } catch (error) {
    if ((error as DeviceError).status) throw error;
  }
  // A device that refuses an image does not read it to its end, and its answer may be lost with the connection. Without an
  // image the request is judged all the same, and changes nothing.
  await connection.send(url, await post(new FormData()), signal).catch((error) => {
    if (error.status !== 400) throw error;
  });
  throw new DeviceError(0, "", "The device ended the upload.", { kind: "failed" });
}

interface Init {
  body: FormData;
  headers: Record<string, string>;
}

/** Without an answer it rejects with an event. */
function sendInPage(
  connection: Connection, url: string, { headers, body }: Init, size: number, { onProgress, signal }: UploadOptions,
): Promise<unknown> {
  return new Promise((resolve, reject) => {
    const request = new XMLHttpRequest();
    request.open("POST", url);
    for (const name in headers) request.setRequestHeader(name, headers[name]!);
    request.upload.onprogress = ({ loaded }) => onProgress?.(Math.min(loaded, size), size);
    request.onload = () => {
      try {
        resolve(connection.read(request.status, request.responseText));
      } catch (error) {
        reject(error);
      }
    };
    request.onerror = request.onabort = reject;
    signal?.addEventListener("abort", () => request.abort());
    request.send(body);
  });
}
