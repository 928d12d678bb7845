import { DeviceError } from "./DeviceError.js";
import { formatJson, parseJson } from "./json.js";
import { Listeners } from "./Listeners.js";
import type { Signer } from "./Signer.js";

// Longer than a refusal is held back; a device that is silent for so long is taken for lost.
const patience = 60_000;
// The second wrong signature waits for a second at least.
const heldBackAtLeast = 900;

export interface Exchange {
  /** Parameters of a GET. */
  query?: Record<string, string | number>;
  /** Object of a POST. */
  body?: unknown;
  /** The whole body travels encrypted. Needs a signer. */
  encrypt?: boolean;
  signer?: Signer | null;
  signal?: AbortSignal | undefined;
  /** Milliseconds until the device counts as lost. */
  timeout?: number;
}

/** The requests to one device, and whether it answers. */
export class Connection {
  readonly base: string;
  readonly online = new Listeners();
  /** Who signs; null when nobody does. */
  user: string | null = null;
  signer: Promise<Signer> | null = null;
  readonly #fetch: typeof fetch;
  #isOnline = true;

  /** `base` is the device's origin, without a final slash. */
  constructor(base: string, fetcher: typeof fetch) {
    this.base = base;
    this.#fetch = fetcher;
  }

  get isOnline(): boolean {
    return this.#isOnline;
  }

  set isOnline(value: boolean) {
    if (value === this.#isOnline) return;
    this.#isOnline = value;
    this.online.call();
  }

  get(path: string, query: Record<string, string | number>, signal?: AbortSignal): Promise<unknown> {
    return this.exchange(path, { query, signal });
  }

  /** Rejects with a DeviceError, or with the reason of the signal. */
  async exchange(path: string, exchange: Exchange): Promise<unknown> {
    const signer = exchange.signer ?? (await this.signer);
    const url = this.url(path, exchange.query);
    const init: RequestInit = { cache: "no-store" };
    const headers: Record<string, string> = {};
    if (exchange.body !== undefined) {
      const json = formatJson(exchange.body);
      init.method = "POST";
      init.body = exchange.encrypt && signer ? JSON.stringify(await signer.encrypt(json)) : json;
      headers["Content-Type"] = "application/json";
    }
    if (signer) headers["Authorization"] = signer.authorization(url, init.body as string | undefined, exchange.encrypt);
    return this.send(url, { ...init, headers }, exchange.signal, exchange.timeout ?? patience);
  }

  /** Of a GET. */
  async headers(url: string): Promise<Record<string, string>> {
    const signer = await this.signer;
    return signer ? { Authorization: signer.authorization(url) } : {};
  }

  /** As it is sent, which is as it is signed. */
  url(path: string, query?: Record<string, string | number>): string {
    const url = new URL(this.base + path);
    const pairs = Object.entries(query ?? {}).map(([name, value]) => `${name}=${encodeURIComponent(value)}`);
    url.search = pairs.join("&");
    return url.href;
  }

  /** A GET whose body is read by the caller. */
  async open(path: string, signal?: AbortSignal): Promise<Response> {
    const url = this.url(path);
    const headers = await this.headers(url);
    const reply = await this.#fetch(url, { cache: "no-store", headers, signal: signal ?? null }).catch((error) => {
      signal?.throwIfAborted();
      throw this.lost(error);
    });
    if (!reply.ok) this.read(reply.status, await reply.text());
    return reply;
  }

  async send(url: string, init: RequestInit, signal?: AbortSignal, timeout?: number): Promise<unknown> {
    signal?.throwIfAborted();
    const start = Date.now();
    const ending = new AbortController();
    const giveUp = () => ending.abort();
    signal?.addEventListener("abort", giveUp);
    const timer = timeout === undefined ? undefined : setTimeout(giveUp, timeout);
    try {
      const reply = await this.#fetch(url, { ...init, signal: ending.signal });
      return this.read(reply.status, await reply.text(), "Authorization" in (init.headers ?? {}) ? Date.now() - start : 0);
    } catch (error) {
      signal?.throwIfAborted();
      throw error instanceof DeviceError ? error : this.lost(error);
    } finally {
      clearTimeout(timer);
      signal?.removeEventListener("abort", giveUp);
    }
  }

  lost(cause?: unknown): DeviceError {
    this.isOnline = false;
    return new DeviceError(0, "", "The device cannot be reached.", { cause });
  }

  /** The answer's value. `waited` is how long a signed request took, in milliseconds. */
  read(status: number, text: string, waited = 0): unknown {
    let value: unknown;
    try {
      value = parseJson(text);
    } catch (cause) {
      if (status < 400) throw new DeviceError(status, "", "The answer is not one of a device.", { kind: "failed", cause });
    }
    if (status < 400) {
      this.isOnline = true;
      return value;
    }
    const error = (value as { error?: { name?: unknown; message?: unknown } } | null | undefined)?.error;
    const message = error?.message ?? (text || `The device answered ${status}.`);
    const throttled = (status === 401 || status === 403) && waited >= heldBackAtLeast;
    const options = throttled ? { kind: "throttled" as const, heldBack: waited } : {};
    const refusal = new DeviceError(status, String(error?.name ?? ""), String(message), options);
    this.isOnline = refusal.kind !== "offline";
    throw refusal;
  }
}
