import type { DeviceError } from "./DeviceError.js";

/** `item` tells changes of the node's roles, `rows` those of a list's rows or of a container's children. */
export interface Target {
  path: string;
  type: "item" | "rows";
}

export interface RowEvent {
  /** 0: reset, read all rows again. 1: inserted at `index`. 2: removed from it. 3: updated there. */
  type: number;
  index: number;
}

export interface DeviceEvent {
  path: string;
  /** The roles that changed, with their new values. All are null when the node has gone. */
  roles: Record<string, unknown>;
  rowsEvents?: RowEvent[];
  /** The version that the list had after each of `rowsEvents`. */
  rowsVersions?: number[];
  rowsVersion?: number;
  /** This is how things stand, not what changed: the first event of each path, and whenever changes may have been missed. */
  snapshot?: true;
  /** The device tells nothing of this path, until a snapshot says otherwise. */
  error?: DeviceError;
}

export function keyOf({ path, type }: Target): string {
  return `${type} ${path}`;
}

export function reset(path: string): DeviceEvent {
  return { path, roles: {}, rowsEvents: [{ type: 0, index: 0 }] };
}

/** What of an event a subscription wants to know; null for nothing. */
export function part(event: DeviceEvent, type: Target["type"]): DeviceEvent | null {
  const { rowsEvents, rowsVersions, rowsVersion, ...item } = event;
  if (type === "item") return Object.keys(item.roles).length ? item : null;
  if (rowsEvents) return { ...event, roles: {} };
  return item.roles["type"] === null ? reset(event.path) : null;
}

/** One event in place of two of the same path and kind, `newer` after `older`. Of rows it says no more than to read them. */
export function merged(older: DeviceEvent, newer: DeviceEvent): DeviceEvent {
  if (newer.snapshot || newer.error || older.error) return newer;
  if (newer.rowsEvents) return { ...newer, ...reset(newer.path) };
  return { ...older, roles: { ...older.roles, ...newer.roles } };
}
