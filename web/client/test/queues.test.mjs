// Subscriptions and live lists against a scripted device: what a network and a restart can do to them.

import assert from "node:assert/strict";
import { setTimeout as sleep } from "node:timers/promises";
import { test } from "node:test";
import { load, until } from "./load.mjs";
import { ScriptedDevice } from "./scripted.mjs";

const { Device } = await load("index");

function pair(options = {}) {
  const server = new ScriptedDevice();
  const device = new Device("http://device", { fetch: server.fetch, pollSeconds: 0.6, retryDelay: { first: 2, most: 20 }, ...options });
  return { server, device };
}

/** Numbers from 0 up to a limit, the same for the same seed. */
function randomFrom(seed) {
  return (limit) => {
    seed = (Math.imul(seed, 1103515245) + 12345) >>> 0;
    return Math.floor((seed / 2 ** 32) * limit);
  };
}

/** Complains about events that were lost or came twice; the device counts values and versions up by one. */
function watch(device, path, type, faults) {
  const seen = { value: undefined, version: undefined, snapshots: 0 };
  device.subscribe([{ path, type }], (event) => {
    if (event.error) faults.push(`${path}: ${event.error.message}`);
    if (event.snapshot) ++seen.snapshots;
    if (type === "item") {
      // What a snapshot shows may be told once more.
      const isNew = event.snapshot || event.roles.value > seen.value || (seen.isSnapshot && event.roles.value === seen.value);
      if (!isNew) faults.push(`${path}: ${event.roles.value} after ${seen.value}`);
      seen.value = event.roles.value;
      seen.isSnapshot = event.snapshot;
    } else if (event.rowsEvents[0].type === 0) {
      seen.version = event.rowsVersion;
    } else {
      for (const version of event.rowsVersions) {
        if (seen.version && version !== seen.version + 1) faults.push(`${path}: version ${version} after ${seen.version}`);
        seen.version = version;
      }
    }
  });
  return seen;
}

for (const forgetful of [false, true]) {
  test(`every change arrives once, whatever the network does${forgetful ? ", and after the queue was lost" : ""}`, async () => {
    for (let seed = 1; seed <= 12; ++seed) await soak(seed, forgetful);
  });
}

async function soak(seed, forgetful) {
  const random = randomFrom(seed);
  const { server, device } = pair();
  const fates = ["loseRequest", "loseAnswer", "double", 3, 8, null, null, null];
  server.values.set("a", 0);
  server.lists.set("list", { rows: Array.from({ length: 40 }, (_, i) => `row ${i}`), version: 1 });
  server.fate = (path) => (path.startsWith("/api/event/modify") && !forgetful ? null : fates[random(fates.length)]);

  const faults = [];
  const a = watch(device, "a", "item", faults);
  watch(device, "list", "rows", faults);
  const live = device.rows("list", ["title"], { margin: 3 });
  let late;
  for (let step = 1; step <= 60; ++step) {
    server.set("a", step);
    const size = server.lists.get("list").rows.length;
    server.changeRow("list", 1 + random(3), random(size - 1), `changed ${step}`);
    if (step % 7 === 0) live.show(random(size), random(10) + size);
    if (step % 11 === 0) server.replaceRows("list", [...server.lists.get("list").rows].reverse());
    if (forgetful && step % 13 === 0) server.forgetQueues();
    if (step === 30) late = watch(device, "a", "item", faults);
    await sleep(random(4));
  }
  server.fate = () => null;
  live.show(5, 25);
  const list = server.lists.get("list").rows;
  const isSame = () => live.count === list.length && list.slice(5, 26).every((row, i) => live.at(5 + i)?.[0] === row);
  await until(() => a.value === 60 && late.value === 60, `value, seed ${seed}`);
  await until(() => isSame(), `rows, seed ${seed}`);
  assert.deepEqual(faults, [], `seed ${seed}`);
  if (!forgetful) assert.equal(a.snapshots, 1);
  await until(() => device.online.get(), `online, seed ${seed}`);
  device.close();
}

test("subscriptions come and go without a new queue and without breaking the poll", async () => {
  const { server, device } = pair({ pollSeconds: 2 });
  for (const path of ["a", "b", "c"]) server.values.set(path, 0);
  const seen = [];
  const a = device.subscribe(["a"], (event) => seen.push(event));
  await until(() => server.asked("pollQueue").length === 1);
  const b = device.subscribe(["b", "a", { path: "c", type: "item" }], (event) => seen.push(event));
  await until(() => seen.length === 4);
  a.close();
  await until(() => server.asked("modifyQueue").length === 2);
  b.close();
  device.subscribe(["c"], (event) => seen.push(event));
  await until(() => seen.length === 5);
  assert.equal(server.asked("pollQueue").length, 1);
  const changes = server.asked("modifyQueue").map(({ body }) => [body.queueId, body.subscribe.length, body.unsubscribe.length]);
  assert.deepEqual(changes, [[undefined, 1, 0], ["queue 1", 2, 0], ["queue 1", 0, 2]]);
  server.set("c", 1);
  await until(() => seen.length === 6);
  assert.deepEqual([seen.at(-1).path, seen.at(-1).roles.value], ["c", 1]);
  device.close();
});

test("a value read before a change is not shown after it", async () => {
  const { server, device } = pair();
  server.values.set("a", 0);
  device.subscribe(["b"], () => {});
  await until(() => server.asked("pollQueue").length === 1);
  server.fate = (path) => (path === "/api/getData" ? 30 : null);
  const values = [];
  device.subscribe(["a"], ({ roles }) => values.push(roles.value));
  await until(() => server.asked("getData").length === 2);
  server.set("a", 1);
  server.fate = () => null;
  await until(() => values.length === 1);
  await sleep(50);
  assert.deepEqual(values, [1]);
  device.close();
});

test("a path that cannot be followed says so, and the others are followed", async () => {
  const { server, device } = pair();
  server.values.set("a", 0);
  server.values.set("secret", 0);
  server.refused.add("secret");
  const seen = {};
  device.subscribe(["bad", "secret", "a", "missing"], ({ path, error, roles }) => (seen[path] = error?.kind ?? roles.value));
  await until(() => Object.keys(seen).length === 4);
  assert.deepEqual(seen, { bad: "invalid", secret: "refused", a: 0, missing: null });
  server.set("a", 1);
  await until(() => seen.a === 1);
  server.refused.add("a");
  await until(() => seen.a === "refused");
  assert.equal(seen.missing, null);
  device.signIn("admin", "open sesame");
  await until(() => seen.secret === 0 && seen.a === 1);
  device.close();
});

test("a wrong signature is sent once, and everybody is told once", async () => {
  const { server, device } = pair({ credentials: { user: "admin", password: "wrong" } });
  server.isSignatureWrong = true;
  server.values.set("a", 0);
  const kinds = [];
  device.subscribe(["a", "b"], ({ error }) => kinds.push(error?.kind));
  await until(() => kinds.length === 2);
  await sleep(50);
  assert.deepEqual(kinds, ["refused", "refused"]);
  assert.equal(server.requests.length, 1);
  server.isSignatureWrong = false;
  device.signIn("admin", "right");
  await until(() => kinds.length === 4);
  assert.deepEqual(kinds.slice(2), [undefined, undefined]);
  device.close();
});

test("a device that stops is not asked without a break", async () => {
  const { server, device } = pair({ retryDelay: { first: 50, most: 50 } });
  server.isStopping = true;
  device.subscribe(["a"], () => {});
  await sleep(300);
  assert.ok(server.asked("pollQueue").length <= 13, `${server.asked("pollQueue").length} polls`);
  device.close();
});

test("online tells an outage and its end, whichever request it was that was lost", async () => {
  const { server, device } = pair({ pollSeconds: 30 });
  const states = [];
  device.online.on(() => states.push(device.online.get()));
  device.subscribe(["a"], () => {});
  const outages = [() => server.set("a", 1), () => device.getData("a", ["value"]).catch(() => {})];
  for (const outage of outages) {
    await until(() => server.asked("pollQueue").at(-1)?.body.timeout === 30);
    server.fate = () => "loseRequest";
    outage();
    await until(() => states.at(-1) === false);
    server.fate = () => null;
    await until(() => states.at(-1) === true);
  }
  assert.deepEqual(states, [false, true, false, true]);
  device.close();
});

test("a loop that falls behind gets the newest of each path, and ends with its subscription", async () => {
  const { server, device } = pair();
  server.values.set("a", 0);
  server.lists.set("list", { rows: ["row"], version: 1 });
  const subscription = device.subscribe(["a", { path: "list", type: "rows" }]);
  const loop = subscription[Symbol.asyncIterator]();
  const first = [await loop.next(), await loop.next()].map(({ value }) => [value.path, value.snapshot]);
  assert.deepEqual(first.sort(), [["a", true], ["list", true]]);
  for (let i = 1; i <= 5; ++i) {
    server.set("a", i);
    server.changeRow("list", 3, 0, `row ${i}`);
    await sleep(5);
  }
  assert.deepEqual((await loop.next()).value, { path: "a", roles: { value: 5 } });
  const reset = (await loop.next()).value;
  assert.deepEqual([reset.rowsEvents, reset.rowsVersion], [[{ type: 0, index: 0 }], 6]);
  const last = loop.next();
  subscription.close();
  assert.equal((await last).done, true);
});

test("a list of a million rows is read where it is shown", async () => {
  const { server, device } = pair();
  const million = { length: 1_000_000, slice: (from, to) => Array.from({ length: to - from }, (_, i) => `row ${from + i}`) };
  server.lists.set("list", { rows: million, version: 7 });
  const live = device.rows("list", ["title"]);
  await live.ready;
  live.show(999_000, 999_050);
  await until(() => live.at(999_050));
  assert.deepEqual([live.count, live.at(999_000), live.at(0)], [1_000_000, ["row 999000"], undefined]);
  const read = server.asked("getRows").map(({ body }) => Number(body.to) - Number(body.from) + 1);
  assert.deepEqual(read, [101, 151]);
  live.close();
});

test("a list that shrank, went or changes all the time is shown as it is", async () => {
  const { server, device } = pair();
  server.lists.set("list", { rows: Array.from({ length: 500 }, (_, i) => i), version: 1 });
  const live = device.rows("list", ["title"], { margin: 0 });
  live.show(400, 420);
  await until(() => live.at(400));
  server.replaceRows("list", [1, 2, 3]);
  await until(() => live.count === 3);
  live.show(0, 9);
  await until(() => live.at(2)?.[0] === 3);

  // Each version is outdated before it can be asked for, and nothing tells so.
  const list = server.lists.get("list");
  server.fate = (path) => (path === "/api/getRows" ? void ++list.version : null);
  server.changeRow("list", 1, 0, "new");
  await until(() => live.at(0)?.[0] === "new");
  server.fate = () => null;

  // The answer to what was asked before comes after the list has changed and the queue was lost.
  server.fate = (path) => (path === "/api/getRows" ? 250 : null);
  const reads = server.asked("getRows").length;
  server.replaceRows("list", ["older"]);
  await until(() => server.asked("getRows").length > reads);
  Object.assign(list, { rows: ["newer"], version: list.version + 1 });
  server.forgetQueues();
  await until(() => live.at(0)?.[0] === "newer");
  server.fate = () => null;

  server.lists.delete("list");
  server.forgetQueues();
  await until(() => live.error?.kind === "notFound" && live.count === 0);
  live.close();
});
