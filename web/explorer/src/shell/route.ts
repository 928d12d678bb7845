import { signal } from "@preact/signals";

/** Where the page is: one of its views, or a node of the tree. */
export type Route = { view: "dashboard" | "tree" | "chart" | "machine" } | { view: "node"; path: string };

const VIEWS = ["tree", "chart", "machine"] as const;

/** `#/player:player/volume` is a node, since every path has a colon; anything else names a view. */
function routeOf(hash: string): Route {
  const text = hash.replace(/^#\/?/, "");
  if (text.includes(":")) return { view: "node", path: pathOf(text) };
  return { view: VIEWS.find((view) => view === text) ?? "dashboard" };
}

/** Browsers escape some characters of a fragment; a path's own escapes stay as they are. */
const pathOf = (text: string): string => text.replaceAll("%3A", ":").replaceAll("%3a", ":");

export const hrefOf = (route: Route): string =>
  route.view === "node" ? `#/${route.path}` : `#/${route.view === "dashboard" ? "" : route.view}`;

export const hrefOfNode = (path: string): string => hrefOf({ view: "node", path });

export const route = signal<Route>(routeOf(location.hash));
addEventListener("hashchange", () => {
  route.value = routeOf(location.hash);
});

export function go(to: Route): void {
  location.hash = hrefOf(to).slice(1);
}
