// JSON whose 64-bit integers keep every digit: those that a number cannot hold are bigints, in both directions.

// Texts that no device can know, so that none of its own is taken for an integer.
const mark = `int${Math.random().toString(36).slice(2)}:`;

const manyDigits = /\d{17}|9\d{15}/;
const stringOrNumber = /"(?:[^"\\]|\\.)*"|-?\d+(?:\.\d+)?(?:[eE][+-]?\d+)?/g;
const longInteger = /^-?[1-9]\d{15,}$/;
const markedInteger = new RegExp(`"${mark}(-?\\d+)"`, "g");

function revive(_key: string, value: unknown): unknown {
  if (typeof value === "string" && value.startsWith(mark)) {
    const digits = value.slice(mark.length);
    return Number.isSafeInteger(Number(digits)) ? Number(digits) : BigInt(digits);
  }
  // A double may be printed without a fraction; it is no integer for that.
  const typed = value as { type?: unknown; value?: unknown } | null;
  if (typed?.type === "double" && typeof typed.value === "bigint") typed.value = Number(typed.value);
  return value;
}

/** Throws SyntaxError for what is no JSON. */
export function parseJson(text: string): unknown {
  if (!manyDigits.test(text)) return JSON.parse(text);
  const marked = text.replace(stringOrNumber, (token) => (longInteger.test(token) ? `"${mark}${token}"` : token));
  return JSON.parse(marked, revive);
}

/** What JSON has no form for (a function, undefined) is null. */
export function formatJson(value: unknown): string {
  const text = JSON.stringify(value, (_key, item) => (typeof item === "bigint" ? mark + item : item)) ?? "null";
  return text.replace(markedInteger, "$1");
}
