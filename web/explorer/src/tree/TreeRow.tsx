import type { CSSProperties } from "preact";

import { nameOf } from "../model/paths.js";
import { LiveText } from "../node/LiveText.js";
import { hrefOfNode } from "../shell/route.js";
import { Icon, iconOf } from "../widgets/Icon.js";
import type { Line } from "./keys.js";
import { tree } from "./TreeModel.js";

interface RowProps {
  line: Line;
  index: number;
  style: CSSProperties;
  isActive: boolean;
  isSelected: boolean;
  isOpen: boolean;
  onPick: () => void;
}

export function TreeRow({ line, index, style, isActive, isSelected, isOpen, onPick }: RowProps) {
  const { child, depth, dim } = line;
  const classes = ["line", isActive && "active", isSelected && "selected", dim && "dim", !child && "waiting"]
    .filter(Boolean)
    .join(" ");
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
