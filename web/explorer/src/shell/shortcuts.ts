import { signal } from "@preact/signals";

import { isPanelOpen } from "../changes/changes.js";
import type { MessageKey } from "../i18n/index.js";
import { charted, pins } from "../model/preferences.js";
import { parentOf, ROOT } from "../model/paths.js";
import { go, route } from "./route.js";

export const isHelpOpen = signal(false);

export interface Shortcut {
  /** One key, or several one after the other. */
  keys: string;
  what: MessageKey;
  run: () => void;
}

const onNode = (act: (path: string) => void) => () => {
  if (route.value.view === "node") act(route.value.path);
};

function focusSearch(): void {
  if (route.value.view !== "tree" && route.value.view !== "node") go({ view: "tree" });
  // The field comes with the view.
  setTimeout(() => document.getElementById("search")?.focus(), 50);
}

const focusEditor = (): void =>
  document.querySelector<HTMLElement>(".node .editor :is(input, select, textarea, button)")?.focus();

export const SHORTCUTS: Shortcut[] = [
  { keys: "?", what: "help", run: () => (isHelpOpen.value = true) },
  { keys: "/", what: "search", run: focusSearch },
  { keys: "g d", what: "dashboard", run: () => go({ view: "dashboard" }) },
  { keys: "g t", what: "tree", run: () => go({ view: "tree" }) },
  { keys: "g c", what: "chart", run: () => go({ view: "chart" }) },
  { keys: "g m", what: "machine", run: () => go({ view: "machine" }) },
  { keys: "e", what: "keysEdit", run: focusEditor },
  { keys: "p", what: "keysPin", run: onNode((path) => pins.toggle(path)) },
  { keys: "c", what: "keysChart", run: onNode((path) => charted.toggle(path)) },
  {
    keys: "u",
    what: "keysUp",
    run: onNode((path) => go(parentOf(path) === ROOT ? { view: "tree" } : { view: "node", path: parentOf(path) })),
  },
  { keys: "s", what: "changes", run: () => (isPanelOpen.value = true) },
];

const isTyping = (target: EventTarget | null): boolean =>
  target instanceof HTMLElement &&
  target.matches("input:not([type=checkbox]):not([type=range]), select, textarea, dialog *");

const SEQUENCE_MS = 1000;

/** A menu closes when the reader turns to something else. */
export function closeMenus(): void {
  const close = (except: Node | null) => {
    for (const menu of document.querySelectorAll("details.menu[open]"))
      if (!menu.contains(except)) menu.removeAttribute("open");
  };
  addEventListener("click", (event) => close(event.target as Node));
  addEventListener("keydown", (event) => event.key === "Escape" && close(null));
}

/** Listens for the shortcuts, except where somebody types. */
export function listenForShortcuts(): void {
  let first = { key: "", time: 0 };
  addEventListener("keydown", (event) => {
    if (event.ctrlKey || event.altKey || event.metaKey || isTyping(event.target)) return;
    const goesOn = Date.now() - first.time < SEQUENCE_MS;
    const keys = goesOn && first.key === "g" ? `g ${event.key}` : event.key;
    first = { key: event.key, time: Date.now() };
    const shortcut = SHORTCUTS.find((each) => each.keys === keys);
    if (!shortcut) return;
    event.preventDefault();
    shortcut.run();
  });
}
