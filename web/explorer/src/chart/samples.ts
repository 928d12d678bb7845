const MOST = 3600;
const CLOSEST_S = 0.1;

/** The last numbers of a node with their times. However often it changes, and for however long, they stay few. */
export class Samples {
  private times: number[] = [];
  private values: number[] = [];

  /** `time` in seconds since 1970. Of numbers that follow each other closely the last one counts. */
  add(time: number, value: number): void {
    const last = this.times.length - 1;
    if (time - (this.times[last] ?? -Infinity) < CLOSEST_S) {
      this.values[last] = value;
      return;
    }
    this.times.push(time);
    this.values.push(value);
    // A tenth at a time: moving the rest down costs as much for one as for many.
    if (this.times.length > MOST) for (const each of [this.times, this.values]) each.splice(0, MOST / 10);
  }

  /** Oldest first, of `since` (seconds since 1970) and later, and the one before, which held until then. */
  from(since: number): { times: number[]; values: number[] } {
    const first = Math.max(0, this.times.findIndex((time) => time >= since) - 1);
    return { times: this.times.slice(first), values: this.values.slice(first) };
  }

  /** The number that held at a time; undefined before the first. */
  at(time: number): number | undefined {
    const next = this.times.findIndex((each) => each > time);
    return this.values[(next < 0 ? this.times.length : next) - 1];
  }
}
