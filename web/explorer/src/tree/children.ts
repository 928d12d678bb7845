import { device } from "../device/connection.js";
import type { NodeType, Roles, Typed } from "../device/types.js";
import { limited } from "../model/limited.js";

/** What the tree shows of a node. */
export type Child = Pick<Roles, "path" | "title" | "icon" | "permission" | "edit"> & {
  type: NodeType;
  value: Typed | null;
};

export const CHILD_ROLES = ["path", "title", "type", "value", "icon", "permission", "edit"];
export const PAGE = 500;

export const toChild = (row: unknown[]): Child => {
  const [path, title, type, value, icon, permission, edit] = row;
  return { path, title, type, value, icon, permission, edit } as Child;
};

/** Reads of several containers at a time, and yet few: the rest of the page wants to be answered too. */
const turns = limited(4);

/** All children of a container that this page may see, a page at a time. */
export async function* childrenOf(path: string, signal?: AbortSignal): AsyncGenerator<Child[]> {
  for (let from = 0, count = 1, got = 1; from < count && got; from += got) {
    const options = signal ? { signal } : {};
    const read = () => device.getRows(path, CHILD_ROLES, from, from + PAGE - 1, options);
    const { rows, rowsCount } = await turns(read);
    count = rowsCount;
    got = rows.length; // A device may give fewer than were asked for.
    yield rows.map(toChild).filter((child) => child.path);
  }
}
