// A network of one's own: the device's ports are free, and it has an address, 192.0.2.1, from which a client is no
// client on the device.

import { spawnSync } from "node:child_process";

const SETUP = "ip link set lo up && ip link add zark0 type veth peer name zark1 && ip link set zark0 up"
  + ' && ip address add 192.0.2.1/24 dev zark0 && exec "$@"';

/** Starts this program again inside, unless it is there, and ends with it. */
export function enterNamespace() {
  if (process.env.IN_NAMESPACE) return;
  const user = process.getuid() === 0 ? [] : ["--map-root-user"];
  const inside = ["--net", "sh", "-c", SETUP, "sh", process.execPath, "--test", process.argv[1]];
  const { status } = spawnSync("unshare", [...user, ...inside], { stdio: "inherit", env: { ...process.env, IN_NAMESPACE: 1 } });
  process.exit(status ?? 1);
}
