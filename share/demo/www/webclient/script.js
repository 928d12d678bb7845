"use strict";

// Follows a handful of nodes through an event queue and shows them. A node that this device does not have shows as a
// dash. Where events need a signature that this page does not have, it reads the nodes once a second instead. The
// volume can be set as well.

const PERIOD = 1000;
const TIMEOUT = 5000;
const POLL_SECONDS = 25;
const HISTORY = 60;

const NODES = {
  name: "system:host/name",
  load: "system:load/one",
  cpu: "system:load/cpu",
  memoryTotal: "system:memory/total",
  memoryAvailable: "system:memory/available",
  uptime: "system:uptime/seconds",
  volume: "player:player/volume",
  mute: "player:player/mute",
  state: "player:player/state",
  position: "player:player/position",
  track: "player:player/track",
  files: "settings:webserver/readPathPrefix",
};

const element = (id) => document.getElementById(id);
const show = (id, text) => { element(id).textContent = text ?? "–"; };
const clock = (seconds) => `${Math.floor(seconds / 60)}:${String(Math.floor(seconds % 60)).padStart(2, "0")}`;

async function read(path) {
  const query = new URLSearchParams({ path, roles: "value" });
  const reply = await fetch(`/api/getData?${query}`, { cache: "no-store", signal: AbortSignal.timeout(TIMEOUT) });
  if (!reply.ok) return undefined;
  const [value] = await reply.json();
  return value?.value;
}

async function readAll() {
  const names = Object.keys(NODES);
  const values = await Promise.all(names.map((name) => read(NODES[name])));
  return Object.fromEntries(names.map((name, i) => [name, values[i]]));
}

function duration(seconds) {
  const days = Math.floor(seconds / 86400);
  const hours = Math.floor(seconds / 3600) % 24;
  const minutes = Math.floor(seconds / 60) % 60;
  return days ? `${days} d ${hours} h` : hours ? `${hours} h ${minutes} min` : `${minutes} min`;
}

function showVolume(volume) {
  show("volume", volume);
  // A round end would show even where there is no line.
  element("volume-arc").style.visibility = volume ? "visible" : "hidden";
  element("volume-arc").style.strokeDasharray = `${volume ?? 0} 100`;
}

// What the slider wants and the device has not been told; while there is something, older readings do not count.
let wanted;
let writing = false;

async function write(volume) {
  const body = JSON.stringify({ path: NODES.volume, role: "value", value: { type: "i32", value: volume } });
  const reply = await fetch("/api/setData", {
    method: "POST", headers: { "Content-Type": "application/json" }, body, signal: AbortSignal.timeout(TIMEOUT),
  });
  if (!reply.ok) throw new Error((await reply.json().catch(() => ({}))).error?.message ?? reply.statusText);
}

// One write at a time, and of all that was wanted meanwhile the last alone.
async function writeWanted() {
  if (writing) return;
  writing = true;
  try {
    while (wanted !== undefined) {
      const volume = wanted;
      await write(volume);
      if (wanted === volume) wanted = undefined;
    }
    element("refusal").textContent = "";
  } catch (error) {
    wanted = undefined;
    element("refusal").textContent = `Not set: ${error.message}`;
  }
  writing = false;
}

function offerSlider() {
  element("slider").addEventListener("input", (event) => {
    wanted = event.target.valueAsNumber;
    showVolume(wanted);
    writeWanted();
  });
}

function showPlayer({ volume, mute, state, position, track }) {
  if (wanted === undefined) {
    showVolume(volume);
    element("slider").disabled = volume === undefined;
    element("slider").value = volume ?? 0;
  }
  show("mute", mute ? "muted" : "");
  show("state", state);
  show("track", track);
  show("position", position === undefined ? undefined : clock(position / 1000));
}

const history = [];

function showLoad(load) {
  show("load", load?.toFixed(2));
  if (load === undefined) return;
  history.push(load);
  if (history.length > HISTORY) history.shift();
  const top = Math.max(1, ...history);
  const points = history.map((each, i) => `${HISTORY - history.length + i},${(19 - (18 * each) / top).toFixed(2)}`);
  element("history").setAttribute("points", points.join(" "));
}

function showPercent(id, percent) {
  show(id, percent === undefined ? undefined : `${Math.round(percent)} %`);
  element(`${id}-meter`).value = percent ?? 0;
}

function showMachine({ name, cpu, memoryTotal, memoryAvailable, uptime }) {
  show("name", name ?? "Device");
  document.title = name ?? "Device";
  showPercent("cpu", cpu);
  showPercent("memory", memoryTotal ? 100 - (100 * memoryAvailable) / memoryTotal : undefined);
  show("uptime", uptime === undefined ? undefined : duration(uptime));
}

// The tone is among the files that the device offers for reading, when it does.
function offerTone(files) {
  const audio = element("tone");
  element("listen").hidden = !files;
  if (files && !audio.src) audio.src = `/file/stream${files.replaceAll("\\", "")}tone.wav`;
}

function showConnection(state, text) {
  document.body.dataset.state = state;
  show("connection", text);
}

function showAll(values, loadChanged) {
  showPlayer(values);
  showMachine(values);
  if (loadChanged) showLoad(values.load);
  offerTone(values.files);
  showConnection("live", "Live");
}

const pause = (milliseconds) => new Promise((resolve) => { setTimeout(resolve, milliseconds); });

function post(operation, body, timeout) {
  return fetch(`/api/event/${operation}`, {
    method: "POST",
    headers: { "Content-Type": "application/json" },
    body: JSON.stringify(body),
    signal: AbortSignal.timeout(timeout),
  });
}

// Subscribes, then reads, so that nothing falls in between. Returns when the device no longer knows the queue.
async function follow(queueId) {
  const values = await readAll();
  showAll(values, true);
  const names = Object.fromEntries(Object.entries(NODES).map(([name, path]) => [path, name]));
  // The count of answers lets the device tell again what a broken connection has swallowed.
  for (let received = 0; ;) {
    const reply = await post("pollQueue", { queueId, timeout: POLL_SECONDS, received }, POLL_SECONDS * 1000 + TIMEOUT);
    if (!reply.ok) return;
    const events = await reply.json();
    if (events.length) ++received;
    for (const { path, roles } of events) {
      if ("value" in roles) values[names[path]] = roles.value?.value;
    }
    showAll(values, events.some(({ path }) => path === NODES.load));
  }
}

async function run() {
  for (;;) {
    try {
      const subscribe = Object.values(NODES).map((path) => ({ path }));
      const made = await post("modifyQueue", { subscribe }, TIMEOUT);
      if (made.ok) await follow(await made.json());
      else showAll(await readAll(), true);
    } catch {
      showConnection("lost", "No answer from the device");
    }
    await pause(document.hidden ? 5 * PERIOD : PERIOD);
  }
}

offerSlider();
run();
