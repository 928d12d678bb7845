/** Functions that want to be called. One that throws does not keep the others from it. */
export class Listeners<T = void> {
  readonly #callbacks = new Set<(value: T) => void>();

  /** The returned function ends it. */
  on(callback: (value: T) => void): () => void {
    const own = (value: T) => callback(value);
    this.#callbacks.add(own);
    return () => void this.#callbacks.delete(own);
  }

  call(value: T): void {
    for (const callback of [...this.#callbacks]) callSafely(callback, value);
  }
}

/** Shows an error of the program's own callback as uncaught, and goes on. */
export function callSafely<T>(callback: (value: T) => void, value: T): void {
  try {
    callback(value);
  } catch (error) {
    queueMicrotask(() => {
      throw error;
    });
  }
}

/** At once when it is aborted already. */
export function onAbort(signal: AbortSignal | undefined, callback: () => void): void {
  if (signal?.aborted) callback();
  signal?.addEventListener("abort", callback);
}
