import { DeviceError } from "@zark/client";

import { device } from "./connection.js";

/** The bytes of a stream as they come. Rejects with a DeviceError when the device has no such stream, or not for us. */
export async function openStream(path: string, signal: AbortSignal): Promise<ReadableStream<Uint8Array>> {
  const reply = await fetch(device.streamUrl(path), { signal, cache: "no-store" });
  if (!reply.ok || !reply.body) throw new DeviceError(reply.status, "", await reply.text());
  return reply.body;
}
