import { useFlash, useLive } from "../device/live.js";
import { describe } from "../device/problems.js";
import { ValueEditor } from "../editors/ValueEditor.js";
import { onOff, t } from "../i18n/index.js";
import { nameOf } from "../model/paths.js";
import { pins } from "../model/preferences.js";
import { asNumber, formatValue } from "../model/values.js";
import { CommandForm } from "../node/CommandForm.js";
import { hrefOfNode } from "../shell/route.js";
import { IconButton } from "../widgets/Button.js";
import { Card } from "../widgets/Card.js";
import { Sparkline } from "../chart/Sparkline.js";

/** Any node that the reader wants in sight, with its editor. */
export function PinCard({ path }: { path: string }) {
  const node = useLive(path);
  const flash = useFlash(node);
  const roles = node.roles.value;
  const title = roles?.title || nameOf(path);
  return (
    <Card
      title={title}
      tools={<IconButton icon="close" name={t("unpinNode", title)} onClick={() => pins.toggle(path)} />}
    >
      {node.problem.value && <p class="alarm">{describe(node.problem.value)}</p>}
      {roles?.type === "value" && (
        <>
          <p class={flash ? "value flash" : "value"}>{formatValue(roles.value, roles.edit, onOff()) || "–"}</p>
          {asNumber(roles.value) !== undefined && <Sparkline node={node} />}
          {roles.modifiable && <ValueEditor node={node} label={title} />}
        </>
      )}
      {roles?.type === "action" && <CommandForm path={path} roles={roles} />}
      <p>
        <a href={hrefOfNode(path)}>{path}</a>
      </p>
    </Card>
  );
}
