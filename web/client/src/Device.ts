import { Connection } from "./Connection.js";
import { DeviceError } from "./DeviceError.js";
import { EventHub } from "./EventHub.js";
import { keyOf, type DeviceEvent, type Target } from "./events.js";
import { onAbort } from "./Listeners.js";
import { LiveRows, type Rows, type RowsOptions } from "./LiveRows.js";
import type { RetryDelay } from "./Pause.js";
import { Signer } from "./Signer.js";
import { Subscription } from "./Subscription.js";
import { upload, type Uploaded, type UploadOptions } from "./upload.js";

const setData = "/api/setData";
const changePasswordPath = "settings:webserver/changePassword";

/** A typed value. Integers that a number cannot hold are bigints. */
export interface Value {
  type: string;
  value: unknown;
}

export interface Credentials {
  user: string;
  password: string;
}

export interface DeviceOptions {
  /** In place of the global one. */
  fetch?: typeof fetch;
  /** As signIn() does. */
  credentials?: Credentials;
  /** What setData() and invoke() send is encrypted; they need somebody to be signed in. */
  encrypt?: boolean;
  /** Waits between attempts to reach the device; 500 ms to 15 s by default. */
  retryDelay?: RetryDelay;
  /** Seconds that a request for events waits at the device; 25 by default. */
  pollSeconds?: number;
}

export interface RequestOptions {
  /** Ends the request, which then rejects with the signal's reason. */
  signal?: AbortSignal;
}

/** One device. Every request rejects with a DeviceError when it fails. */
export class Device {
  /**
   * Whether the device answered last time. on() is called when that changes, and returns what ends it. While there is a
   * subscription, the device is asked until it answers again.
   */
  readonly online: { get(): boolean; on(callback: () => void): () => void };
  readonly #connection: Connection;
  readonly #hub: EventHub;
  readonly #encrypt: boolean;
  readonly #retryDelay: RetryDelay;

  /** `baseUrl` is the device's origin, such as `http://192.0.2.1`; in a page that of the page by default. */
  constructor(baseUrl = globalThis.location?.origin, options: DeviceOptions = {}) {
    const fetcher = options.fetch ?? ((input, init) => fetch(input, init));
    const connection = new Connection(new URL(baseUrl).href.replace(/\/$/, ""), fetcher);
    this.#connection = connection;
    this.#encrypt = options.encrypt ?? false;
    this.#retryDelay = options.retryDelay ?? { first: 500, most: 15_000 };
    this.#hub = new EventHub(connection, { retryDelay: this.#retryDelay, pollSeconds: options.pollSeconds ?? 25 });
    this.online = { get: () => connection.isOnline, on: (callback) => connection.online.on(callback) };
    if (options.credentials) this.signIn(options.credentials.user, options.credentials.password);
  }

  /** Who signs from now on; null when nobody does. */
  get user(): string | null {
    return this.#connection.user;
  }

  /**
   * Signs from now on. Asks the device nothing: a wrong password shows with the next request. The password is forgotten;
   * a key that it gave is kept, in memory. Subscriptions begin again.
   */
  signIn(user: string, password: string): void {
    this.#sign(user, Signer.create(user, password));
  }

  signOut(): void {
    this.#sign(null, null);
  }

  #sign(user: string | null, signer: Promise<Signer> | null): void {
    this.#connection.user = user;
    this.#connection.signer = signer;
    this.#hub.restart();
  }

  /** The roles by name; `["@all"]` for all of them. */
  async getData(path: string, roles: string[], { signal }: RequestOptions = {}): Promise<Record<string, unknown>> {
    const query = { path, roles: roles.join(","), type: "structure" };
    return (await this.#connection.get("/api/getData", query, signal)) as Record<string, unknown>;
  }

  /** Rows of a list, or children of a container, from `from` to `to`, inclusive. Any `version` of the list by default. */
  async getRows(
    path: string, roles: string[], from: number, to: number, { version = 0, signal }: RequestOptions & { version?: number } = {},
  ): Promise<Rows> {
    const query = { path, roles: roles.join(","), from, to, version };
    return (await this.#connection.get("/api/getRows", query, signal)) as Rows;
  }

  /** A typed or a plain value. Resolves with what the node holds afterwards. */
  async setData(path: string, value: Value | unknown, { role = "value", signal }: RequestOptions & { role?: string } = {}): Promise<unknown> {
    if (this.#encrypt && !this.user) throw new DeviceError(0, "", "Sign in to send encrypted values.", { kind: "refused" });
    return this.#connection.exchange(setData, { body: { path, role, value }, encrypt: this.#encrypt, signal });
  }

  /** Runs a command. Resolves with what it returns. */
  invoke(path: string, argument: unknown = null, options: RequestOptions = {}): Promise<unknown> {
    return this.setData(path, argument, { ...options, role: "activate" });
  }

  /** The passwords travel encrypted, unless there was none before. Who is signed in stays so. */
  async changePassword(name: string, oldPassword: string, newPassword: string, { signal }: RequestOptions = {}): Promise<void> {
    const signer = (await this.#connection.signer) ?? (oldPassword ? await Signer.create(name, oldPassword) : null);
    const value = { type: "webserverChangePassword", value: { name, oldPassword, newPassword } };
    const body = { path: changePasswordPath, role: "activate", value };
    await this.#connection.exchange(setData, { body, signer, encrypt: true, signal });
    if (this.user === name) this.signIn(name, newPassword);
  }

  /** Sends a firmware image. */
  upload(file: Blob, options: UploadOptions = {}): Promise<Uploaded> {
    return upload(this.#connection, file, options);
  }

  /** Where the stream of a stream node is to be had, by whoever does not sign, such as an `<audio>`. */
  streamUrl(path: string): string {
    return this.#connection.url(`/api/stream/${path}`);
  }

  /** Reads a stream node. The answer's body goes on until the signal ends it, or the device does. */
  openStream(path: string, { signal }: RequestOptions = {}): Promise<Response> {
    return this.#connection.open(`/api/stream/${path}`, signal);
  }

  /**
   * Tells how the nodes are, then each change, none lost and none twice. All subscriptions share one event queue.
   * Without a callback the events wait for `for await`.
   */
  subscribe(paths: Array<string | Target>, callback?: (event: DeviceEvent) => void, { signal }: RequestOptions = {}): Subscription {
    const targets = paths.map((path) => (typeof path === "string" ? { path, type: "item" as const } : path));
    const once = [...new Map(targets.map((target) => [keyOf(target), target])).values()];
    const subscription = new Subscription(callback, (take) => this.#hub.subscribe(once, take));
    onAbort(signal, () => subscription.close());
    return subscription;
  }

  /** A list as it is, whatever its size: show() says which rows are wanted. */
  rows(path: string, roles: string[], options: RowsOptions = {}): LiveRows {
    const read = (from: number, to: number, version: number, signal: AbortSignal) => this.getRows(path, roles, from, to, { version, signal });
    return new LiveRows(read, (take) => this.subscribe([{ path, type: "rows" }], take), this.#retryDelay, options);
  }

  /** Ends all subscriptions. */
  close(): void {
    this.#hub.close();
  }
}
