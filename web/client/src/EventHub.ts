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
  open(id: string, targets: Target[]): void;
  close(id: string): void;
  hurry(): void;
  stop(): void;
  /** Gives up its connection while nobody looks. */
  hold?(held: boolean): void;
}

/** What tabs tell each other. `hello` comes of a new leader; the others belong to one subscription or to the device. */
type Note =
  | { is: "hello" }
  | { is: "open"; tab: string; id: string; targets: Target[] }
  | { is: "close"; id: string }
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
  // Many hidden tabs with a queue each would take all connections to the device.
  readonly #look = () => this.#carrier?.hold?.(document.visibilityState === "hidden");
  readonly #hurry = () => this.#carrier?.hurry();

  constructor(connection: Connection, options: QueueOptions) {
    this.#connection = connection;
    this.#options = options;
    globalThis.addEventListener?.("online", this.#hurry);
    globalThis.document?.addEventListener("visibilitychange", this.#look);
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
    globalThis.removeEventListener?.("online", this.#hurry);
    globalThis.document?.removeEventListener("visibilitychange", this.#look);
    this.#entries.clear();
    this.restart();
  }

  #open(entry: Entry): void {
    entry.id = randomName();
    this.#entries.set(entry.id, entry);
    this.#carrier ??= this.#newCarrier();
    this.#carrier.open(entry.id, entry.targets);
  }

  #newCarrier(): Carrier {
    const deliver: Deliver = (id, event) => this.#entries.get(id)?.listener(event);
    // Node.js has the means, too, but no tabs.
    const hasTabs = typeof location === "object" && globalThis.navigator?.locks && globalThis.BroadcastChannel;
    if (!hasTabs) return new EventQueue(this.#connection, { deliver, refused: () => {} }, this.#options);
    return new SharedQueue(this.#connection, this.#options, deliver, () => (this.#carrier = undefined));
  }
}

/**
 * The queue of all tabs. Whoever holds the lock `leader` polls for all; when that tab goes, the browser gives the lock to
 * another one, which makes a queue of its own and asks everybody what they want. Each tab also holds a lock of its own,
 * by which the leader learns that it has gone.
 */
class SharedQueue implements Carrier {
  readonly #connection: Connection;
  readonly #queue: EventQueue;
  readonly #deliver: Deliver;
  readonly #resigned: () => void;
  readonly #tab = randomName();
  readonly #name: Promise<string>;
  readonly #ending = new AbortController();
  readonly #own = new Map<string, Target[]>();
  readonly #others = new Map<string, Set<string>>();
  #channel: BroadcastChannel | undefined;
  #leads = false;
  #stopOnline = () => {};

  /** `resigned` is called when this tab's signature is wrong, after its subscriptions have been told and all is over. */
  constructor(connection: Connection, options: QueueOptions, deliver: Deliver, resigned: () => void) {
    this.#connection = connection;
    this.#queue = new EventQueue(connection, this, options);
    this.#deliver = deliver;
    this.#resigned = resigned;
    this.#name = this.#userName().then((user) => `zark ${connection.base} ${user}`);
    void this.#join();
  }

  async #userName(): Promise<string> {
    const signer = await this.#connection.signer;
    return signer ? `of ${signer.user}` : "";
  }

  async #join(): Promise<void> {
    const name = await this.#name;
    await this.#hold(`${name} ${this.#tab}`, () => {
      this.#channel = new BroadcastChannel(name);
      this.#channel.onmessage = ({ data }) => this.#heard(data as Note);
      this.#sendOwn();
      void this.#hold(`${name} leader`, () => this.#lead());
    });
  }

  /** Holds a lock until the end. */
  async #hold(lock: string, then: () => void): Promise<void> {
    const { signal } = this.#ending;
    const held = () => {
      then();
      return new Promise<void>((resolve) => signal.addEventListener("abort", () => resolve()));
    };
    await navigator.locks.request(lock, { signal }, held).catch(() => {});
  }

  #lead(): void {
    this.#leads = true;
    this.#send({ is: "hello" });
    for (const [id, targets] of this.#own) this.#queue.open(id, targets);
    this.#stopOnline = this.#connection.online.on(() => this.#send({ is: "online", online: this.#connection.isOnline }));
  }

  deliver(id: string, event: DeviceEvent): void {
    if (this.#own.has(id)) this.#deliver(id, event);
    else this.#send({ is: "event", id, event: withPlainError(event) });
  }

  /** Another tab may do better. */
  refused(error: DeviceError): void {
    for (const [id, targets] of this.#own) for (const { path } of targets) this.#deliver(id, { path, roles: {}, error });
    this.stop();
    this.#resigned();
  }

  open(id: string, targets: Target[]): void {
    this.#own.set(id, targets);
    if (this.#leads) this.#queue.open(id, targets);
    else this.#send({ is: "open", tab: this.#tab, id, targets });
  }

  close(id: string): void {
    this.#own.delete(id);
    if (this.#leads) this.#queue.close(id);
    else this.#send({ is: "close", id });
  }

  hurry(): void {
    this.#queue.hurry();
  }

  stop(): void {
    for (const id of this.#own.keys()) this.#send({ is: "close", id });
    this.#stopOnline();
    this.#queue.stop();
    this.#ending.abort();
    this.#channel?.close();
    this.#channel = undefined;
  }

  #sendOwn(): void {
    for (const [id, targets] of this.#own) this.#send({ is: "open", tab: this.#tab, id, targets });
  }

  #send(note: Note): void {
    this.#channel?.postMessage(note);
  }

  #heard(note: Note): void {
    if (this.#leads) {
      if (note.is === "close") this.#queue.close(note.id);
      if (note.is === "open") this.#openFor(note.tab, note.id, note.targets);
    } else {
      if (note.is === "hello") this.#sendOwn();
      if (note.is === "online") this.#connection.isOnline = note.online;
      if (note.is === "event" && this.#own.has(note.id)) this.#deliver(note.id, withError(note.event));
    }
  }

  #openFor(tab: string, id: string, targets: Target[]): void {
    if (!this.#others.has(tab)) void this.#follow(tab);
    this.#others.get(tab)?.add(id);
    this.#queue.open(id, targets);
  }

  /** Until that tab has gone, which gives its lock away. */
  async #follow(tab: string): Promise<void> {
    this.#others.set(tab, new Set());
    await navigator.locks
      .request(`${await this.#name} ${tab}`, { signal: this.#ending.signal, mode: "shared" }, () => {
        for (const id of this.#others.get(tab) ?? []) this.#queue.close(id);
        this.#others.delete(tab);
      })
      .catch(() => {});
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
