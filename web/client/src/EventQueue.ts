import type { Connection } from "./Connection.js";
import { DeviceError } from "./DeviceError.js";
import { keyOf, part, reset, type DeviceEvent, type Target } from "./events.js";
import { Pause, type RetryDelay } from "./Pause.js";

const roleNames = "path title description type value permission modifiable edit icon timestamp".split(" ");
const noRoles = Object.fromEntries(roleNames.map((role) => [role, null]));

const modifyQueue = "/api/event/modifyQueue";
const pollQueue = "/api/event/pollQueue";

// A queue without subscriptions goes on for so long, in milliseconds, because another one often follows.
const emptyFor = 200;
// An empty answer that comes sooner, in milliseconds, comes of a device that stops.
const soon = 500;
const readsAtATime = 4;

/** One path of one subscription. */
interface Watch {
  id: string;
  target: Target;
  /**
   * `waiting` for its snapshot, `reading` it, `fresh` when it has it and a poll is under way that began before, `live` when
   * events are passed on, `failed` when there will be none.
   */
  state: "waiting" | "reading" | "fresh" | "live" | "failed";
  /** An event came while the snapshot was read, which may be older or newer. */
  outrun: boolean;
}

export interface QueueOptions {
  retryDelay: RetryDelay;
  /** Seconds that a poll waits at the device. */
  pollSeconds: number;
}

/** Whoever made the queue. */
export interface QueueOwner {
  /** An event of one subscription. */
  deliver(id: string, event: DeviceEvent): void;
  /** The signature is wrong. Every subscription is told so, unless the owner does it and stops the queue. */
  refused(error: DeviceError): void;
}

/**
 * One event queue at the device, for any number of subscriptions.
 *
 * Every watch begins with a snapshot. Its events follow, none lost and none twice: each poll counts the answers that were
 * taken in, so that the device repeats what did not arrive. When the device does not know the queue (it was restarted,
 * or out of reach for too long), a new one is made and every watch begins again.
 *
 * A snapshot and the events are answers to different requests, and either may be the newer. So an event of a poll that was
 * under way while the snapshot was read makes it be read once more, and the next poll waits for that.
 */
export class EventQueue {
  readonly #connection: Connection;
  readonly #owner: QueueOwner;
  readonly #options: QueueOptions;
  readonly #pause: Pause;
  readonly #watches = new Map<string, Watch[]>();
  #queueId = "";
  #received = 0;
  #subscribed = new Map<string, Target>();
  #settling: Promise<void> | undefined;
  #running = false;
  #held = false;
  #isPolling = false;
  #polling = new AbortController();
  #wake: (() => void) | undefined;
  #emptyTimer: ReturnType<typeof setTimeout> | undefined;

  constructor(connection: Connection, owner: QueueOwner, options: QueueOptions) {
    this.#connection = connection;
    this.#owner = owner;
    this.#options = options;
    this.#pause = new Pause(options.retryDelay);
  }

  /** False when it is open. */
  open(id: string, targets: Target[]): boolean {
    if (this.#watches.has(id)) return false;
    this.#watches.set(id, targets.map((target) => ({ id, target, state: "waiting", outrun: false })));
    this.#changed();
    return true;
  }

  close(id: string): void {
    if (this.#watches.delete(id)) this.#changed();
  }

  /** For good, and at once. */
  stop(): void {
    this.#watches.clear();
    this.#end();
  }

  /** Gives up its connection while nobody looks. The device keeps the events for a minute. */
  hold(held: boolean): void {
    this.#held = held;
    if (held) this.#polling.abort();
    this.#wake?.();
  }

  /** Tries again now. */
  hurry(): void {
    this.#pause.wake();
  }

  #changed(): void {
    clearTimeout(this.#emptyTimer);
    if (!this.#watches.size) this.#emptyTimer = setTimeout(() => this.#end(), emptyFor);
    this.#wake?.();
    if (!this.#running) void this.#run();
    // The loop waits in a poll; it is the one that knows what follows from an error.
    else if (!this.#held) this.#settle().catch((error) => this.#polling.abort(error));
  }

  #end(): void {
    clearTimeout(this.#emptyTimer);
    this.#polling.abort();
    this.#pause.wake();
    this.#wake?.();
  }

  async #run(): Promise<void> {
    this.#running = true;
    // Some request was lost. Is the device there? The next poll tells at once.
    const stopListening = this.#connection.online.on(() => this.#connection.isOnline || this.#polling.abort());
    while (this.#watches.size) {
      if (this.#polling.signal.aborted) this.#polling = new AbortController();
      try {
        await this.#settle();
        if (this.#queueId && !this.#held) await this.#poll();
        else await this.#change();
      } catch (error) {
        if (error instanceof DeviceError || !this.#polling.signal.aborted) await this.#failed(error);
      }
    }
    stopListening();
    this.#running = false;
    this.#lose();
  }

  /** Until something is subscribed or unsubscribed, or the queue is no longer held. */
  async #change(): Promise<void> {
    if (!this.#polling.signal.aborted) await new Promise<void>((resolve) => (this.#wake = resolve));
    this.#wake = undefined;
  }

  #lose(): void {
    this.#queueId = "";
    this.#received = 0;
    this.#subscribed.clear();
    for (const watch of this.#all()) watch.state = "waiting";
  }

  #all(): Watch[] {
    return [...this.#watches.values()].flat();
  }

  async #failed(error: unknown): Promise<void> {
    if (!isRefused(error)) return this.#pause.wait();
    this.#lose();
    // A wrong signature does not get better, and each one holds others back. Without one, some paths may do.
    if (!this.#connection.signer) return this.#pause.wait();
    this.#owner.refused(error);
    this.#fail(this.#all(), error);
  }

  #fail(watches: Watch[], error: DeviceError): void {
    for (const watch of watches) watch.state = "failed";
    for (const watch of watches) this.#tell(watch, { path: watch.target.path, roles: {}, error });
  }

  // Whoever hears of one event may have closed the subscription of the next.
  #tell({ id }: Watch, event: DeviceEvent): void {
    if (this.#watches.has(id)) this.#owner.deliver(id, event);
  }

  // ---- What is subscribed

  /** Until the queue tells what is wanted, and every watch has had its snapshot. */
  #settle(): Promise<void> {
    return (this.#settling ??= this.#settleNow());
  }

  async #settleNow(): Promise<void> {
    try {
      await null; // Whatever else is opened and closed in this turn makes one request.
      for (;;) {
        const wanted = new Map<string, Target>();
        for (const { state, target } of this.#all()) if (state !== "failed") wanted.set(keyOf(target), target);
        const add = [...wanted].filter(([key]) => !this.#subscribed.has(key)).map(([, target]) => target);
        const drop = [...this.#subscribed].filter(([key]) => !wanted.has(key)).map(([, target]) => target);
        if (add.length || drop.length) {
          await this.#modify(add, drop);
          continue;
        }
        const waiting = this.#all().filter(({ state }) => state === "waiting");
        if (!waiting.length) return;
        await this.#readSnapshots(waiting);
      }
    } finally {
      this.#settling = undefined;
    }
  }

  async #modify(add: Target[], drop: Target[]): Promise<void> {
    try {
      await this.#request(add, drop);
    } catch (error) {
      if (!this.#mayBeOfOnePath(error)) throw error;
      // Is it the queue?
      const id = this.#queueId;
      try {
        await this.#request([], drop);
      } catch (queueError) {
        if (!id || !isUnknown(queueError)) throw queueError;
        return this.#lose();
      }
      for (const target of add) await this.#addOne(target);
    }
  }

  #mayBeOfOnePath(error: unknown): error is DeviceError {
    return isUnknown(error) || (isRefused(error) && !this.#connection.signer);
  }

  async #addOne(target: Target): Promise<void> {
    try {
      await this.#request([target], []);
    } catch (error) {
      if (!this.#mayBeOfOnePath(error)) throw error;
      this.#fail(this.#all().filter((watch) => keyOf(watch.target) === keyOf(target)), error);
    }
  }

  async #request(subscribe: Target[], unsubscribe: Target[]): Promise<void> {
    const body = { ...(this.#queueId && { queueId: this.#queueId }), subscribe, unsubscribe };
    this.#queueId = String(await this.#connection.exchange(modifyQueue, { body, signal: this.#polling.signal }));
    for (const target of unsubscribe) this.#subscribed.delete(keyOf(target));
    for (const target of subscribe) this.#subscribed.set(keyOf(target), target);
  }

  // ---- How things stand

  async #readSnapshots(watches: Watch[]): Promise<void> {
    for (const watch of watches) {
      const { path, type } = watch.target;
      watch.state = type === "rows" ? "live" : "reading";
      if (type === "rows") this.#tell(watch, { ...reset(path), snapshot: true });
    }
    const paths = [...byPathOf(watches.filter(({ state }) => state === "reading"))];
    const readSome = async () => {
      for (let next = paths.pop(); next; next = paths.pop()) await this.#readSnapshot(...next);
    };
    try {
      await Promise.all(Array.from({ length: readsAtATime }, readSome));
    } finally {
      for (const watch of watches) if (watch.state === "reading") watch.state = "waiting";
    }
  }

  async #readSnapshot(path: string, watches: Watch[]): Promise<void> {
    const queue = this.#queueId;
    let event: DeviceEvent;
    do {
      for (const watch of watches) watch.outrun = false;
      event = await this.#readRoles(path);
    } while (watches.some(({ outrun }) => outrun));
    if (queue !== this.#queueId) return; // It was lost meanwhile, and with it what came after this.
    for (const watch of watches) watch.state = this.#isPolling ? "fresh" : "live";
    for (const watch of watches) this.#tell(watch, event);
  }

  async #readRoles(path: string): Promise<DeviceEvent> {
    const query = { path, roles: "@all", type: "structure" };
    try {
      const roles = await this.#connection.get("/api/getData", query, this.#polling.signal);
      return { path, roles: roles as Record<string, unknown>, snapshot: true };
    } catch (error) {
      if (!(error instanceof DeviceError) || error.kind === "offline") throw error;
      if (error.kind === "notFound") return { path, roles: noRoles, snapshot: true };
      return { path, roles: {}, error };
    }
  }

  // ---- What changes

  async #poll(): Promise<void> {
    // The first poll after an outage does not wait, because its answer is what tells that the device is back.
    const seconds = this.#connection.isOnline ? this.#options.pollSeconds : 0;
    const start = Date.now();
    const queueId = this.#queueId;
    let events: DeviceEvent[];
    for (const watch of this.#all()) if (watch.state === "fresh") watch.state = "live";
    this.#isPolling = true;
    try {
      events = (await this.#connection.exchange(pollQueue, {
        body: { queueId, timeout: seconds, received: this.#received },
        signal: this.#polling.signal,
        timeout: (seconds + 10) * 1000,
      })) as DeviceEvent[];
    } catch (error) {
      if (!isUnknown(error)) throw error;
      if (queueId === this.#queueId) this.#lose(); // Otherwise there is a new one.
      return;
    } finally {
      this.#isPolling = false;
    }
    if (events.length) {
      this.#received++;
      this.#takeIn(events);
    } else if (Date.now() - start < soon && seconds * 1000 > soon) {
      return this.#pause.wait();
    }
    this.#pause.succeeded();
  }

  #takeIn(events: DeviceEvent[]): void {
    const byPath = byPathOf(this.#all());
    for (const event of events) {
      for (const watch of byPath.get(event.path) ?? []) {
        const wanted = part(event, watch.target.type);
        if (!wanted) continue;
        watch.outrun = true;
        if (watch.state === "fresh") watch.state = "waiting";
        if (watch.state === "live") this.#tell(watch, wanted);
      }
    }
  }
}

function byPathOf(watches: Watch[]): Map<string, Watch[]> {
  const map = new Map<string, Watch[]>();
  for (const watch of watches) {
    const { path } = watch.target;
    const list = map.get(path);
    if (list) list.push(watch);
    else map.set(path, [watch]);
  }
  return map;
}

function isUnknown(error: unknown): error is DeviceError {
  return error instanceof DeviceError && error.status === 400;
}

function isRefused(error: unknown): error is DeviceError {
  return error instanceof DeviceError && (error.kind === "refused" || error.kind === "throttled");
}
