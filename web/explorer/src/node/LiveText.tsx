import { useEffect, useState } from "preact/hooks";

import { followedNode, useFlash, useLive } from "../device/live.js";
import type { Roles } from "../device/types.js";
import { onOff } from "../i18n/index.js";
import { formatValue } from "../model/values.js";

/** A node that scrolls by is not followed; one that stays is. */
const STAYS_MS = 150;

interface Props {
  /** What is known before the node is followed. */
  node: Pick<Roles, "path" | "value"> & Partial<Pick<Roles, "edit">>;
  role: "cell" | "gridcell";
}

/** A value in a line of many, as it is now. */
export function LiveText(props: Props) {
  const { path, value, edit } = props.node;
  const [stayed, setStayed] = useState("");
  const follows = stayed === path || followedNode(path) !== undefined;
  useEffect(() => {
    if (follows) return undefined;
    const timer = setTimeout(() => setStayed(path), STAYS_MS);
    return () => clearTimeout(timer);
  }, [path, follows]);
  if (follows) return <Following {...props} />;
  return (
    <span role={props.role} class="clip worth">
      {formatValue(value, edit, onOff())}
    </span>
  );
}

function Following({ node, role }: Props) {
  const live = useLive(node.path);
  const flash = useFlash(live);
  const { value, edit } = live.roles.value ?? node;
  return (
    <span role={role} class={flash ? "clip worth flash" : "clip worth"}>
      {formatValue(value, edit, onOff())}
    </span>
  );
}
