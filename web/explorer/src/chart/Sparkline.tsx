import { useEffect } from "preact/hooks";
import { useSignal } from "@preact/signals";

import type { LiveNode } from "../device/live.js";

const WIDTH = 240;
const HEIGHT = 48;
const SPAN_S = 120;

/** The last two minutes of a node that is shown anyway, without axes. */
export function Sparkline({ node, from = NaN }: { node: LiveNode; from?: number }) {
  const now = useSignal(Date.now() / 1000);
  useEffect(() => {
    const timer = setInterval(() => (now.value = Date.now() / 1000), 1000);
    return () => clearInterval(timer);
  }, [now]);
  node.changes.value;
  const { times, values } = node.samples.from(now.value - SPAN_S);
  const low = Math.min(...values, Number.isNaN(from) ? Infinity : from);
  const range = Math.max(...values) - low || 1;
  const x = (time: number) => Math.max(0, WIDTH - ((now.value - time) * WIDTH) / SPAN_S);
  const y = (value: number) => HEIGHT - 3 - ((value - low) / range) * (HEIGHT - 6);
  // A value holds until the next one: steps, the last of which goes on until now.
  const steps = values.map(
    (value, i) =>
      `${i ? `H${x(times[i] ?? 0).toFixed(1)}V` : `M${x(times[0] ?? 0).toFixed(1)} `}${y(value).toFixed(1)}`,
  );
  return (
    <svg class="sparkline" viewBox={`0 0 ${WIDTH} ${HEIGHT}`} preserveAspectRatio="none" aria-hidden="true">
      {values.length > 0 && <path d={`${steps.join("")}H${WIDTH}`} />}
    </svg>
  );
}
