import { signal } from "@preact/signals";

/** Something to tell the reader, with at most one thing to do about it. */
export interface Notice {
  /** A later notice of the same id takes the place of this one. */
  id: string;
  kind: "problem" | "done";
  text: string;
  action?: { label: string; run: () => void };
}

const SHOWN_MS = { problem: 12_000, done: 6_000 };

export const notices = signal<Notice[]>([]);
const timers = new Map<string, ReturnType<typeof setTimeout>>();

export function dismiss(id: string): void {
  clearTimeout(timers.get(id));
  timers.delete(id);
  notices.value = notices.value.filter((each) => each.id !== id);
}

export function notify(notice: Notice): void {
  dismiss(notice.id);
  notices.value = [...notices.value, notice].slice(-4);
  timers.set(
    notice.id,
    setTimeout(() => dismiss(notice.id), SHOWN_MS[notice.kind]),
  );
}
