import type { Device } from "@zark/client";

import { ROOT } from "../model/paths.js";
import { type Child, CHILD_ROLES, PAGE, toChild } from "./children.js";

/** The children of one container, read page by page as they are needed, and again when some come or go. */
export class Branch {
  /** How many there are; undefined until the device has said so. */
  count: number | undefined;
  private children: Array<Child | undefined> = [];
  private readonly asked = new Map<number, Promise<void>>();
  private subscription: { close(): void } | undefined;
  private stale: ReturnType<typeof setTimeout> | undefined;

  constructor(
    private readonly device: Device,
    readonly path: string,
    private readonly changed: () => void,
  ) {}

  child(index: number): Child | undefined {
    return this.children[index];
  }

  /** Reads the pages with the children from..to, unless they are there. */
  async need(from: number, to: number): Promise<void> {
    const pages: Promise<void>[] = [];
    for (let page = Math.floor(from / PAGE); page <= Math.floor(to / PAGE); ++page) pages.push(this.page(page));
    await Promise.all(pages);
  }

  /** The first child that fits, in the order of the children; undefined when none does. */
  async find(fits: (child: Child) => boolean): Promise<Child | undefined> {
    for (let from = 0; from === 0 || from < (this.count ?? 0); from += PAGE) {
      await this.need(from, from).catch(() => undefined);
      const found = this.children.slice(from, from + PAGE).find((child) => child && fits(child));
      if (found) return found;
    }
    return undefined;
  }

  /** Reads everything again that had been read; what is shown stays until then. */
  async reload(): Promise<void> {
    const pages = new Set([0, ...this.asked.keys()]);
    this.asked.clear();
    await Promise.all([...pages].map((page) => this.page(page).catch(() => undefined)));
  }

  /** Hears no more of children that come and go, until something is read again. */
  rest(): void {
    clearTimeout(this.stale);
    this.stale = undefined;
    this.subscription?.close();
    this.subscription = undefined;
  }

  /** The top of the tree is no node, and tells nothing. */
  private follow(): void {
    if (this.path === ROOT) return;
    this.subscription ??= this.device.subscribe([{ path: this.path, type: "rows" }], (event) => {
      if (!event.error) this.reloadSoon();
    });
  }

  private reloadSoon(): void {
    this.stale ??= setTimeout(() => {
      this.stale = undefined;
      void this.reload();
    }, 100);
  }

  private page(page: number): Promise<void> {
    let answer = this.asked.get(page);
    if (!answer) {
      answer = this.read(page * PAGE);
      this.asked.set(page, answer);
      // A page that could not be read is asked for again the next time it is needed.
      answer.catch(() => this.asked.delete(page));
    }
    return answer;
  }

  private async read(from: number): Promise<void> {
    this.follow();
    // A device may give fewer rows than were asked for.
    for (let next = from, got = 1, count = Infinity; got > 0 && next < Math.min(from + PAGE, count); next += got) {
      const at = next;
      const { rows, rowsCount } = await this.device.getRows(this.path, CHILD_ROLES, at, from + PAGE - 1);
      got = rows.length;
      count = this.count = rowsCount;
      this.children.length = rowsCount;
      rows.forEach((row, i) => {
        this.children[at + i] = toChild(row);
      });
    }
    this.changed();
  }
}
