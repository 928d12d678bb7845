import { Device } from "@zark/client";
import { signal } from "@preact/signals";

/** The device that served this page. */
export const device = new Device(location.origin);
/** The same for writing in secret: it sends nothing that is not encrypted, and so needs somebody to be signed in. */
const encrypting = new Device(location.origin, { encrypt: true });

/** Whether the device answers at present. */
export const online = signal(device.online.get());
device.online.on(() => {
  online.value = device.online.get();
});

/** Whether this browser runs on the device itself, which trusts such clients. */
export const isLocal = /^(localhost|127\.[\d.]+|\[::1\])$/.test(location.hostname);

/** What to write and to run commands with: over plain HTTP nobody can read along, once somebody has signed in. */
export const writer = (): Device => (device.user !== null && location.protocol === "http:" ? encrypting : device);

export function signFrom(name: string, password: string): void {
  device.signIn(name, password);
  encrypting.signIn(name, password);
}

export function signNoMore(): void {
  device.signOut();
  encrypting.signOut();
}
