import { DeviceError, type DeviceEvent } from "@zark/client";
import { signal, type ReadonlySignal, type Signal } from "@preact/signals";
import { useEffect, useState } from "preact/hooks";

import { asNumber, sameValue } from "../model/values.js";
import { Samples } from "../chart/samples.js";
import { device } from "./connection.js";
import type { Roles, Typed } from "./types.js";

/** How long a node is still followed after the last one let go of it: the next view often wants it again. */
const LINGER_MS = 2_000;
const FLASH_MS = 700;
const REREAD_MS = 3_000;

/** What this page knows of a node, kept up to date by the page's event queue as long as somebody holds it. */
export class LiveNode {
  /** Undefined until the device has answered. */
  readonly roles: Signal<Partial<Roles> | undefined> = signal(undefined);
  /** Why the node cannot be read; null while it can. */
  readonly problem = signal<DeviceError | null>(null);
  /** Counts the changes of the value that were seen. */
  readonly changes = signal(0);
  /** The numbers that the value had while it was followed. */
  readonly samples = new Samples();
  holders = 0;
  private subscription: { close(): void } | undefined;
  private lingering: ReturnType<typeof setTimeout> | undefined;
  private rereading: ReturnType<typeof setTimeout> | undefined;

  constructor(readonly path: string) {}

  hold(): void {
    clearTimeout(this.lingering);
    this.holders++;
    this.subscription ??= device.subscribe([this.path], (event) => this.take(event));
  }

  letGo(): void {
    if (--this.holders > 0) return;
    this.lingering = setTimeout(() => {
      this.subscription?.close();
      this.subscription = undefined;
      nodes.delete(this.path);
    }, LINGER_MS);
  }

  /** Shows at once what this page has written; the event that tells it comes later. */
  wrote(value: Typed): void {
    if (this.roles.peek()) this.accept({ value });
  }

  private take({ roles, error }: DeviceEvent): void {
    if (error?.kind === "refused") void this.readNow();
    else if (error) this.problem.value = error;
    else if (roles.type === null) this.problem.value = new DeviceError(0, "notFound", "");
    else {
      clearTimeout(this.rereading);
      this.accept(roles as Partial<Roles>);
    }
  }

  /** A device may let everybody read, and only those follow that sign: then it is read again now and then. */
  private async readNow(): Promise<void> {
    try {
      this.accept(await device.getData(this.path, ["@all"]));
    } catch (error) {
      if (error instanceof DeviceError) this.problem.value = error;
      return;
    }
    clearTimeout(this.rereading);
    this.rereading = setTimeout(() => this.subscription && void this.readNow(), REREAD_MS);
  }

  private accept(roles: Partial<Roles>): void {
    const known = this.roles.peek();
    if (known && roles.value && !sameValue(roles.value, known.value)) this.changes.value++;
    this.problem.value = null;
    this.roles.value = { ...known, ...roles };
    const number = asNumber(roles.value);
    if (number !== undefined) this.samples.add(Date.now() / 1000, number);
  }
}

const nodes = new Map<string, LiveNode>();

export function liveNode(path: string): LiveNode {
  let node = nodes.get(path);
  if (!node) nodes.set(path, (node = new LiveNode(path)));
  return node;
}

/** The node if it is followed. */
export const followedNode = (path: string): LiveNode | undefined => nodes.get(path);

/** The node, followed as long as the component shows it. */
export function useLive(path: string): LiveNode {
  const node = liveNode(path);
  useEffect(() => {
    node.hold();
    return () => node.letGo();
  }, [node]);
  return node;
}

/** The roles of a node that the page follows for as long as it is open. */
export function followed(path: string): ReadonlySignal<Partial<Roles> | undefined> {
  const node = liveNode(path);
  if (node.holders === 0) node.hold();
  return node.roles;
}

/** Whether the value has just changed, for a moment after each change. */
export function useFlash(node: LiveNode): boolean {
  const [seen, setSeen] = useState({ node, changes: node.changes.peek() });
  const changes = node.changes.value;
  const isNew = seen.node === node && seen.changes !== changes;
  useEffect(() => {
    if (seen.node !== node) setSeen({ node, changes });
    if (!isNew) return undefined;
    const timer = setTimeout(() => setSeen({ node, changes }), FLASH_MS);
    return () => clearTimeout(timer);
  }, [node, changes, isNew, seen]);
  return isNew;
}
