export interface RetryDelay {
  /** Milliseconds before the first new attempt; each further one waits twice as long. */
  first: number;
  /** Milliseconds, at the most. */
  most: number;
}

/** Waits between attempts that fail. Half of each wait is random, so that the clients of a device do not return at once. */
export class Pause {
  readonly #delay: RetryDelay;
  #failures = 0;
  #wake: (() => void) | undefined;

  constructor(delay: RetryDelay) {
    this.#delay = delay;
  }

  /** The next attempt may follow at once. */
  succeeded(): void {
    this.#failures = 0;
  }

  async wait(): Promise<void> {
    const longest = Math.min(this.#delay.most, this.#delay.first * 2 ** this.#failures++);
    await new Promise<void>((resolve) => {
      const timer = setTimeout(resolve, longest * (0.5 + Math.random() / 2));
      this.#wake = () => {
        clearTimeout(timer);
        resolve();
      };
    });
  }

  /** Ends the wait. */
  wake(): void {
    this.#wake?.();
  }
}
