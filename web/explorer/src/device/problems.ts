import { DeviceError } from "@zark/client";

import { type MessageKey, t } from "../i18n/index.js";
import { notify } from "./notices.js";
import { askToSignIn, user } from "./session.js";

const OWN_WORDS: Record<string, MessageKey> = {
  offline: "problemOffline",
  gone: "problemGone",
  throttled: "problemThrottled",
  notFound: "problemNotFound",
};

const isAbort = (error: unknown): boolean => error instanceof Error && error.name === "AbortError";

/** A sentence for people. What only the device knows is told in the device's words. */
export function describe(error: unknown): string {
  if (!(error instanceof DeviceError)) return error instanceof Error ? error.message : String(error);
  if (error.kind === "refused") return t(user.value === null ? "problemSignIn" : "problemRefused");
  const own = OWN_WORDS[error.kind];
  return own ? t(own) : error.message;
}

function report(subject: string, error: unknown): void {
  const mustSignIn = error instanceof DeviceError && error.kind === "refused" && user.value === null;
  notify({
    id: subject,
    kind: "problem",
    text: `${subject}: ${describe(error)}`,
    ...(mustSignIn ? { action: { label: t("signIn"), run: askToSignIn } } : {}),
  });
}

/**
 * The one way of asking the device for something that may fail: what it throws becomes a notice that begins with
 * `subject`, and the answer is undefined then. Work that was given up tells nothing.
 */
export async function attempt<T>(subject: string, work: () => Promise<T>): Promise<T | undefined> {
  try {
    return await work();
  } catch (error) {
    if (!isAbort(error)) report(subject, error);
    return undefined;
  }
}
