import { signal } from "@preact/signals";

type Wanted = { value: unknown };

/** Writes one value at a time, and of all that were wanted meanwhile the last alone: a slider moves faster than writes. */
export class LatestWriter {
  /** What is on its way; null when nothing is. */
  readonly wanted = signal<Wanted | null>(null);
  private busy = false;

  /** `write` tells whether the value was taken; after a refusal nothing more is written. */
  async write(value: Wanted, write: (value: Wanted) => Promise<boolean>): Promise<void> {
    this.wanted.value = value;
    if (this.busy) return;
    this.busy = true;
    for (;;) {
      const next: Wanted | null = this.wanted.peek();
      if (next === null) break;
      const taken = await write(next);
      if (!taken || this.wanted.peek() === next) this.wanted.value = null;
    }
    this.busy = false;
  }
}
