import { useSignal } from "@preact/signals";
import type { CSSProperties } from "preact";
import { useCallback, useEffect, useRef } from "preact/hooks";

import { rights } from "../device/session.js";
import { t } from "../i18n/index.js";
import { nameOf } from "../model/paths.js";
import { LiveText } from "../node/LiveText.js";
import { go, hrefOfNode } from "../shell/route.js";
import { Icon, iconOf } from "../widgets/Icon.js";
import { Virtual } from "../widgets/Virtual.js";
import type { Child } from "./Branch.js";
import { forgetIndex, found, query, reading, search } from "./search.js";
import { tree } from "./TreeModel.js";

const ROW_HEIGHT = 36;
const TYPING_MS = 200;

/** A line, of the tree or of a search, as both are drawn and moved through. */
interface Line {
  child: Child | undefined;
  depth: number;
  dim?: boolean;
}

export function TreeView({ selected }: { selected: string | null }) {
  const hits = found.value?.hits;
  const lines: Line[] = hits ? hits.map(({ child, depth, fits }) => ({ child, depth, dim: !fits })) : tree.lines.value;
  return (
    <section class="tree" aria-label={t("tree")}>
      <SearchField />
      <SearchStatus />
      {tree.failed.value && <p class="empty quiet">{t("noRoots")}</p>}
      <TreeGrid lines={lines} isSearch={!!hits} selected={selected} />
    </section>
  );
}

function SearchField() {
  const timer = useRef<ReturnType<typeof setTimeout>>(undefined);
  return (
    <div class="search" role="search">
      <Icon name="search" size={18} />
      <input
        id="search"
        type="search"
        placeholder={t("searchFor")}
        aria-label={t("searchFor")}
        autocomplete="off"
        spellcheck={false}
        value={query.value}
        onInput={(event) => {
          const text = event.currentTarget.value;
          clearTimeout(timer.current);
          timer.current = setTimeout(() => void search(text), TYPING_MS);
        }}
        onKeyDown={(event) => {
          if (event.key === "ArrowDown" || event.key === "Enter") document.getElementById("tree-grid")?.focus();
        }}
      />
    </div>
  );
}

function SearchStatus() {
  const hits = found.value;
  const text =
    reading.value !== null ? t("searching", reading.value) : hits ? t(hits.count === 1 ? "oneHit" : "hits", hits.count) : "";
  return (
    <p class="search-status quiet" role="status">
      {text}
    </p>
  );
}

interface GridProps {
  lines: Line[];
  isSearch: boolean;
  selected: string | null;
}

function TreeGrid({ lines, isSearch, selected }: GridProps) {
  const active = useSignal(0);
  const reveal = useSignal<{ index: number } | undefined>(undefined);
  const caller = rights.value;

  useEffect(() => {
    forgetIndex();
    void tree.load();
    return () => tree.rest();
  }, [caller]);
  useEffect(() => {
    if (!selected || isSearch) return;
    void tree.reveal(selected).then((index) => {
      if (index < 0) return;
      active.value = index;
      reveal.value = { index };
    });
  }, [selected, isSearch, active, reveal]);

  const move = (index: number) => {
    active.value = Math.max(0, Math.min(lines.length - 1, index));
    reveal.value = { index: active.value };
  };
  const onRange = useCallback((from: number, to: number) => !isSearch && tree.need(from, to), [isSearch, lines]);
  return (
    <Virtual
      id="tree-grid"
      class="tree-grid"
      role="treegrid"
      aria-label={t("tree")}
      aria-rowcount={lines.length}
      aria-activedescendant={lines.length ? `line-${active.value}` : undefined}
      tabIndex={0}
      count={lines.length}
      rowHeight={ROW_HEIGHT}
      reveal={reveal.value}
      onRange={onRange}
      onKeyDown={(event) => {
        if (onKey(event.key, lines, active.value, isSearch, move)) event.preventDefault();
      }}
      row={(index, style, slot) => (
        <TreeRow
          key={slot}
          line={lines[index] as Line}
          index={index}
          style={style}
          isActive={index === active.value}
          isSelected={lines[index]?.child?.path === selected}
          isOpen={isSearch || tree.isOpen(lines[index]?.child?.path ?? "")}
          onPick={() => (active.value = index)}
        />
      )}
    />
  );
}

const PAGE_ROWS = 12;

/** What the keys do, as the pattern of a tree grid has it. Returns whether the key was one of them. */
function onKey(key: string, lines: Line[], at: number, isSearch: boolean, move: (index: number) => void): boolean {
  const line = lines[at];
  const steps: Record<string, number> = { ArrowDown: at + 1, ArrowUp: at - 1, Home: 0, End: lines.length - 1, PageDown: at + PAGE_ROWS, PageUp: at - PAGE_ROWS };
  if (key in steps) move(steps[key] as number);
  else if (key === "Enter" && line?.child?.path) go({ view: "node", path: line.child.path });
  else if (key === "ArrowRight" && line?.child) openOrEnter(line.child, at, isSearch, move);
  else if (key === "ArrowLeft" && line) closeOrLeave(lines, at, isSearch, move);
  else return false;
  return true;
}

function openOrEnter(child: Child, at: number, isSearch: boolean, move: (index: number) => void): void {
  if (child.type !== "container") return;
  if (isSearch || tree.isOpen(child.path)) move(at + 1);
  else void tree.open(child.path);
}

function closeOrLeave(lines: Line[], at: number, isSearch: boolean, move: (index: number) => void): void {
  const { child, depth } = lines[at] as Line;
  if (!isSearch && child && child.type === "container" && tree.isOpen(child.path)) tree.close(child.path);
  else {
    let above = at - 1;
    while (above >= 0 && (lines[above] as Line).depth >= depth) --above;
    if (above >= 0) move(above);
  }
}

interface RowProps {
  line: Line;
  index: number;
  style: CSSProperties;
  isActive: boolean;
  isSelected: boolean;
  isOpen: boolean;
  onPick: () => void;
}

function TreeRow({ line, index, style, isActive, isSelected, isOpen, onPick }: RowProps) {
  const { child, depth, dim } = line;
  const classes = ["line", isActive && "active", isSelected && "selected", dim && "dim", !child && "waiting"].filter(Boolean).join(" ");
  const isContainer = child?.type === "container";
  return (
    <div
      id={`line-${index}`}
      role="row"
      class={classes}
      style={{ ...style, "--depth": String(depth) }}
      aria-level={depth + 1}
      aria-rowindex={index + 1}
      aria-selected={isSelected}
      aria-expanded={isContainer ? isOpen : undefined}
      onClick={onPick}
    >
      {child && (
        <>
          <span role="gridcell" class="name">
            <button
              type="button"
              class={isContainer ? "twist" : "twist hidden"}
              tabIndex={-1}
              aria-hidden="true"
              onClick={() => (tree.isOpen(child.path) ? tree.close(child.path) : void tree.open(child.path))}
            >
              <Icon name="chevron" size={16} />
            </button>
            <Icon name={iconOf(child)} size={18} />
            {child.path ? (
              <a href={hrefOfNode(child.path)} tabIndex={-1} class="clip">
                {child.title || nameOf(child.path)}
              </a>
            ) : (
              <span class="clip">{child.title}</span>
            )}
          </span>
          {child.type === "value" ? (
            <LiveText node={child} role="gridcell" />
          ) : (
            <span role="gridcell" class="clip worth">
              {depth === 0 && child.path}
            </span>
          )}
        </>
      )}
    </div>
  );
}
