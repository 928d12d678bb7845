import { signal } from "@preact/signals";

import { writer } from "../device/connection.js";
import { followedNode } from "../device/live.js";
import { notify } from "../device/notices.js";
import { attempt } from "../device/problems.js";
import type { Roles, Typed } from "../device/types.js";
import { t } from "../i18n/index.js";
import { preference } from "../model/preferences.js";
import { formatValue, sameValue } from "../model/values.js";
import { riskOf, type Risk } from "./risks.js";

/** One value that becomes another. */
export interface Change {
  path: string;
  title: string;
  from: Typed | null;
  to: Typed;
  edit: Roles["edit"];
}

interface DoneChange extends Change {
  time: number;
  /** Took something back: nothing that follows is one change with it. */
  isUndo: boolean;
}

const REMEMBERED = 200;
/** Writes of one node within this time count as one change: a slider writes many times on its way. */
const ONE_CHANGE_MS = 2_000;

/** Whether edits are collected to be applied together, rather than written one by one. */
export const collecting = preference("collecting", false);
export const staged = signal<ReadonlyMap<string, Change>>(new Map());
/** What this page has written, newest first. */
export const done = signal<DoneChange[]>([]);
export const isPanelOpen = signal(false);
export const applying = signal(false);
/** A change that waits for the reader to accept what it may cost. */
export const risky = signal<{ change: Change; risk: Risk } | null>(null);

export function stage(change: Change): void {
  const next = new Map(staged.value);
  if (change.from && sameValue(change.from.value, change.to.value)) next.delete(change.path);
  else next.set(change.path, change);
  staged.value = next;
}

export function unstage(path: string): void {
  const next = new Map(staged.value);
  next.delete(path);
  staged.value = next;
}

export function discardAll(): void {
  staged.value = new Map();
}

function remember(change: Change, isUndo: boolean): DoneChange {
  const [last] = done.value;
  const isNear = last && last.path === change.path && Date.now() - last.time < ONE_CHANGE_MS;
  const goesOn = isNear && !isUndo && !last.isUndo;
  const entry = { ...change, from: goesOn ? last.from : change.from, time: Date.now(), isUndo };
  done.value = [entry, ...done.value.slice(goesOn ? 1 : 0)].slice(0, REMEMBERED);
  return entry;
}

const arrow = ({ from, to, edit }: Change): string => `${formatValue(from, edit) || "–"} → ${formatValue(to, edit)}`;

/** Writes the value now. False when the device did not take it, which the reader has then been told. */
export async function write(change: Change, quiet = false, isUndo = false): Promise<boolean> {
  const node = followedNode(change.path);
  // What is collected may be old by now.
  const written = { ...change, from: node?.roles.peek()?.value ?? change.from };
  const answer = await attempt(change.title, async () => {
    await writer().setData(change.path, change.to);
    return true;
  });
  if (!answer) return false;
  node?.wrote(change.to);
  const entry = remember(written, isUndo);
  const action = { label: t("undo"), run: () => void undo(entry) };
  if (!quiet) notify({ id: change.title, kind: "done", text: `${change.title}: ${arrow(entry)}`, action });
  return true;
}

/** What an editor calls with a new value: collected, asked about, or written, as the reader chose. */
export async function propose(change: Change, quiet = false): Promise<boolean> {
  const risk = riskOf(change.path);
  if (collecting.value) {
    stage(change);
    return true;
  }
  if (!risk) return write(change, quiet);
  risky.value = { change, risk };
  return false;
}

export async function undo({ path, title, from, to, edit }: Change): Promise<void> {
  if (!from) return;
  const change = { path, title, from: to, to: from, edit };
  const risk = riskOf(path);
  if (risk) risky.value = { change, risk };
  else await write(change, false, true);
}

/** Writes all that is staged, what may cut the connection last. Stops at the first refusal; the rest stays staged. */
export async function applyAll(): Promise<void> {
  applying.value = true;
  const changes = [...staged.value.values()].sort((a, b) => Number(!!riskOf(a.path)) - Number(!!riskOf(b.path)));
  for (const change of changes) {
    if (!(await write(change, true))) break;
    unstage(change.path);
  }
  applying.value = false;
}
