import { DeviceError } from "./DeviceError.js";
import type { DeviceEvent } from "./events.js";
import { Listeners, onAbort } from "./Listeners.js";
import { Pause, type RetryDelay } from "./Pause.js";
import { RowWindow, type Row } from "./RowWindow.js";

export interface Rows {
  /** The roles asked for, of the list itself, and its `permission`. */
  roles: Record<string, unknown>;
  /** For each row the roles asked for, in that order. */
  rows: Row[];
  from: number;
  rowsCount: number;
  rowsVersion: number;
}

export interface RowsOptions {
  /** Rows that are kept on either side of those shown; 50 by default. */
  margin?: number;
  /** Ends it, as close() does. */
  signal?: AbortSignal;
}

export type ReadRows = (from: number, to: number, version: number, signal: AbortSignal) => Promise<Rows>;

// A list that changes faster than it is read is read as it is, after so many attempts to read the version that is known.
const mostOutdated = 3;
// What made a version outdated is told within a moment; in milliseconds.
const newsWithin = 250;
const rowsAtATime = 1000;

/** A list as it is, of which only the rows that are shown are read and kept. */
export class LiveRows {
  /** Settles when the first rows have come. */
  readonly ready: Promise<void>;
  readonly #read: ReadRows;
  readonly #margin: number;
  readonly #pause: Pause;
  readonly #window = new RowWindow();
  readonly #listeners = new Listeners();
  readonly #ending = new AbortController();
  readonly #end: () => void;
  #roles: Record<string, unknown> = {};
  #error: DeviceError | null = null;
  #loading = false;
  #outdated = 0;
  #newest = 0; // Version that an event told.
  #resets = 0;
  #isBeyond = false; // The list ends before what is shown, and nobody knows where.
  #news: (() => void) | undefined;
  #settle: [resolve: () => void, reject: (error: DeviceError) => void] | undefined;

  constructor(
    read: ReadRows,
    follow: (take: (event: DeviceEvent) => void) => { close(): void },
    delay: RetryDelay,
    options: RowsOptions = {},
  ) {
    this.#read = read;
    this.#margin = options.margin ?? 50;
    this.#pause = new Pause(delay);
    this.ready = new Promise((...settle) => (this.#settle = settle));
    this.ready.catch(() => {}); // Whoever does not wait for it asks for `error`.
    this.#window.frame(0, 2 * this.#margin);
    const subscription = follow((event) => this.#take(event));
    this.#end = () => subscription.close();
    onAbort(options.signal, () => this.close());
  }

  /** Rows of the whole list; 0 until the first have come. */
  get count(): number {
    return this.#window.count;
  }

  get version(): number {
    return this.#window.version;
  }

  /** The roles asked for, of the list itself. */
  get roles(): Record<string, unknown> {
    return this.#roles;
  }

  /** Why there are no rows; null while there are. */
  get error(): DeviceError | null {
    return this.#error;
  }

  /** A row's roles, in the order asked for. Undefined when it has not come yet, or is not shown. */
  at(index: number): Row | undefined {
    return this.#window.at(index);
  }

  /** Shows the rows from `from` to `to`, inclusive. What is missing is read; on() tells when it has come. */
  show(from: number, to: number): void {
    this.#window.frame(from - this.#margin, Math.min(to, from + rowsAtATime) + this.#margin);
    void this.#load();
  }

  /** Called after every change of the count, the rows or the error. The returned function ends it. */
  on(callback: () => void): () => void {
    return this.#listeners.on(callback);
  }

  close(): void {
    this.#ending.abort();
    this.#end();
    this.#news?.();
    this.#pause.wake();
  }

  #take(event: DeviceEvent): void {
    if (event.error) return this.#fail(event.error);
    const { rowsEvents = [], rowsVersions = [], rowsVersion = 0 } = event;
    const isReset = rowsEvents.some(({ type }) => type === 0);
    this.#newest = Math.max(this.#newest, rowsVersion);
    if (isReset) {
      ++this.#resets;
      this.#error = null;
      this.#window.version = 0;
    } else if (this.#window.version && this.#window.apply(rowsEvents, rowsVersions, rowsVersion)) {
      this.#listeners.call();
    }
    this.#news?.();
    void this.#load();
  }

  #fail(error: DeviceError): void {
    this.#error = error;
    this.#window.restart(0, 0);
    this.#settle?.[1](error);
    this.#listeners.call();
  }

  async #load(): Promise<void> {
    if (this.#loading) return;
    this.#loading = true;
    try {
      for (let range = this.#wanted(); range; range = this.#wanted()) await this.#loadRange(...range);
    } finally {
      this.#loading = false;
    }
  }

  #wanted(): [from: number, to: number] | null {
    return this.#ending.signal.aborted || this.#error ? null : this.#window.missing();
  }

  async #loadRange(from: number, to: number): Promise<void> {
    const version = this.#outdated < mostOutdated ? this.#window.version : 0;
    if (!version) [from, to] = this.#isBeyond ? [0, 0] : this.#window.wholeFrame();
    const resets = this.#resets;
    try {
      const answer = await this.#read(from, to, version, this.#ending.signal);
      // What was asked before a reset may be older than what the reset stands for.
      if (resets === this.#resets) this.#adopt(answer);
      this.#pause.succeeded();
    } catch (error) {
      await this.#failed(error);
    }
  }

  #adopt(answer: Rows): void {
    // Events have come meanwhile: its places are not those of now.
    if (answer.rowsVersion < Math.max(this.#newest, this.#window.version)) return;
    this.#outdated = 0;
    this.#isBeyond = false;
    if (answer.rowsVersion !== this.#window.version) this.#window.restart(answer.rowsCount, answer.rowsVersion);
    this.#window.fill(answer.from, answer.rows);
    this.#roles = answer.roles;
    this.#settle?.[0]();
    this.#listeners.call();
  }

  async #failed(error: unknown): Promise<void> {
    if (this.#ending.signal.aborted) return;
    if (!(error instanceof DeviceError)) throw error;
    if (error.kind === "offline" || error.kind === "busy") return this.#pause.wait();
    if (error.kind === "outOfRange" && !this.#isBeyond) return void (this.#isBeyond = true);
    if (error.kind !== "outdated" && error.kind !== "outOfRange") return this.#fail(error);
    ++this.#outdated;
    await new Promise<void>((resolve) => {
      this.#news = resolve;
      setTimeout(resolve, newsWithin);
    });
  }
}
