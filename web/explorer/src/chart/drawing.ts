import type { Samples } from "./samples.js";
import { type Scale, scaleOf, timeTicks } from "./scales.js";

export interface Series {
  unit: string;
  colour: string;
  samples: Samples;
}

export interface Look {
  line: string;
  quiet: string;
  font: string;
  language: string;
}

/** Where the curves are, in pixels of the drawing. */
export interface Area {
  left: number;
  right: number;
  top: number;
  bottom: number;
}

interface Window {
  from: number;
  to: number;
}

interface Axis {
  scale: Scale;
  unit: string;
  series: Series[];
}

const LABEL_GAP = 8;
const TIMES_HEIGHT = 24;

const label = ({ unit }: Axis, tick: number): string => `${tick}${unit && ` ${unit}`}`;

function axesOf(series: Series[], { from }: Window, height: number): Axis[] {
  const units = [...new Set(series.map(({ unit }) => unit))];
  return units.map((unit) => {
    const own = series.filter((each) => each.unit === unit);
    const values = own.flatMap(({ samples }) => samples.from(from).values);
    return { unit, series: own, scale: scaleOf(values, Math.max(2, Math.floor((height - TIMES_HEIGHT) / 50))) };
  });
}

/** What is left between the labels of the first two axes. */
function areaOf(pen: CanvasRenderingContext2D, canvas: HTMLCanvasElement, axes: Axis[]): Area {
  const [left = 0, right = 0] = axes
    .slice(0, 2)
    .map((axis) => LABEL_GAP + Math.max(...axis.scale.ticks.map((tick) => pen.measureText(label(axis, tick)).width)));
  return { left, right: canvas.clientWidth - (right || LABEL_GAP), top: 8, bottom: canvas.clientHeight - TIMES_HEIGHT };
}

/** The time at a place of the drawing, in pixels from its left edge; null beside the curves. */
export const timeAt = ({ left, right }: Area, x: number, { from, to }: Window): number | null =>
  x < left || x > right ? null : from + ((x - left) / (right - left)) * (to - from);

/**
 * Draws several series over the same time, and returns where. Those of one unit share an axis; the first two of these are
 * labelled.
 */
export function draw(
  canvas: HTMLCanvasElement,
  series: Series[],
  window: Window,
  look: Look,
  marked: number | null,
): Area | null {
  const pen = canvas.getContext("2d");
  if (!pen) return null;
  const density = devicePixelRatio;
  canvas.width = canvas.clientWidth * density;
  canvas.height = canvas.clientHeight * density;
  pen.scale(density, density);
  pen.font = look.font;

  const axes = axesOf(series, window, canvas.clientHeight);
  const area = areaOf(pen, canvas, axes);
  drawTimes(pen, area, window, look);
  axes.forEach((axis, index) => {
    if (index < 2) drawAxis(pen, area, axis, index, look);
    for (const { colour, samples } of axis.series) drawCurve(pen, area, axis.scale, window, samples, colour);
  });
  if (marked !== null) drawMark(pen, area, window, marked, look);
  return area;
}

const xOf = ({ left, right }: Area, { from, to }: Window, time: number): number =>
  left + ((time - from) / (to - from)) * (right - left);

const yOf = ({ top, bottom }: Area, { low, high }: Scale, value: number): number =>
  bottom - ((value - low) / (high - low)) * (bottom - top);

function drawTimes(pen: CanvasRenderingContext2D, area: Area, window: Window, { quiet, language }: Look): void {
  const ticks = timeTicks(window.from, window.to, Math.max(2, Math.floor((area.right - area.left) / 90)));
  const isFine = (ticks[1] ?? 0) - (ticks[0] ?? 0) < 60;
  const format: Intl.DateTimeFormatOptions = { hour: "2-digit", minute: "2-digit" };
  if (isFine) format.second = "2-digit";
  pen.fillStyle = quiet;
  pen.textAlign = "center";
  pen.textBaseline = "top";
  for (const time of ticks) {
    pen.fillText(new Date(time * 1000).toLocaleTimeString(language, format), xOf(area, window, time), area.bottom + 8);
  }
}

function drawAxis(
  pen: CanvasRenderingContext2D,
  area: Area,
  axis: Axis,
  index: number,
  { line, quiet }: Look,
): void {
  pen.fillStyle = quiet;
  pen.strokeStyle = line;
  pen.lineWidth = 1;
  pen.textAlign = index ? "left" : "right";
  pen.textBaseline = "middle";
  for (const tick of axis.scale.ticks) {
    const y = Math.round(yOf(area, axis.scale, tick)) + 0.5;
    pen.fillText(label(axis, tick), index ? area.right + LABEL_GAP : area.left - LABEL_GAP, y);
    if (index) continue;
    pen.beginPath();
    pen.moveTo(area.left, y);
    pen.lineTo(area.right, y);
    pen.stroke();
  }
}

/** A value holds until the next one, and the last one until now: steps. */
function drawCurve(
  pen: CanvasRenderingContext2D,
  area: Area,
  scale: Scale,
  window: Window,
  samples: Samples,
  colour: string,
): void {
  const { times, values } = samples.from(window.from);
  pen.strokeStyle = colour;
  pen.lineWidth = 2;
  pen.lineJoin = "round";
  pen.beginPath();
  let last: number | undefined;
  for (let i = 0; i < times.length && (times[i] as number) <= window.to; ++i) {
    const x = Math.max(area.left, xOf(area, window, times[i] as number));
    const y = yOf(area, scale, values[i] as number);
    if (last === undefined) pen.moveTo(x, y);
    else pen.lineTo(x, last);
    pen.lineTo(x, (last = y));
  }
  if (last !== undefined) pen.lineTo(area.right, last);
  pen.stroke();
}

function drawMark(pen: CanvasRenderingContext2D, area: Area, window: Window, time: number, { quiet }: Look): void {
  const x = Math.round(xOf(area, window, time)) + 0.5;
  pen.strokeStyle = quiet;
  pen.lineWidth = 1;
  pen.setLineDash([4, 4]);
  pen.beginPath();
  pen.moveTo(x, area.top);
  pen.lineTo(x, area.bottom);
  pen.stroke();
}
