/**
 * What a program does about an error, whatever its name:
 *
 * - `refused`: a signature is missing, wrong, or of somebody who may not.
 * - `throttled`: the same, and the device held its answer back because of earlier wrong signatures.
 * - `notFound`: no such node or endpoint, or one that is not shown outside the device.
 * - `outOfRange`: a value or a row beyond its bounds.
 * - `invalid`: a value of another type or none of the options, an unknown role, a malformed request.
 * - `readOnly`: clients may not set this node.
 * - `unsupported`: this kind of node, or this device, does not do that.
 * - `outdated`: the list has changed since the version asked for.
 * - `tooLarge`: more than the device accepts.
 * - `busy`: not now; try again later.
 * - `gone`: what should have answered no longer exists.
 * - `offline`: the device could not be reached, or not to the end.
 * - `failed`: the device could not do it; the message says why.
 */
export type ErrorKind =
  | "refused" | "throttled" | "notFound" | "outOfRange" | "invalid" | "readOnly" | "unsupported" | "outdated"
  | "tooLarge" | "busy" | "gone" | "offline" | "failed";

// The device's names of each kind, and the HTTP statuses of answers that have no name.
const kinds: Array<[ErrorKind, names: string]> = [
  ["refused", "401 403"],
  ["notFound", "notFound 404"],
  ["outOfRange", "outOfRange invalidRange"],
  ["invalid", "badRequest invalidType notAnOption unknownRole 400"],
  ["readOnly", "notModifiable"],
  ["unsupported", "notSupported invalidMethod unsupportedContentType 405 415 501"],
  ["outdated", "outdatedVersion"],
  ["tooLarge", "413"],
  ["busy", "409 429 503"],
  ["gone", "abandoned"],
  ["offline", "0 502 504"],
];

function kindOf(name: string): ErrorKind | undefined {
  return kinds.find(([, names]) => names.split(" ").includes(name))?.[0];
}

/** An answer that says no, or none. A request that its own AbortSignal ends fails with that signal's reason instead. */
export class DeviceError extends Error {
  /** Of the HTTP answer; 0 when there was none. */
  readonly status: number;
  readonly kind: ErrorKind;
  /** The device's name of the error, such as `storeFailed`; for programs. Empty when it gave none. */
  override readonly name: string;
  /** How long the device held the refusal back, in milliseconds. */
  readonly heldBack: number;

  constructor(status: number, name: string, message: string, options: { kind?: ErrorKind; heldBack?: number; cause?: unknown } = {}) {
    super(message, options);
    this.status = status;
    this.name = name;
    this.heldBack = options.heldBack ?? 0;
    this.kind = options.kind ?? kindOf(name) ?? kindOf(String(status)) ?? "failed";
  }
}
