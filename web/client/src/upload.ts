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

interface Posting extends UploadOptions {
  url: string;
  headers: Record<string, string>;
  form: FormData;
  /** Of the file. */
  size: number;
}

/** Rejects with a DeviceError, or with the reason of the signal. */
export async function upload(connection: Connection, file: Blob, options: UploadOptions): Promise<Uploaded> {
  const url = connection.url("/firmware/update");
  const signer = await connection.signer;
  const form = new FormData();
  if (options.sha256) form.append("sha256", options.sha256);
  form.append("firmware", file, options.name ?? (file as { name?: string }).name ?? "firmware");
  // Only the URI is signed, as of a GET: nobody could tell the sum before the last byte.
  const headers: Record<string, string> = signer ? { Authorization: signer.authorization(url) } : {};
  const posting = { ...options, url, headers, form, size: file.size };
  options.signal?.throwIfAborted();
  // Only this one tells the progress.
  const fromPage = typeof XMLHttpRequest === "function";
  const init = { method: "POST", body: form, headers };
  const answer = await (fromPage ? postFromPage(connection, posting) : connection.send(url, init, options.signal));
  return answer as Uploaded;
}

function postFromPage(connection: Connection, { url, headers, form, size, onProgress, signal }: Posting): Promise<unknown> {
  return new Promise((resolve, reject) => {
    const request = new XMLHttpRequest();
    request.open("POST", url);
    for (const [name, value] of Object.entries(headers)) request.setRequestHeader(name, value);
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
