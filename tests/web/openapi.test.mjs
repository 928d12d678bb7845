// docs/openapi.yaml against the real device, both ways: every request that it shows is sent, and whatever an answer has
// and the schema has not, or the schema has and no answer, is a fault. So is an answer that the tests in
// tests/http were given and that the schema has not. The device has an interface of its own, in a
// network namespace, because much of the API depends on where a client is.

import Ajv from "ajv/dist/2020.js";
import { load } from "js-yaml";
import assert from "node:assert/strict";
import { readFileSync, readdirSync } from "node:fs";
import { request as httpRequest } from "node:http";
import { request as httpsRequest } from "node:https";
import { test } from "node:test";
import { setData, startDevice } from "./device.mjs";
import { enterNamespace } from "./namespace.mjs";

enterNamespace();
const { ZARK_HOST, PROJECT, TRAFFIC } = process.env;
const METHODS = ["get", "head", "post"];
const ANY_REQUEST = ["400", "505"]; // Malformed HTTP, and another version of it.
const TARGET = /^(\/|https?:)/; // What a request begins with that has its own.
const QUEUE = "f37b8d25-3223-4493-997b-031ff09a9e89"; // Stands in the examples for a queue of the device.
// What HTTP itself and the server put into any answer.
const COMMON_HEADERS = ["date", "connection", "keep-alive", "content-type", "content-length", "transfer-encoding", "x-robots-tag"];

const document = load(readFileSync(`${PROJECT}/docs/openapi.yaml`, "utf8"));
const ajv = new Ajv({ strict: false, formats: { uuid: /^[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}$/, int64: true } });
const validators = new Map();

function resolve(item) {
  return item?.$ref ? item.$ref.slice(2).split("/").reduce((place, key) => place[key], document) : item;
}

function faultsOf(schema, data) {
  if (!validators.has(schema)) validators.set(schema, ajv.compile({ allOf: [schema], components: document.components }));
  return validators.get(schema)(data) ? null : validators.get(schema).errors;
}

/** Every `properties` that the schema has, as [properties, data]; with data only those that the data uses. */
function* objectsOf(schema, data, whole, known = new Set()) {
  const target = resolve(schema);
  if (!target || (whole && known.has(target))) return;
  known.add(target);
  if (target.properties && (whole || (data && typeof data === "object"))) {
    yield [target.properties, data];
    for (const [key, inner] of Object.entries(target.properties))
      if (whole || key in data) yield* objectsOf(inner, data?.[key], whole, known);
  }
  for (const item of whole ? [undefined] : Array.isArray(data) ? data : [])
    if (target.items) yield* objectsOf(target.items, item, whole, known);
  for (const branch of [...(target.oneOf ?? []), ...(target.anyOf ?? [])])
    if (whole || !faultsOf(branch, data)) yield* objectsOf(branch, data, whole, known);
}

/** Target, headers and body of an example; what it leaves out is as in `first`. */
function parse(text, first) {
  const [head, ...rest] = text.split("\n\n");
  const lines = head.split("\n");
  const target = TARGET.test(lines[0]) ? lines.shift() : first.target;
  const headers = Object.fromEntries(lines.flatMap((line) => {
    const count = Number(/^\{(\d+) fields\}$/.exec(line)?.[1] ?? 0);
    return count ? Array.from({ length: count }, (_, i) => [`X-${i}`, "x"]) : [line.split(/: (.*)/s).slice(0, 2)];
  }));
  const body = rest.join("\n\n").replace(/\{(\d+) bytes\}/, (_, count) => "x".repeat(count));
  if (!body && target === first?.target) return { ...first, headers: { ...first.headers, ...headers } };
  return { target, headers: body ? { "Content-Type": "application/json", ...headers } : headers, body };
}

function send(method, { target, headers, body }) {
  const { protocol, hostname, pathname, search } = new URL(target, "http://localhost");
  const bytes = headers["Content-Type"]?.startsWith("multipart/") ? body.replaceAll("\n", "\r\n") : body;
  const length = bytes || method === "POST" ? { "Content-Length": Buffer.byteLength(bytes) } : {};
  return new Promise((done, failed) => {
    const options = { method, host: hostname === "localhost" ? "127.0.0.1" : hostname, path: pathname + search,
      headers: { Host: hostname, ...length, ...headers }, rejectUnauthorized: false };
    const sent = (protocol === "https:" ? httpsRequest : httpRequest)(options, async (answer) => {
      const chunks = [];
      for await (const chunk of answer) {
        chunks.push(chunk);
        if (answer.headers["cache-control"] && answer.statusCode === 200) break; // A stream has no end.
      }
      done({ status: answer.statusCode, headers: answer.headers, body: Buffer.concat(chunks).toString() });
    });
    sent.on("error", failed);
    if (headers.Expect) sent.on("continue", () => sent.end(bytes)).flushHeaders();
    else sent.end(bytes);
  });
}

/** What differs from run to run, made the same: versions and times, and the ids of queues. */
function steady(value) {
  return JSON.parse(JSON.stringify(value), (key, inner) => (typeof inner === "number" && (inner > 1e12 || /^rows(Version|Count)$/.test(key)))
    || /^[0-9a-f-]{36}$/.test(inner) ? "varies" : inner);
}

function checkHeaders(described, headers) {
  for (const [name, header] of Object.entries(described ?? {}).map(([key, item]) => [key, resolve(item)])) {
    const value = headers[name.toLowerCase()];
    assert.ok(value !== undefined || !header.required, `${name} is missing`);
    assert.ok(value === undefined || !faultsOf(header.schema, value), `${name}: ${value}`);
  }
  const known = [...COMMON_HEADERS, ...Object.keys(described ?? {}).map((name) => name.toLowerCase())];
  assert.deepEqual(Object.keys(headers).filter((name) => !known.includes(name)), [], "headers that are not described");
}

function checkBody(response, name, answer, seen) {
  const type = answer.headers["content-type"];
  if (!response.content) return assert.equal(answer.body, "");
  const media = response.content[type] ?? response.content["*/*"] ?? (answer.body ? assert.fail(`media type ${type}`) : { schema: {} });
  const value = type === "application/json" && answer.body ? JSON.parse(answer.body) : answer.body;
  assert.equal(faultsOf(media.schema, value), null, answer.body);
  for (const [properties, data] of objectsOf(media.schema, value, false))
    for (const key of Object.keys(data)) seen.set(properties, (seen.get(properties) ?? new Set()).add(key));
  const example = media.examples?.[name];
  if (example) assert.deepEqual(steady(value), steady(example.value));
}

/** A request that is answered 2xx keeps to what is said of requests. */
function checkRequest(path, operation, { target, headers, body }) {
  const parameters = [...(path.parameters ?? []), ...(operation.parameters ?? [])].map(resolve).filter((item) => item.in === "query");
  const keys = [...new URL(target, "http://localhost").searchParams.keys()];
  assert.deepEqual(keys.filter((key) => !parameters.some((item) => item.name === key)), [], "parameters that are not described");
  assert.deepEqual(parameters.filter((item) => item.required && !keys.includes(item.name)), []);
  if (headers["Content-Type"] === "application/json")
    assert.equal(faultsOf(operation.requestBody.content["application/json"].schema, JSON.parse(body)), null, body);
}

/** What describes a target: its whole path, or the template that says most of it. */
const weight = (name) => 2 * name.split("{")[0].length + !name.includes("{");
const TEMPLATES = Object.keys(document.paths).sort((a, b) => weight(b) - weight(a) || b.length - a.length)
  .map((name) => [new RegExp(`^${name.replaceAll(".", "\\.").replace(/\{\w+\}/g, ".*")}$`), name]);
const templateOf = (target) => TEMPLATES.find(([pattern]) => pattern.test(target.replace(/^https?:\/\/[^/]*|\?.*/g, "")))?.[1];

function isDescribed(method, name, status, type) {
  const path = document.paths[name];
  const listed = METHODS.find((key) => key.toUpperCase() === method && path[key]);
  if ((ANY_REQUEST.includes(status) && !type) || (!listed && Number(status) === path["x-other-methods"])) return true;
  // What is judged before the method is the same for all.
  const { responses } = path[listed ?? (path.get ? "get" : "post")];
  const response = listed || status >= "400" ? resolve(responses[status]) : undefined;
  return response && (!type || method === "HEAD" || status === "304" || response.content?.[type] || response.content?.["*/*"]);
}

test("what the tests of the API are answered is described", (t) => {
  const files = TRAFFIC ? readdirSync(TRAFFIC) : [];
  if (!files.length) return t.skip("none of them has run");
  const unknown = new Set();
  for (const file of files)
    for (const [, method, target, status, type] of readFileSync(`${TRAFFIC}/${file}`, "utf8").matchAll(/^(\S+) (\/\S*|https?:\S*) (\d+) (.*)$/gm))
      if (!isDescribed(method, templateOf(target), status, type)) unknown.add(`${method} ${templateOf(target)} ${status} ${type}, as to ${file}`);
  assert.deepEqual([...unknown], []);
});

test("the description and the device say the same", async (t) => {
  const limits = { "limits/updateBytes": 1000000, "limits/queuesPerClient": 100 };
  const device = await startDevice(ZARK_HOST, PROJECT, { port: 80, httpsPort: 443, ...limits });
  t.after(() => device.stop());
  await setData(device, "settings:webserver/changePassword", { name: "admin", oldPassword: "", newPassword: "open sesame" }, "activate");
  const seen = new Map();
  let queue;
  const before = {
    "pollQueue value": () => setData(device, "player:player/volume", 31),
    "pollQueue rows": () => setData(device, "player:player/playlistRemove", { index: 2 }, "activate"),
  };
  const { signed } = document.paths["/api/getData"].get.responses["200"]["x-requests"];
  const makeQueue = document.paths["/api/event/modifyQueue"].post.responses["200"]["x-requests"].new;

  for (const [name, path] of Object.entries(document.paths).filter(([, item]) => !item["x-unprovoked"])) {
    let target;
    for (const method of METHODS.filter((key) => path[key])) {
      const operation = path[method];
      const texts = Object.values(operation.responses).flatMap((item) => Object.values(resolve(item)["x-requests"] ?? {}));
      const firstText = texts.find((text) => TARGET.test(text));
      const prepared = (text, first) => parse(text.replace(QUEUE, queue).replace("/var/lib/zark", device.state), first);
      for (const [status, response] of Object.entries(operation.responses).map(([key, item]) => [key, resolve(item)])) {
        assert.ok(response["x-requests"] || response["x-unprovoked"], `${method} ${name} ${status} has no request`);
        for (const [example, text] of Object.entries(response["x-requests"] ?? {})) await t.test(`${method} ${name}: ${status} ${example}`, async () => {
          if (!queue && text.includes(QUEUE)) queue = JSON.parse((await send("POST", parse(makeQueue))).body);
          const request = prepared(text, prepared(firstText));
          await before[`${operation.operationId} ${example}`]?.();
          let answer;
          for (let i = response["x-repeats"] ?? 1; i > 0 && answer?.status !== Number(status); --i) answer = await send(method.toUpperCase(), request);
          assert.equal(answer.status, Number(status), answer.body);
          if (status === "401") await send("GET", parse(signed)); // Ends the holding back of wrong signatures.
          checkHeaders(response.headers, answer.headers);
          if (method !== "head") checkBody(response, example, answer, seen);
          if (status === "200") checkRequest(path, operation, request);
        });
      }
      target ??= prepared(firstText).target;
    }
    await t.test(`${name}: other methods`, async () => {
      const answer = await send("PUT", { target, headers: {}, body: "" });
      assert.equal(answer.status, path["x-other-methods"]);
      const listed = METHODS.filter((key) => path[key]).join(", ").toUpperCase();
      if (answer.status === 405) assert.equal(answer.headers.allow, listed);
    });
  }

  await t.test("every described field was in an answer", () => {
    const missing = new Set();
    for (const path of Object.values(document.paths))
      for (const method of METHODS.filter((key) => path[key]))
        for (const response of Object.values(path[method].responses).map(resolve))
          for (const media of Object.values(response.content ?? {}))
            for (const [properties] of objectsOf(media.schema, undefined, true))
              for (const key of Object.keys(properties)) if (!seen.get(properties)?.has(key)) missing.add(key);
    assert.deepEqual([...missing], []);
  });

  await t.test("every endpoint of the sources is described", () => {
    const folder = `${PROJECT}/src/modules/webserver`;
    const sources = ["WebserverWorker", "responders/ApiResponder", "responders/FirmwareUpdateResponder"];
    const names = sources.flatMap((name) => [...readFileSync(`${folder}/${name}.cpp`, "utf8").matchAll(/"(\/[\w/]+)"/g)].map(([, path]) => path));
    const events = [...readFileSync(`${folder}/responders/EventResponder.cpp`, "utf8").matchAll(/operation == "(\w+)"/g)].map(([, name]) => `/api/event/${name}`);
    assert.ok(names.length > 8 && events.length >= 2);
    const described = Object.keys(document.paths);
    const unknown = [...names, ...events].filter((name) => name !== "/webclient/" && !described.some((path) => path.startsWith(name)));
    assert.deepEqual(unknown, []);
  });
});
