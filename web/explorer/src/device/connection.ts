import { Device } from "@zark/client";
import { signal } from "@preact/signals";

/** The device that served this page. */
export const device = new Device(location.origin);
/** The same for writing in secret once somebody has signed in: it sends no value that is not encrypted. */
let secret: Device | null = null;

/** Whether the device answers at present. */
export const online = signal(device.online.get());
device.online.on(() => {
  online.value = device.online.get();
});

/** Whether this browser runs on the device itself, which trusts such clients. */
export const isLocal = /^(localhost|127\.[\d.]+|\[::1\])$/.test(location.hostname);

/** What to write and to run commands with: over plain HTTP nobody can read along, once somebody has signed in. */
export const writer = (): Device => (secret && location.protocol === "http:" ? secret : device);

/**
 * Signs from now on, once the device has accepted a first request; rejects with its refusal. One request, because each
 * wrong signature makes the device hold back the answers to all that follow.
 */
export async function signFrom(user: string, password: string, probe: string): Promise<void> {
  const trial = new Device(location.origin, { encrypt: true, credentials: { user, password } });
  await trial.getData(probe, ["permission"]);
  secret = trial;
  device.signIn(user, password);
}

export function signNoMore(): void {
  secret = null;
  device.signOut();
}
