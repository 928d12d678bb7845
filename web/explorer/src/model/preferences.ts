import { effect, signal, type Signal } from "@preact/signals";

const PREFIX = "zark.explorer.";

function stored<T>(key: string): T | undefined {
  try {
    const text = localStorage.getItem(PREFIX + key);
    return text === null ? undefined : (JSON.parse(text) as T);
  } catch {
    return undefined; // Storage is switched off, or holds what another version wrote.
  }
}

/** A choice of the reader's that outlives the page, where the browser keeps anything at all. Never for secrets. */
export function preference<T>(key: string, initial: T): Signal<T> {
  const choice = signal<T>(stored<T>(key) ?? initial);
  effect(() => {
    const text = JSON.stringify(choice.value);
    try {
      localStorage.setItem(PREFIX + key, text);
    } catch {
      // Kept for this page alone.
    }
  });
  return choice;
}

/** Paths that the reader chose, in their order. */
function pathSet(key: string, initial: string[]) {
  const paths = preference<string[]>(key, initial);
  return {
    paths,
    has: (path: string) => paths.value.includes(path),
    toggle(path: string): void {
      paths.value = this.has(path) ? paths.value.filter((each) => each !== path) : [...paths.value, path];
    },
  };
}

export const pins = pathSet("pins", []);
/** Nodes whose numbers are drawn over time. */
export const charted = pathSet("chart", []);

export type Theme = "auto" | "light" | "dark";
export const theme = preference<Theme>("theme", "auto");
effect(() => {
  document.documentElement.dataset.theme = theme.value;
});
