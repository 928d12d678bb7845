import { useSignal } from "@preact/signals";
import { useEffect, useRef } from "preact/hooks";

import { type LiveNode, liveNode } from "../device/live.js";
import { language, onOff, t } from "../i18n/index.js";
import { nameOf } from "../model/paths.js";
import { charted } from "../model/preferences.js";
import { formatValue } from "../model/values.js";
import { hrefOfNode } from "../shell/route.js";
import { Button, IconButton } from "../widgets/Button.js";
import { saveAs } from "../widgets/files.js";
import { toCsv } from "./csv.js";
import { type Area, draw, timeAt, type Series } from "./drawing.js";

const SPANS = [60, 300, 900, 3600];
const REDRAW_MS = 250;
const COLOURS = 6;

/** Numeric nodes over time, as many as the reader has chosen. Whatever view is shown, their values are gathered. */
export function ChartView() {
  /** When the reader stopped the clock, in seconds since 1970; null while it runs. */
  const stopped = useSignal<number | null>(null);
  const span = useSignal(SPANS[1] as number);
  const marked = useSignal<number | null>(null);
  const nodes = charted.paths.value.map(liveNode);
  return (
    <div class="page chart-page">
      <header class="split">
        <h1>{t("chart")}</h1>
        <div class="actions">
          <select
            aria-label={t("span")}
            value={String(span.value)}
            onChange={(event) => (span.value = Number(event.currentTarget.value))}
          >
            {SPANS.map((each) => (
              <option key={each} value={String(each)}>
                {t("minutes", each / 60)}
              </option>
            ))}
          </select>
          <Button
            icon={stopped.value ? "play" : "pause"}
            pressed={stopped.value !== null}
            onClick={() => (stopped.value = stopped.value ? null : Date.now() / 1000)}
          >
            {t(stopped.value ? "resume" : "pause")}
          </Button>
          <Button
            icon="download"
            disabled={nodes.length === 0}
            onClick={() => saveAs("chart.csv", toCsv(nodes), "text/csv")}
          >
            CSV
          </Button>
        </div>
      </header>
      {nodes.length === 0 ? (
        <p class="card quiet">{t("chartEmpty")}</p>
      ) : (
        <section class="card">
          <Plot
            nodes={nodes}
            span={span.value}
            stopped={stopped.value}
            onMark={(time) => (marked.value = time)}
            marked={marked.value}
          />
          <ul class="legend plain-list">
            {nodes.map((node, index) => (
              <LegendLine key={node.path} node={node} index={index} marked={marked.value} />
            ))}
          </ul>
        </section>
      )}
    </div>
  );
}

interface LegendProps {
  node: LiveNode;
  index: number;
  marked: number | null;
}

/** The value now or, while the pointer is over the curves, the one of that time. */
function LegendLine({ node, index, marked }: LegendProps) {
  const roles = node.roles.value;
  const title = roles?.title || nameOf(node.path);
  const value = marked === null ? roles?.value : { type: "double", value: node.samples.at(marked) ?? null };
  return (
    <li class="split">
      <span>
        <span class={`swatch series-${index % COLOURS}`} /> <a href={hrefOfNode(node.path)}>{title}</a>
      </span>
      <span class="field">
        <strong class="numeric">{formatValue(value, roles?.edit, onOff())}</strong>
        <IconButton icon="close" name={t("removeFromChart", title)} onClick={() => charted.toggle(node.path)} />
      </span>
    </li>
  );
}

interface PlotProps {
  nodes: LiveNode[];
  span: number;
  stopped: number | null;
  marked: number | null;
  onMark: (time: number | null) => void;
}

function Plot({ nodes, span, stopped, marked, onMark }: PlotProps) {
  const canvas = useRef<HTMLCanvasElement>(null);
  const area = useRef<Area>(null);
  const window = () => ({ from: (stopped ?? Date.now() / 1000) - span, to: stopped ?? Date.now() / 1000 });
  useEffect(() => {
    const redraw = () => {
      if (canvas.current) area.current = draw(canvas.current, seriesOf(nodes), window(), look(), marked);
    };
    redraw();
    const timer = setInterval(redraw, REDRAW_MS);
    return () => clearInterval(timer);
  });
  return (
    <canvas
      ref={canvas}
      class="plot"
      role="img"
      aria-label={t("chart")}
      onPointerMove={(event) => area.current && onMark(timeAt(area.current, event.offsetX, window()))}
      onPointerLeave={() => onMark(null)}
    />
  );
}

const colour = (name: string): string => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

const look = () => ({
  line: colour("--line"),
  quiet: colour("--quiet"),
  font: `12px ${getComputedStyle(document.body).fontFamily}`,
  language: language.peek(),
});

const seriesOf = (nodes: LiveNode[]): Series[] =>
  nodes.map((node, index) => ({
    unit: node.roles.peek()?.edit?.unit ?? "",
    colour: colour(`--series-${index % COLOURS}`),
    samples: node.samples,
  }));
