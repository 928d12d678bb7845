import type { LiveNode } from "../device/live.js";

/** RFC 4180: one line a sample, oldest first. */
export function toCsv(nodes: Array<Pick<LiveNode, "path" | "samples">>): string {
  const lines = nodes.flatMap(({ path, samples }) => {
    const { times, values } = samples.from(0);
    return times.map((time, i) => ({ time, text: `${new Date(time * 1000).toISOString()},${path},${values[i]}` }));
  });
  lines.sort((a, b) => a.time - b.time);
  return ["time,path,value", ...lines.map(({ text }) => text), ""].join("\r\n");
}
