import { useSignal } from "@preact/signals";
import type { ComponentChildren, CSSProperties, HTMLAttributes } from "preact";
import { useEffect, useLayoutEffect, useRef } from "preact/hooks";

/** Browsers do not lay out elements of more than some ten million pixels. */
const TALLEST = 8_000_000;
const MARGIN = 6;

type DrawRow = (index: number, style: CSSProperties, slot: number) => ComponentChildren;

interface Props extends Omit<HTMLAttributes<HTMLDivElement>, "children"> {
  count: number;
  rowHeight: number;
  /**
   * One row; `style` puts it in its place. Elements of rows that have gone are used again by way of the key `slot`. What is in
   * sight is drawn anew when this is another function.
   */
  row: DrawRow;
  /** Called with the rows that are in sight, whenever these are others. */
  onRange?: (from: number, to: number) => void;
  /** A row to bring into sight; each new object does so again. */
  reveal?: { index: number } | undefined;
  /** Above the rows, and in sight wherever they are. */
  head?: ComponentChildren;
}

/** What was drawn last: scrolling draws those rows alone that come into sight. */
interface Kept {
  row: DrawRow;
  slots: number;
  shift: number;
  rows: Map<number, ComponentChildren>;
}

/** Shows those of many rows of one height that are in sight. The scrollbar is that of all of them. */
export function Virtual({ count, rowHeight, row, onRange, reveal, head, ...rest }: Props) {
  const frame = useRef<HTMLDivElement>(null);
  const top = useSignal(0);
  const height = useSignal(600);
  const kept = useRef<Kept>(undefined);

  useLayoutEffect(() => {
    const element = frame.current as HTMLDivElement;
    const watcher = new ResizeObserver(() => {
      height.value = element.clientHeight;
    });
    watcher.observe(element);
    height.value = element.clientHeight;
    return () => watcher.disconnect();
  }, [height]);

  const whole = count * rowHeight;
  const drawn = Math.min(whole, TALLEST);
  // Where the rows do not fit into what browsers lay out, each pixel of the scrollbar stands for several of theirs.
  const scale = drawn > height.value ? (whole - height.value) / (drawn - height.value) : 1;
  const shift = top.value - top.value * scale;
  const first = Math.max(0, Math.floor((top.value * scale) / rowHeight) - MARGIN);
  const last = Math.min(count - 1, Math.ceil((top.value * scale + height.value) / rowHeight) + MARGIN);

  useEffect(() => onRange?.(first, last), [first, last, count, onRange]);
  useEffect(() => {
    const element = frame.current;
    if (!element || !reveal || reveal.index < 0) return;
    const at = reveal.index * rowHeight;
    const seen = element.scrollTop * scale;
    const room = element.clientHeight - rowHeight;
    if (at >= seen && at <= seen + room) return;
    // The next row comes to the edge, and any other into the middle, with those around it.
    const isNext = at + rowHeight >= seen && at <= seen + element.clientHeight;
    const to = isNext ? (at < seen ? at : at - room) : at - room / 2;
    element.scrollTop = to / scale;
  }, [reveal]);

  // As many slots as rows can be in sight at a time, which changes with the height alone.
  const slots = Math.ceil(height.value / rowHeight) + 2 * MARGIN + 2;
  const before = kept.current;
  const known = before?.row === row && before.slots === slots && before.shift === shift ? before.rows : undefined;
  const rows = new Map<number, ComponentChildren>();
  for (let index = first; index <= last; ++index) {
    const place: CSSProperties = { position: "absolute", top: `${index * rowHeight + shift}px`, height: `${rowHeight}px` };
    rows.set(index, known?.get(index) ?? row(index, place, index % slots));
  }
  kept.current = { row, slots, shift, rows };
  return (
    <div {...rest} ref={frame} onScroll={() => (top.value = frame.current?.scrollTop ?? 0)}>
      {head}
      <div class="virtual" role="presentation" style={{ height: `${drawn}px` }}>
        {[...rows.values()]}
      </div>
    </div>
  );
}
