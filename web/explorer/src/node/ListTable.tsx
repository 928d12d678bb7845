import type { LiveRows } from "@zark/client";
import { useSignal } from "@preact/signals";
import type { CSSProperties } from "preact";
import { useCallback, useEffect, useMemo } from "preact/hooks";

import { device } from "../device/connection.js";
import { describe } from "../device/problems.js";
import type { Typed } from "../device/types.js";
import { language, onOff, t } from "../i18n/index.js";
import { nameOf } from "../model/paths.js";
import { formatValue } from "../model/values.js";
import { hrefOfNode } from "../shell/route.js";
import { Virtual } from "../widgets/Virtual.js";
import { LiveText } from "./LiveText.js";

const ROLES = ["path", "title", "description", "value", "type"];
const ROW_HEIGHT = 40;
const MOST_IN_SIGHT = 14;
const FLASH_MS = 900;

/** Rows that came because the list changed, as opposed to those that scrolled into sight. */
class Newcomers {
  private readonly seen = new WeakSet<unknown[]>();
  private version = 0;
  private until = 0;

  update(version: number): void {
    if (this.version && version !== this.version) this.until = Date.now() + FLASH_MS;
    this.version = version;
  }

  has(row: unknown[]): boolean {
    const isNew = !this.seen.has(row) && Date.now() < this.until;
    if (!isNew) this.seen.add(row);
    return isNew;
  }
}

/** The rows of a list, or the children of a container, as they are: rows come, move and go in front of one's eyes. */
export function ListTable({ path, isContainer }: { path: string; isContainer: boolean }) {
  const rows = useMemo(() => device.rows(path, ROLES), [path]);
  const newcomers = useMemo(() => new Newcomers(), [path]);
  const drawn = useSignal(0);
  useEffect(() => {
    const stop = rows.on(() => {
      newcomers.update(rows.version);
      drawn.value++;
    });
    return () => {
      stop();
      rows.close();
    };
  }, [rows, newcomers, drawn]);
  const onRange = useCallback((from: number, to: number) => rows.show(Math.max(0, from), Math.max(0, to)), [rows]);

  drawn.value; // What follows is drawn anew with every change of the rows.
  const { count } = rows;
  return (
    <section class="card">
      <h2>
        {t(isContainer ? "children" : "rows")} <span class="quiet">{count.toLocaleString(language.value)}</span>
      </h2>
      {rows.error && <p class="alarm">{describe(rows.error)}</p>}
      <Virtual
        class="table"
        role="table"
        aria-rowcount={count + 1}
        aria-label={t(isContainer ? "children" : "rows")}
        tabIndex={0}
        style={{ height: `${(Math.min(count, MOST_IN_SIGHT) + 1) * ROW_HEIGHT + 2}px` }}
        count={count}
        rowHeight={ROW_HEIGHT}
        onRange={onRange}
        head={<Head />}
        row={(index, style, slot) => (
          <ListRow
            key={slot}
            index={index}
            style={style}
            rows={rows}
            newcomers={newcomers}
            list={path}
            isContainer={isContainer}
          />
        )}
      />
    </section>
  );
}

function Head() {
  return (
    <div role="row" class="row head">
      {(["index", "title", "value"] as const).map((name) => (
        <span key={name} role="columnheader">
          {t(name)}
        </span>
      ))}
    </div>
  );
}

interface RowProps {
  index: number;
  style: CSSProperties;
  rows: LiveRows;
  newcomers: Newcomers;
  list: string;
  isContainer: boolean;
}

function ListRow({ index, style, rows, newcomers, list, isContainer }: RowProps) {
  const row = rows.at(index);
  if (!row) return <div role="row" class="row waiting" style={style} aria-rowindex={index + 2} />;
  const [path, title, description, value, type] = row as [
    string | null,
    string | null,
    string | null,
    Typed | null,
    string | null,
  ];
  // A row without a node of its own has a path that nothing answers to.
  const isNode = path !== null && !path.startsWith(`${list}.row`);
  const name = title || (path ? nameOf(path) : "–");
  return (
    <div role="row" class={newcomers.has(row) ? "row flash" : "row"} style={style} aria-rowindex={index + 2}>
      <span role="cell" class="quiet">
        {index}
      </span>
      <span role="cell" class="clip">
        {isNode ? <a href={hrefOfNode(path)}>{name}</a> : name}{" "}
        {description && <small class="quiet">{description}</small>}
      </span>
      {isContainer && path && type === "value" ? (
        <LiveText node={{ path, value }} role="cell" />
      ) : (
        <span role="cell" class="clip quiet">
          {formatValue(value, null, onOff()) || (type !== "value" && type)}
        </span>
      )}
    </div>
  );
}
