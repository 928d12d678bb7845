import { DeviceError } from "@zark/client";
import { computed, signal } from "@preact/signals";

import { device, isLocal, signFrom, signNoMore } from "./connection.js";
import { followed } from "./live.js";
import type { Permission, Roles } from "./types.js";

const CHANGE_PASSWORD = "settings:webserver/changePassword";
const AUTH_MODE = "settings:webserver/authMode";

/** Who has signed in on this page; null for nobody. Reloading the page forgets it. */
export const user = signal<string | null>(null);
/** Grows when the rights of this page have changed: what was read before may read otherwise now. */
export const rights = signal(0);
/** Wrong passwords since the last right one: the device holds back the answer to each further one for longer. */
export const wrongPasswords = signal(0);

export type Dialog = "signIn" | "password" | null;
export const sessionDialog = signal<Dialog>(null);
export const askToSignIn = (): void => {
  sessionDialog.value = "signIn";
};

/** Seconds that the answer to the next wrong password may be held back, at most: none, then up to 4 s more each time. */
export const longestHold = (wrong: number): number => Math.min(wrong * 4, 10);

/** The device lets everybody change the password as long as there is none. */
export const isWithoutPassword = computed(() => followed(CHANGE_PASSWORD).value?.permission === "open");

function settle(name: string | null): void {
  user.value = name;
  rights.value++;
}

/** False when the device refuses what was signed, which makes it hold back the answers to further wrong passwords. */
async function isAccepted(work: Promise<void>): Promise<boolean> {
  try {
    await work;
  } catch (error) {
    if (!(error instanceof DeviceError) || (error.kind !== "refused" && error.kind !== "throttled")) throw error;
    wrongPasswords.value++;
    return false;
  }
  wrongPasswords.value = 0;
  return true;
}

/** Signs requests from now on, if the device accepts the password; false when it does not. */
export async function signIn(name: string, password: string): Promise<boolean> {
  if (!(await isAccepted(signFrom(name, password, CHANGE_PASSWORD)))) return false;
  settle(name);
  return true;
}

export function signOut(): void {
  signNoMore();
  settle(null);
}

/** Changes a password, and signs in with the new one; false when the device does not accept the old one's signature. */
export async function changePassword(name: string, oldPassword: string, newPassword: string): Promise<boolean> {
  return (await isAccepted(device.changePassword(name, oldPassword, newPassword))) && signIn(name, newPassword);
}

export interface Caller {
  local: boolean;
  signedIn: boolean;
  /** The device's authentication mode; where it is not known, the usual one. */
  mode: string;
}

export const caller = computed<Caller>(() => ({
  local: isLocal,
  signedIn: user.value !== null,
  mode: (followed(AUTH_MODE).value?.value?.value as { mode?: string } | undefined)?.mode ?? "writes",
}));

export type ReadOnlyReason = "fixed" | "signIn" | "internal";

const needsSignature = (permission: Permission | null | undefined, who: Caller): boolean =>
  permission !== "open" && who.mode !== "off" && !who.signedIn;

/** Why this page may not write the node, or run it; null when it may. */
export function whyReadOnly(roles: Partial<Roles>, who: Caller): ReadOnlyReason | null {
  if (roles.type === "value" && !roles.modifiable) return "fixed";
  if (who.local) return null;
  if (roles.permission === "internal") return "internal";
  return needsSignature(roles.permission, who) ? "signIn" : null;
}
