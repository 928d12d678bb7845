import type { Connection } from "./Connection.js";
import { DeviceError } from "./DeviceError.js";
import type { DeviceEvent, Target } from "./events.js";
import { EventQueue, type QueueOptions } from "./EventQueue.js";

type Listener = (event: DeviceEvent) => void;
type Deliver = (id: string, event: DeviceEvent) => void;

interface Entry {
  targets: Target[];
  listener: Listener;
  id: string;
}

/** Brings subscriptions to a queue, wherever that is. */
interface Carrier {
  open(id: string, targets: Target[]): unknown;
  close(id: string): void;
  hurry(): void;
  stop(): void;
  /** Gives up its connection while nobody looks. */
  hold?(held: boolean): void;
}

/**
 * What tabs tell each other: a new leader that it is one, another tab what it wants, the leader what there is, and anybody
 * whether the device answers; when it did not, the leader asks again.
 */
type Note =
  | { is: "hello" }
  | { is: "open"; id: string; targets: Target[] }
  | { is: "event"; id: string; event: DeviceEvent }
  | { is: "online"; online: boolean };

/**
 * The subscriptions of one page, in a queue of its own or, where the browser has locks (not on plain HTTP, but for the
 * device itself), in one of all tabs. The tabs of a browser that show the same device to the same user share one queue, because
 * a browser allows six connections to a host, and each queue holds one.
 */
export class EventHub {
  readonly #connection: Connection;
  readonly #options: QueueOptions;
  readonly #entries = new Map<string, Entry>();
  #carrier: Carrier | undefined;
  readonly #ending = new AbortController();

  constructor(connection: Connection, options: QueueOptions) {
    this.#connection = connection;
    this.#options = options;
    const { signal } = this.#ending;
    globalThis.addEventListener?.("online", () => this.#carrier?.hurry(), { signal });
    globalThis.document?.addEventListener("visibilitychange", () => this.#look(), { signal });
  }

  /** The returned function ends it. */
  subscribe(targets: Target[], listener: Listener): () => void {
    const entry = { targets, listener, id: "" };
    this.#open(entry);
    return () => {
      if (this.#entries.delete(entry.id)) this.#carrier?.close(entry.id);
    };
  }

  /** Somebody else asks from now on: every subscription begins again. */
  restart(): void {
    this.#carrier?.stop();
    this.#carrier = undefined;
    const entries = [...this.#entries.values()];
    this.#entries.clear();
    for (const entry of entries) this.#open(entry);
  }

  close(): void {
    this.#ending.abort();
    this.#entries.clear();
    this.restart();
  }

  #open(entry: Entry): void {
    entry.id = randomName();
    this.#entries.set(entry.id, entry);
    if (!this.#carrier) {
      this.#carrier = this.#newCarrier();
      this.#look();
    }
    this.#carrier.open(entry.id, entry.targets);
  }

  // Many hidden tabs with a queue each would take all connections to the device.
  #look(): void {
    this.#carrier?.hold?.(globalThis.document?.visibilityState === "hidden");
  }

  #newCarrier(): Carrier {
    const deliver: Deliver = (id, event) => this.#entries.get(id)?.listener(event);
    // Node.js has the means, too, but no tabs.
    const hasTabs = typeof location === "object" && globalThis.navigator?.locks && globalThis.BroadcastChannel;
    if (!hasTabs) return new EventQueue(this.#connection, { deliver, refused: () => {} }, this.#options);
    return new SharedQueue(this.#connection, this.#options, deliver, () => (this.#carrier = undefined));
  }
}

/** A subscription of this tab. */
interface Own {
  targets: Target[];
  /** Its lock, which nobody may ask for before. */
  isHeld: boolean;
  release(): void;
}

/**
 * The queue of all tabs. Whoever holds the lock `leader` polls for all; when that tab goes, the browser gives the lock to
 * another one, which makes a queue of its own and asks everybody what they want. Each subscription holds a lock, too, by
 * which the leader learns that it has ended, or its tab with it.
 */
class SharedQueue implements Carrier {
  readonly #connection: Connection;
  readonly #queue: EventQueue;
  readonly #deliver: Deliver;
  readonly #resigned: () => void;
  readonly #name: string;
  readonly #channel: BroadcastChannel;
  readonly #ending = new AbortController();
  readonly #own = new Map<string, Own>();
  #leads = false;

  /** `resigned` is called when this tab's signature is wrong, after its subscriptions have been told and all is over. */
  constructor(connection: Connection, options: QueueOptions, deliver: Deliver, resigned: () => void) {
    this.#connection = connection;
    this.#queue = new EventQueue(connection, this, options);
    this.#deliver = deliver;
    this.#resigned = resigned;
    this.#name = `zark ${connection.base} ${connection.user ? `of ${connection.user}` : ""}`;
    this.#channel = new BroadcastChannel(this.#name);
    this.#channel.onmessage = ({ data }) => this.#heard(data as Note);
    const release = this.#hold("leader", () => this.#lead());
    const stopTelling = connection.online.on(() => this.#send({ is: "online", online: connection.isOnline }));
    this.#ending.signal.addEventListener("abort", () => {
      release();
      stopTelling();
    });
  }

  /** The returned function gives the lock back. */
  #hold(lock: string, then: () => void): () => void {
    let release = () => {};
    const held = new Promise<void>((resolve) => (release = resolve));
    this.#request(lock, "exclusive", () => {
      then();
      return held;
    });
    return release;
  }

  #request(lock: string, mode: LockMode, then: () => void | Promise<void>): void {
    const { signal } = this.#ending;
    navigator.locks.request(`${this.#name} ${lock}`, { signal, mode }, then).catch(() => {}); // Of the end alone.
  }

  #lead(): void {
    this.#leads = true;
    this.#send({ is: "hello" });
    this.#announce();
  }

  deliver(id: string, event: DeviceEvent): void {
    if (this.#own.has(id)) this.#deliver(id, event);
    else this.#send({ is: "event", id, event: withPlainError(event) });
  }

  /** Another tab may do better. */
  refused(error: DeviceError): void {
    for (const [id, { targets }] of this.#own) for (const { path } of targets) this.#deliver(id, { path, roles: {}, error });
    this.stop();
    this.#resigned();
  }

  open(id: string, targets: Target[]): void {
    const own: Own = { targets, isHeld: false, release: () => {} };
    this.#own.set(id, own);
    own.release = this.#hold(id, () => {
      own.isHeld = true;
      if (this.#own.has(id)) this.#announce([[id, own]]);
    });
  }

  close(id: string): void {
    this.#own.get(id)?.release();
    this.#own.delete(id);
    this.#queue.close(id);
  }

  hurry(): void {
    this.#queue.hurry();
  }

  stop(): void {
    for (const id of [...this.#own.keys()]) this.close(id);
    this.#queue.stop();
    this.#ending.abort();
    this.#channel.close();
  }

  /** What this tab wants. The queue knows what it has heard before. */
  #announce(subscriptions: Iterable<[string, Own]> = this.#own): void {
    for (const [id, { targets, isHeld }] of subscriptions) {
      if (this.#leads) this.#queue.open(id, targets);
      else if (isHeld) this.#send({ is: "open", id, targets });
    }
  }

  #send(note: Note): void {
    this.#channel.postMessage(note);
  }

  #heard(note: Note): void {
    if (note.is === "online") this.#connection.isOnline = note.online;
    if (this.#leads) {
      if (note.is !== "open") return;
      const isNew = this.#queue.open(note.id, note.targets);
      if (isNew) this.#request(note.id, "shared", () => this.#queue.close(note.id));
    } else {
      if (note.is === "hello") this.#announce();
      if (note.is === "event" && this.#own.has(note.id)) this.#deliver(note.id, withError(note.event));
    }
  }
}

function randomName(): string {
  return Math.random().toString(36).slice(2);
}

// Between tabs an error loses its class.
function withPlainError(event: DeviceEvent): DeviceEvent {
  return event.error ? { ...event, error: { ...event.error, message: event.error.message } } : event;
}

function withError(event: DeviceEvent): DeviceEvent {
  const { error } = event;
  return error ? { ...event, error: Object.assign(new DeviceError(0, "", ""), error) } : event;
}
