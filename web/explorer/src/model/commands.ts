import type { Typed } from "../device/types.js";
import { toJson } from "./values.js";

const quoted = (text: string): string => (/^[\w@%+=:,./-]+$/.test(text) ? text : `'${text.replaceAll("'", "'\\''")}'`);

const getUrl = (origin: string, path: string): string =>
  `${origin}/api/getData?path=${encodeURIComponent(path).replaceAll("%3A", ":").replaceAll("%2F", "/")}&roles=@all`;

/** A line that reads a node with curl. */
export const curlLine = (origin: string, path: string): string => `curl ${quoted(getUrl(origin, path))}`;

/** A line that reads a node with the device's own command-line client. */
export const zarkctlLine = (origin: string, path: string): string =>
  `zarkctl --url ${quoted(origin)} get ${quoted(path)}`;

/** The value as text: a text itself, anything else as JSON. */
export const valueText = (typed: Typed | null): string =>
  typeof typed?.value === "string" ? typed.value : toJson(typed?.value ?? null);
