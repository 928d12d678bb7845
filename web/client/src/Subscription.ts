import { merged, type DeviceEvent } from "./events.js";
import { callSafely } from "./Listeners.js";

/** The events of some paths, for a callback or for `for await`. */
export class Subscription implements AsyncIterable<DeviceEvent> {
  readonly #callback: ((event: DeviceEvent) => void) | undefined;
  readonly #end: () => void;
  // One of each path and kind: who does not keep up gets the newest, as the device itself does it.
  readonly #waiting = new Map<string, DeviceEvent>();
  #wake: (() => void) | undefined;
  #closed = false;

  constructor(callback: ((event: DeviceEvent) => void) | undefined, start: (take: (event: DeviceEvent) => void) => () => void) {
    this.#callback = callback;
    this.#end = start((event) => this.#take(event));
  }

  /** No event comes afterwards, and loops over it end. */
  close(): void {
    if (this.#closed) return;
    this.#closed = true;
    this.#end();
    this.#waiting.clear();
    this.#wake?.();
  }

  #take(event: DeviceEvent): void {
    if (this.#closed) return;
    if (this.#callback) return callSafely(this.#callback, event);
    const key = `${event.rowsEvents ? "rows" : "item"} ${event.path}`;
    const older = this.#waiting.get(key);
    this.#waiting.set(key, older ? merged(older, event) : event);
    this.#wake?.();
  }

  /** Leaving the loop closes the subscription. */
  async *[Symbol.asyncIterator](): AsyncGenerator<DeviceEvent, void> {
    try {
      for (;;) {
        for (const [key, event] of this.#waiting) {
          this.#waiting.delete(key);
          yield event;
        }
        if (this.#closed) return;
        if (!this.#waiting.size) await new Promise<void>((resolve) => (this.#wake = resolve));
      }
    } finally {
      this.close();
    }
  }
}
