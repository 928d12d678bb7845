import { signal } from "@preact/signals";

import { device } from "../device/connection.js";
import { attempt } from "../device/problems.js";
import { t } from "../i18n/index.js";
import { isInside, ROOT } from "../model/paths.js";
import { Branch } from "./Branch.js";
import type { Child } from "./children.js";

/** A line of the tree as it is shown. A child that has not been read yet is undefined. */
export interface TreeLine {
  child: Child | undefined;
  depth: number;
  branch: Branch;
  index: number;
}

/** The containers that are open, their children as far as they were looked at, and all of it as lines. */
export class TreeModel {
  readonly lines = signal<TreeLine[]>([]);
  readonly failed = signal(false);
  private readonly branches = new Map<string, Branch>();
  private waiting = false;

  readonly opened = signal<ReadonlySet<string>>(new Set([ROOT]));

  /** Reads the topmost nodes, and whatever is open, again. */
  async load(): Promise<void> {
    const root = this.branch(ROOT);
    await Promise.all([...this.branches.values()].map((branch) => branch.reload()));
    this.failed.value = root.count === undefined;
    this.layOut();
  }

  /** Follows nothing until load(): nobody looks. */
  rest(): void {
    for (const branch of this.branches.values()) branch.rest();
  }

  isOpen(path: string): boolean {
    return this.opened.value.has(path);
  }

  async open(path: string): Promise<void> {
    this.opened.value = new Set(this.opened.value).add(path);
    const branch = this.branch(path);
    if (branch.count === undefined) await attempt(t("tree"), () => branch.need(0, 0));
    this.layOut();
  }

  close(path: string): void {
    const rest = [...this.opened.value].filter((each) => each !== path);
    this.opened.value = new Set(rest);
    for (const [at, branch] of this.branches) {
      if (at !== path && !isInside(at, path)) continue;
      branch.rest();
      this.branches.delete(at);
      this.opened.value = new Set([...this.opened.value].filter((each) => each !== at));
    }
    this.layOut();
  }

  /** Reads what the lines from..to show and is not there yet. */
  need(from: number, to: number): void {
    for (const line of this.lines.peek().slice(from, to + 1)) {
      if (!line.child) void line.branch.need(line.index, line.index);
    }
  }

  /** Opens all containers above the node. Returns its line, or -1 when there is no such node. */
  async reveal(path: string): Promise<number> {
    let above = ROOT;
    for (;;) {
      await this.open(above);
      const child = await this.branch(above).find((each) => each.path === path || isInside(path, each.path));
      if (!child) return -1;
      if (child.path === path) break;
      above = child.path;
    }
    this.layOut();
    return this.lines.peek().findIndex((line) => line.child?.path === path);
  }

  private branch(path: string): Branch {
    let branch = this.branches.get(path);
    if (!branch) this.branches.set(path, (branch = new Branch(device, path, () => this.layOutSoon())));
    return branch;
  }

  private layOutSoon(): void {
    if (this.waiting) return;
    this.waiting = true;
    // Pages arrive in bursts: one layout a frame for all of them.
    requestAnimationFrame(() => {
      this.waiting = false;
      this.layOut();
    });
  }

  private layOut(): void {
    const lines: TreeLine[] = [];
    this.append(lines, this.branch(ROOT), 0);
    this.lines.value = lines;
  }

  private append(lines: TreeLine[], branch: Branch, depth: number): void {
    for (let index = 0; index < (branch.count ?? 0); ++index) {
      const child = branch.child(index);
      lines.push({ child, depth, branch, index });
      const inside = child && this.opened.peek().has(child.path) ? this.branches.get(child.path) : undefined;
      if (inside) this.append(lines, inside, depth + 1);
    }
  }
}

export const tree = new TreeModel();
