import { signal } from "@preact/signals";

import { attempt } from "../device/problems.js";
import { t } from "../i18n/index.js";
import { nameOf, ROOT } from "../model/paths.js";
import { formatValue } from "../model/values.js";
import { type Child, childrenOf } from "./children.js";

const FRESH_MS = 30_000;

/** A node as the search knows it, in the order of the tree. */
export interface Entry {
  child: Child;
  depth: number;
  text: string;
}

/** A line of the result: a node that fits, or a container on the way to one. */
export interface Hit {
  child: Child;
  depth: number;
  fits: boolean;
}

interface Found {
  query: string;
  hits: Hit[];
  /** How many of the hits fit. */
  count: number;
}

export const query = signal("");
export const found = signal<Found | null>(null);
/** Nodes read so far by the search that is under way; null when none is. */
export const reading = signal<number | null>(null);

let index: Entry[] = [];
let madeAt = -Infinity;
let latest = 0; // The number of the last query.
let making: { ending: AbortController; made: Promise<unknown> } | null = null;

const textOf = (child: Child): string =>
  `${child.path} ${nameOf(child.path)} ${child.title ?? ""} ${formatValue(child.value, child.edit)}`.toLowerCase();

async function readBelow(path: string, depth: number, signal: AbortSignal): Promise<Entry[]> {
  const entries: Array<Entry | Promise<Entry[]>> = [];
  for await (const children of childrenOf(path, signal)) {
    reading.value = (reading.value ?? 0) + children.length;
    for (const child of children) {
      entries.push({ child, depth, text: textOf(child) });
      // A container that this page may not read has no hits; the search goes on with the others.
      if (child.type === "container") entries.push(readBelow(child.path, depth + 1, signal).catch(() => []));
    }
  }
  return (await Promise.all(entries)).flat();
}

async function makeIndex(signal: AbortSignal): Promise<void> {
  reading.value = 0;
  try {
    const entries = await readBelow(ROOT, 0, signal);
    if (signal.aborted) return;
    index = entries;
    madeAt = Date.now();
  } finally {
    if (!signal.aborted) reading.value = null;
  }
}

/** The reading of the tree under way, or a new one: whoever types on does not begin it again. */
function indexed(): Promise<unknown> {
  if (making) return making.made;
  const ending = new AbortController();
  const made = attempt(t("search"), () => makeIndex(ending.signal)).finally(() => {
    if (making?.ending === ending) making = null;
  });
  making = { ending, made };
  return made;
}

/** Every word must be in the path, the title or the value. Containers on the way to a hit come with it. */
function pick(entries: Entry[], words: string[]): Hit[] {
  const hits: Hit[] = [];
  // From the end, where a container comes after what is inside it: whether the next one at this depth is on the way.
  const onTheWay: boolean[] = [];
  for (const { child, depth, text } of [...entries].reverse()) {
    const fits = words.every((word) => text.includes(word));
    if (!fits && !onTheWay[depth]) continue;
    onTheWay[depth] = false;
    if (depth > 0) onTheWay[depth - 1] = true;
    hits.push({ child, depth, fits });
  }
  return hits.reverse();
}

/** Looks for the words in the whole tree; an empty query ends the search. */
export async function search(text: string): Promise<void> {
  query.value = text;
  const words = text.toLowerCase().split(/\s+/).filter(Boolean);
  const turn = ++latest;
  if (words.length === 0) {
    making?.ending.abort();
    making = null;
    reading.value = null;
    found.value = null;
    return;
  }
  if (Date.now() - madeAt > FRESH_MS) await indexed();
  if (turn !== latest) return;
  const hits = pick(index, words);
  found.value = { query: text, hits, count: hits.filter((hit) => hit.fits).length };
}

/** What was read may have become other with the reader's rights. */
export function forgetIndex(): void {
  madeAt = -Infinity;
}
