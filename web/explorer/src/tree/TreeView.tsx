import { useSignal } from "@preact/signals";
import { useCallback, useEffect, useRef } from "preact/hooks";

import { rights } from "../device/session.js";
import { t } from "../i18n/index.js";
import { Icon } from "../widgets/Icon.js";
import { Virtual } from "../widgets/Virtual.js";
import { type Line, onKey } from "./keys.js";
import { forgetIndex, found, query, reading, search } from "./search.js";
import { tree } from "./TreeModel.js";
import { TreeRow } from "./TreeRow.js";

const ROW_HEIGHT = 36;
const TYPING_MS = 200;

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
    reading.value !== null
      ? t("searching", reading.value)
      : hits
        ? t(hits.count === 1 ? "oneHit" : "hits", hits.count)
        : "";
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
  const opened = tree.opened.value;

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
          isOpen={isSearch || opened.has(lines[index]?.child?.path ?? "")}
          onPick={() => (active.value = index)}
        />
      )}
    />
  );
}
