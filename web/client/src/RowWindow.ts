import type { RowEvent } from "./events.js";

export type Row = unknown[];

interface Entry {
  row: Row | undefined;
  /** Whether `row` is what the list has there; otherwise it is what it had, or nothing. */
  known: boolean;
}

const unknown = (): Entry => ({ row: undefined, known: false });

/**
 * The part of a list that somebody looks at. Rows outside the frame are not kept, whatever the list's size.
 *
 * `version` is that of the list that the rows and the count are of; 0 for none yet.
 */
export class RowWindow {
  count = 0;
  version = 0;
  #from = 0;
  #to = 0;
  #first = 0; // The index of the first entry.
  #entries: Entry[] = [];

  /** Looks at the rows from `from` to `to`, inclusive; both may lie beyond the end. */
  frame(from: number, to: number): void {
    this.#from = from;
    this.#to = to;
    this.#fit();
  }

  /** Undefined for a row that has not been read, or that nobody looks at. */
  at(index: number): Row | undefined {
    return this.#entries[index - this.#first]?.row;
  }

  /** The first and the last row that are looked at. */
  wholeFrame(): [from: number, to: number] {
    return [Math.max(0, this.#from), this.#to];
  }

  /** The first and the last row that have to be read; null for none. All of them while there is no version. */
  missing(): [from: number, to: number] | null {
    if (!this.version) return this.wholeFrame();
    const first = this.#entries.findIndex(({ known }) => !known);
    if (first < 0) return null;
    let last = this.#entries.length - 1;
    while (this.#entries[last]!.known) --last;
    return [this.#first + first, this.#first + last];
  }

  /** Rows of the version that this is of. */
  fill(from: number, rows: Row[]): void {
    rows.forEach((row, i) => {
      const entry = this.#entries[from + i - this.#first];
      if (entry) Object.assign(entry, { row, known: true });
    });
  }

  /** The list as it is now, of which nothing is known but its size. */
  restart(count: number, version: number): void {
    this.count = count;
    this.version = version;
    this.#entries = [];
    this.#fit();
  }

  /** What happened to the list. Returns whether any of it was news: false for what had happened when the rows were read. */
  apply(events: RowEvent[], versions: number[], version: number): boolean {
    let isNews = false;
    events.forEach((event, i) => {
      if ((versions[i] ?? version) <= this.version) return;
      isNews = true;
      this.#applyOne(event);
    });
    this.version = Math.max(this.version, version);
    if (isNews) this.#fit();
    return isNews;
  }

  // Rows before the entries move them; the frame stays where it is.
  #applyOne({ type, index }: RowEvent): void {
    const place = index - this.#first;
    const isInside = place >= 0 && place < this.#entries.length;
    if (type === 1) {
      ++this.count;
      if (place < 0) ++this.#first;
      else if (place <= this.#entries.length) this.#entries.splice(place, 0, unknown());
    } else if (type === 2) {
      --this.count;
      if (place < 0) --this.#first;
      else if (isInside) this.#entries.splice(place, 1);
    } else if (type === 3 && isInside) {
      this.#entries[place]!.known = false;
    }
  }

  #fit(): void {
    const from = Math.max(0, this.#from);
    const to = Math.min(this.#to, this.count - 1);
    const entries = Array.from({ length: Math.max(0, to - from + 1) }, (_, i) => this.#entries[from + i - this.#first] ?? unknown());
    this.#first = from;
    this.#entries = entries;
  }
}
