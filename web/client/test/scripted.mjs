// A device made of a few maps, behind a network that does what a test tells it to. It follows the HTTP API's rules for
// event queues and lists; nothing of the package is in it.

const json = (status, value) => new Response(JSON.stringify(value), { status });
const failure = (name, status = 500) => json(status, { error: { name, message: name } });
const text = (status, message) => new Response(message, { status });

export class ScriptedDevice {
  values = new Map(); // By path.
  lists = new Map(); // By path: { rows, version }.
  refused = new Set(); // Paths that only a signature opens.
  isSignatureWrong = false;
  isStopping = false;
  requests = []; // Path and body of each that arrived.
  /** What the network does with a request: null, "loseRequest", "loseAnswer", "double", or milliseconds of delay. */
  fate = () => null;
  #queues = new Map();
  #count = 0;

  // ---- What happens to it

  set(path, value) {
    this.values.set(path, value);
    this.#touch(path, (changes) => changes.roles.add("value"));
  }

  /** Type 1, 2 or 3 at `index`. */
  changeRow(path, type, index, row) {
    const list = this.lists.get(path);
    list.rows.splice(index, type === 1 ? 0 : 1, ...(type === 2 ? [] : [row]));
    ++list.version;
    this.#touch(path, (changes) => changes.rows.push({ type, index, version: list.version }));
  }

  replaceRows(path, rows) {
    const list = this.lists.get(path);
    Object.assign(list, { rows, version: list.version + 1 });
    this.#touch(path, (changes) => (changes.rows = [{ type: 0, index: 0, version: list.version }]));
  }

  forgetQueues() {
    for (const queue of this.#queues.values()) queue.answer?.();
    this.#queues.clear();
  }

  asked(endpoint) {
    return this.requests.filter(({ path }) => path.endsWith(endpoint));
  }

  // ---- The network

  fetch = async (url, init = {}) => {
    const fate = this.fate(new URL(url).pathname);
    if (fate === "loseRequest") throw new TypeError("network");
    const handle = () => this.#handle(new URL(url), init);
    if (fate === "double") void handle();
    const reply = await this.#orAborted(handle(), init.signal);
    if (typeof fate === "number") await this.#orAborted(new Promise((resolve) => setTimeout(resolve, fate)), init.signal);
    if (fate === "loseAnswer") throw new TypeError("network");
    return reply;
  };

  #orAborted(promise, signal) {
    return new Promise((resolve, reject) => {
      signal?.addEventListener("abort", () => reject(signal.reason));
      promise.then(resolve, reject);
    });
  }

  // ---- What it answers

  async #handle({ pathname, searchParams: query }, { body, headers = {}, signal }) {
    const data = body ? JSON.parse(body) : Object.fromEntries(query);
    this.requests.push({ path: pathname, body: data });
    if (headers.Authorization && this.isSignatureWrong) return failure("accessDenied", 401);
    const isRefused = (path) => this.refused.has(path) && !headers.Authorization;
    if (pathname === "/api/getData") return isRefused(data.path) ? failure("accessDenied", 401) : this.#getData(data);
    if (pathname === "/api/getRows") return this.#getRows(data);
    if (pathname === "/api/event/modifyQueue") return this.#modifyQueue(data, isRefused);
    return this.#pollQueue(data, signal, isRefused);
  }

  #getData({ path }) {
    return this.values.has(path) ? json(200, { path, value: this.values.get(path), type: "value" }) : failure("notFound");
  }

  #getRows({ path, from, to, version }) {
    const list = this.lists.get(path);
    [from, to, version] = [from, to, version].map(Number);
    if (!list) return failure("notFound");
    if (version && version !== list.version) return failure("outdatedVersion");
    if (from > to || (from >= list.rows.length && list.rows.length)) return failure("invalidRange");
    const rows = list.rows.slice(from, to + 1).map((row) => [row]);
    return json(200, { roles: {}, rows, from, rowsCount: list.rows.length, rowsVersion: list.version });
  }

  #modifyQueue({ queueId, subscribe = [], unsubscribe = [] }, isRefused) {
    const isBad = ({ path }) => path.startsWith("bad");
    if ((queueId && !this.#queues.has(queueId)) || subscribe.some(isBad)) return text(400, "Unable to subscribe or unsubscribe paths!");
    if (subscribe.some(({ path }) => isRefused(path))) return text(401, "Forbidden");
    const id = queueId || `queue ${++this.#count}`;
    const queue = this.#queues.get(id) ?? { subscribed: new Set(), changes: new Map(), held: null, answers: 0, answer: null };
    for (const { path, type } of unsubscribe) {
      queue.subscribed.delete(`${type} ${path}`);
      queue.changes.delete(path);
      queue.held?.delete(path);
    }
    for (const { path, type } of subscribe) queue.subscribed.add(`${type} ${path}`);
    this.#queues.set(id, queue);
    return json(200, id);
  }

  async #pollQueue({ queueId, timeout, received }, signal, isRefused) {
    const queue = this.#queues.get(queueId);
    if (!queue) return text(400, "Unknown queue id!");
    if ([...queue.subscribed].some((target) => isRefused(target.split(" ")[1]))) return text(401, "Forbidden");
    if (queue.held && received === queue.answers - 1) this.#putBack(queue);
    else if (received !== queue.answers) throw new Error(`${received} answers counted of ${queue.answers}`);
    queue.held = null;
    queue.answer?.(); // A second poll ends the first.
    if (!queue.changes.size && timeout && !this.isStopping) await this.#change(queue, timeout, signal);
    const events = signal?.aborted ? [] : [...queue.changes].map(([path, changes]) => this.#event(path, changes));
    if (events.length) {
      queue.held = queue.changes;
      queue.changes = new Map();
      ++queue.answers;
    }
    return json(200, events);
  }

  async #change(queue, timeout, signal) {
    const done = await new Promise((resolve) => {
      queue.answer = () => resolve(true);
      setTimeout(resolve, timeout * 1000);
      signal?.addEventListener("abort", resolve);
    });
    if (done !== true) queue.answer = null;
  }

  #event(path, { roles, rows }) {
    const event = { path, roles: roles.size ? { value: this.values.get(path) } : {} };
    if (!rows.length) return event;
    const rowsEvents = rows.map(({ type, index }) => ({ type, index }));
    return { ...event, rowsEvents, rowsVersions: rows.map(({ version }) => version), rowsVersion: rows.at(-1).version };
  }

  #putBack(queue) {
    --queue.answers;
    for (const [path, older] of queue.held) {
      const newer = queue.changes.get(path);
      const rows = newer?.rows[0]?.type === 0 ? newer.rows : [...older.rows, ...(newer?.rows ?? [])];
      queue.changes.set(path, { roles: new Set([...older.roles, ...(newer?.roles ?? [])]), rows });
    }
  }

  #touch(path, change) {
    for (const queue of this.#queues.values()) {
      if (!queue.subscribed.has(`item ${path}`) && !queue.subscribed.has(`rows ${path}`)) continue;
      const changes = queue.changes.get(path) ?? { roles: new Set(), rows: [] };
      change(changes);
      queue.changes.set(path, changes);
      const answer = queue.answer;
      queue.answer = null;
      answer?.();
    }
  }
}
