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

interface Area {
  left: number;
  right: number;
  top: number;
  bottom: number;
}

interface Window {
  from: number;
  to: number;
}

const AXIS_WIDTH = 64;
const AXIS_HEIGHT = 24;

const areaOf = (canvas: HTMLCanvasElement, axes: number): Area => ({
  left: AXIS_WIDTH,
  right: canvas.clientWidth - (axes > 1 ? AXIS_WIDTH : 8),
  top: 8,
  bottom: canvas.clientHeight - AXIS_HEIGHT,
});

const unitsOf = (series: Series[]): string[] => [...new Set(series.map(({ unit }) => unit))];

/** The time at a place of the drawing, in pixels from its left edge; null beside the curves. */
export function timeAt(canvas: HTMLCanvasElement, series: Series[], x: number, { from, to }: Window): number | null {
  const { left, right } = areaOf(canvas, unitsOf(series).length);
  return x < left || x > right ? null : from + ((x - left) / (right - left)) * (to - from);
}

/** Draws several series over the same time. Those of one unit share an axis; the first two of these are labelled. */
export function draw(
  canvas: HTMLCanvasElement,
  series: Series[],
  window: Window,
  look: Look,
  marked: number | null,
): void {
  const pen = canvas.getContext("2d");
  if (!pen) return;
  const density = devicePixelRatio;
  canvas.width = canvas.clientWidth * density;
  canvas.height = canvas.clientHeight * density;
  pen.scale(density, density);
  pen.font = look.font;

  const units = unitsOf(series);
  const area = areaOf(canvas, units.length);
  drawTimes(pen, area, window, look);
  units.forEach((unit, axis) => {
    const own = series.filter((each) => each.unit === unit);
    const curves = own.map(({ samples }) => samples.from(window.from));
    const scale = scaleOf(
      curves.flatMap(({ values }) => values),
      Math.max(2, Math.floor((area.bottom - area.top) / 50)),
    );
    if (axis < 2) drawAxis(pen, area, scale, unit, axis, look);
    own.forEach(({ colour, samples }) => drawCurve(pen, area, scale, window, samples, colour));
  });
  if (marked !== null) drawMark(pen, area, window, marked, look);
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
  scale: Scale,
  unit: string,
  axis: number,
  { line, quiet }: Look,
): void {
  pen.fillStyle = quiet;
  pen.strokeStyle = line;
  pen.lineWidth = 1;
  pen.textAlign = axis ? "left" : "right";
  pen.textBaseline = "middle";
  for (const tick of scale.ticks) {
    const y = Math.round(yOf(area, scale, tick)) + 0.5;
    pen.fillText(`${tick}${unit && ` ${unit}`}`, axis ? area.right + 8 : area.left - 8, y);
    if (axis) continue;
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
