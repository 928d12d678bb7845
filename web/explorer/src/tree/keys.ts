import { go } from "../shell/route.js";
import type { Child } from "./children.js";
import { tree } from "./TreeModel.js";

/** A line, of the tree or of a search, as both are drawn and moved through. */
export interface Line {
  child: Child | undefined;
  depth: number;
  dim?: boolean;
}

const PAGE_ROWS = 12;

/** What the keys do, as the pattern of a tree grid has it. Returns whether the key was one of them. */
export function onKey(
  key: string,
  lines: Line[],
  at: number,
  isSearch: boolean,
  move: (index: number) => void,
): boolean {
  const line = lines[at];
  const steps: Record<string, number> = {
    ArrowDown: at + 1,
    ArrowUp: at - 1,
    Home: 0,
    End: lines.length - 1,
    PageDown: at + PAGE_ROWS,
    PageUp: at - PAGE_ROWS,
  };
  if (key in steps) move(steps[key] as number);
  else if (key === "Enter" && line?.child?.path) go({ view: "node", path: line.child.path });
  else if (key === "ArrowRight" && line?.child) openOrEnter(line.child, at, isSearch, move);
  else if (key === "ArrowLeft" && line) closeOrLeave(lines, at, isSearch, move);
  else return false;
  return true;
}

function openOrEnter(child: Child, at: number, isSearch: boolean, move: (index: number) => void): void {
  if (child.type !== "container") return;
  if (isSearch || tree.isOpen(child.path)) move(at + 1);
  else void tree.open(child.path);
}

function closeOrLeave(lines: Line[], at: number, isSearch: boolean, move: (index: number) => void): void {
  const { child, depth } = lines[at] as Line;
  if (!isSearch && child && child.type === "container" && tree.isOpen(child.path)) tree.close(child.path);
  else {
    let above = at - 1;
    while (above >= 0 && (lines[above] as Line).depth >= depth) --above;
    if (above >= 0) move(above);
  }
}
