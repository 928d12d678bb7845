const TIME_STEPS = [1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800];

export interface Scale {
  low: number;
  high: number;
  ticks: number[];
}

/** A step of 1, 2 or 5 times a power of ten that divides `range` into at most `most` parts. */
function niceStep(range: number, most: number): number {
  const power = 10 ** Math.floor(Math.log10(range / most));
  return power * ([1, 2, 5, 10].find((factor) => factor * power * most >= range) ?? 10);
}

/** Bounds that are ticks themselves, around all the values; a range of its own where there is none. */
export function scaleOf(values: number[], most: number): Scale {
  let low = values.reduce((a, b) => Math.min(a, b), Infinity);
  let high = values.reduce((a, b) => Math.max(a, b), -Infinity);
  if (low > high) [low, high] = [0, 1];
  if (low === high) [low, high] = [low - (Math.abs(low) * 0.1 || 1), high + (Math.abs(high) * 0.1 || 1)];
  const step = niceStep(high - low, most);
  const first = Math.floor(low / step);
  const last = Math.ceil(high / step);
  // Multiples rather than sums, which would gather the errors of all steps before.
  const ticks = Array.from({ length: last - first + 1 }, (_, i) => Number(((first + i) * step).toPrecision(12)));
  return { low: first * step, high: last * step, ticks };
}

/** Round moments of the reader's clock between two times (seconds since 1970), at most so many. */
export function timeTicks(from: number, to: number, most: number): number[] {
  const step = TIME_STEPS.find((each) => (to - from) / each <= most) ?? 3600;
  const ticks: number[] = [];
  for (let time = Math.ceil(from / step) * step; time <= to; time += step) ticks.push(time);
  return ticks;
}
