import type { EditRules, Typed } from "../device/types.js";

/** JSON text with every digit of a bigint, which JSON.stringify refuses. */
export function toJson(value: unknown, indent = ""): string {
  if (typeof value === "bigint") return value.toString();
  if (value === null || typeof value !== "object") return JSON.stringify(value) ?? "null";
  const inner = indent && `${indent}  `;
  const [open, close, parts] = Array.isArray(value)
    ? ["[", "]", value.map((each) => toJson(each, inner))]
    : [
        "{",
        "}",
        Object.entries(value).map(([key, each]) => `${JSON.stringify(key)}:${indent && " "}${toJson(each, inner)}`),
      ];
  if (parts.length === 0) return open + close;
  return indent ? `${open}${inner}${parts.join(`,${inner}`)}${indent}${close}` : open + parts.join(",") + close;
}

export const toPrettyJson = (value: unknown): string => toJson(value, "\n");

export function sameValue(a: unknown, b: unknown): boolean {
  return a === b || toJson(a) === toJson(b);
}

const SIZES = ["B", "KiB", "MiB", "GiB", "TiB"];

export function formatBytes(bytes: number): string {
  let size = bytes;
  let unit = 0;
  for (; Math.abs(size) >= 1024 && unit < SIZES.length - 1; ++unit) size /= 1024;
  return `${unit === 0 ? size : size.toFixed(size < 10 ? 2 : 1)} ${SIZES[unit]}`;
}

export function formatDuration(seconds: number): string {
  const days = Math.floor(seconds / 86400);
  const hours = Math.floor(seconds / 3600) % 24;
  const minutes = Math.floor(seconds / 60) % 60;
  if (days) return `${days} d ${hours} h`;
  if (hours) return `${hours} h ${minutes} min`;
  return minutes ? `${minutes} min` : `${Math.floor(seconds)} s`;
}

export function formatClock(seconds: number): string {
  return `${Math.floor(seconds / 60)}:${String(Math.floor(seconds % 60)).padStart(2, "0")}`;
}

/** Bytes that a Base64 text stands for. */
function base64Length(text: string): number {
  return Math.max(0, Math.floor((text.length * 3) / 4) - (text.endsWith("==") ? 2 : text.endsWith("=") ? 1 : 0));
}

function formatNumber(value: number | bigint, unit: string | undefined): string {
  if (unit === "B" || unit === "bytes") return formatBytes(Number(value));
  const text =
    typeof value === "number" && !Number.isInteger(value) ? String(Number(value.toPrecision(6))) : String(value);
  return unit ? `${text} ${unit}` : text;
}

/** One line for people; what is on and off in their language is the caller's to give. */
export function formatValue(typed: Typed | null | undefined, rules?: EditRules | null, words = ["on", "off"]): string {
  const { type, value } = typed ?? { type: "", value: null };
  if (value === null || value === undefined) return "";
  if (typeof value === "boolean") return words[value ? 0 : 1] ?? "";
  if (typeof value === "number" || typeof value === "bigint") return formatNumber(value, rules?.unit);
  if (type === "bytes" && typeof value === "string") return formatBytes(base64Length(value));
  if (typeof value === "string") return value;
  if (type === "stringList" && Array.isArray(value)) return value.join(", ");
  if (type === "webserverAuthMode") return String((value as { mode?: string }).mode);
  return toJson(value);
}

/** The number of a numeric value, for charts; undefined for anything else. A switch counts as 0 and 1. */
export function asNumber(typed: Typed | null | undefined): number | undefined {
  const value = typed?.value;
  if (typeof value === "boolean") return value ? 1 : 0;
  return typeof value === "number" || typeof value === "bigint" ? Number(value) : undefined;
}
