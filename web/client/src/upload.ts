import type { Connection } from "./Connection.js";

export interface UploadOptions {
  /** Of the file; its own name by default. */
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
  const url = connection.url("/firmware/update");
  // Only the URI is signed, as of a GET: nobody could tell the sum before the last byte.
  const headers = await connection.headers(url);
  const form = new FormData();
  if (options.sha256) form.append("sha256", options.sha256);
  form.append("firmware", file, options.name ?? (file as { name?: string }).name ?? "firmware");
  options.signal?.throwIfAborted();
  // Pages have a way that tells the progress.
  const answer = globalThis.XMLHttpRequest
    ? await post(connection, { url, headers, form, size: file.size }, options)
    : await connection.send(url, { method: "POST", body: form, headers }, options.signal);
  return answer as Uploaded;
}

interface Post {
  url: string;
  headers: Record<string, string>;
  form: FormData;
  /** Of the file. */
  size: number;
}

function post(connection: Connection, { url, headers, form, size }: Post, { onProgress, signal }: UploadOptions): Promise<unknown> {
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
    request.onerror = () => reject(connection.lost());
    request.onabort = () => reject(signal?.reason);
    signal?.addEventListener("abort", () => request.abort());
    request.send(form);
  });
}
