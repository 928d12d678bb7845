import type { DeviceError } from "@zark/client";
import type { ComponentChildren } from "preact";

import { Sparkline } from "../chart/Sparkline.js";
import { done, undo } from "../changes/changes.js";
import { type LiveNode, useFlash, useLive } from "../device/live.js";
import { notify } from "../device/notices.js";
import { describe } from "../device/problems.js";
import { askToSignIn, user } from "../device/session.js";
import type { Roles } from "../device/types.js";
import { ValueEditor } from "../editors/ValueEditor.js";
import { language, onOff, t } from "../i18n/index.js";
import { curlLine, valueText, zarkctlLine } from "../model/commands.js";
import { crumbsOf, nameOf } from "../model/paths.js";
import { charted, pins } from "../model/preferences.js";
import { asNumber, formatValue, toPrettyJson } from "../model/values.js";
import { hrefOfNode } from "../shell/route.js";
import { Button } from "../widgets/Button.js";
import { copy } from "../widgets/files.js";
import { Icon, iconOf } from "../widgets/Icon.js";
import { CommandForm } from "./CommandForm.js";
import { ListTable } from "./ListTable.js";
import { StreamBox } from "./StreamBox.js";

/** Everything about one node, and what can be done with it. */
export function NodeView({ path }: { path: string }) {
  const node = useLive(path);
  const roles = node.roles.value;
  const problem = node.problem.value;
  return (
    <article class="node" aria-label={roles?.title ?? nameOf(path)}>
      <Crumbs path={path} />
      {problem && <Problem error={problem} />}
      {!roles && !problem && <p class="quiet">{t("reading")}</p>}
      {roles && (
        <>
          <NodeHead node={node} roles={roles} />
          <NodeBody key={path} node={node} roles={roles} />
          <OwnChanges path={path} />
          <Details node={node} roles={roles} />
        </>
      )}
    </article>
  );
}

function Problem({ error }: { error: DeviceError }) {
  return (
    <p class="card alarm">
      {describe(error)}{" "}
      {error.kind === "refused" && user.value === null && (
        <button type="button" class="link" onClick={askToSignIn}>
          {t("signIn")}
        </button>
      )}
    </p>
  );
}

function Crumbs({ path }: { path: string }) {
  return (
    <nav class="crumbs" aria-label={t("breadcrumbs")}>
      <a href="#/tree">{t("tree")}</a>
      {crumbsOf(path).map((each) => (
        <a key={each} href={hrefOfNode(each)} aria-current={each === path ? "page" : undefined}>
          {each.includes("/") ? nameOf(each) : each}
        </a>
      ))}
    </nav>
  );
}

function NodeHead({ node, roles }: { node: LiveNode; roles: Partial<Roles> }) {
  const numeric = asNumber(roles.value) !== undefined;
  return (
    <header class="node-head">
      <h1>
        <Icon name={iconOf(roles)} size={26} />
        {roles.title || nameOf(node.path)}
      </h1>
      {roles.description && <p class="quiet">{roles.description}</p>}
      <div class="actions">
        <Button icon="pin" pressed={pins.has(node.path)} onClick={() => pins.toggle(node.path)}>
          {t(pins.has(node.path) ? "unpin" : "pin")}
        </Button>
        {numeric && (
          <Button icon="chart" pressed={charted.has(node.path)} onClick={() => charted.toggle(node.path)}>
            {t(charted.has(node.path) ? "unchart" : "addToChart")}
          </Button>
        )}
        <CopyMenu path={node.path} roles={roles} />
      </div>
    </header>
  );
}

function CopyMenu({ path, roles }: { path: string; roles: Partial<Roles> }) {
  const texts: Array<[label: string, text: string]> = [
    [t("copyPath"), path],
    ...(roles.value ? [[t("copyValue"), valueText(roles.value)] as [string, string]] : []),
    [t("copyLink"), location.href],
    [t("copyCurl"), curlLine(location.origin, path)],
    [t("copyZarkctl"), zarkctlLine(location.origin, path)],
  ];
  const take = async (event: { currentTarget: HTMLElement }, text: string) => {
    event.currentTarget.closest("details")?.removeAttribute("open");
    await copy(text);
    notify({ id: "copy", kind: "done", text: t("copied", text) });
  };
  return (
    <details class="menu">
      <summary class="button plain">
        <Icon name="copy" size={18} /> {t("copy")}
      </summary>
      <div>
        {texts.map(([label, text]) => (
          <button type="button" key={label} onClick={(event) => void take(event, text)}>
            {label}
          </button>
        ))}
      </div>
    </details>
  );
}

function NodeBody({ node, roles }: { node: LiveNode; roles: Partial<Roles> }) {
  if (roles.type === "value") return <ValueBox node={node} roles={roles} />;
  if (roles.type === "action") return <CommandForm path={node.path} roles={roles} />;
  if (roles.type === "stream") return <StreamBox path={node.path} />;
  return <ListTable key={node.path} path={node.path} isContainer={roles.type === "container"} />;
}

function ValueBox({ node, roles }: { node: LiveNode; roles: Partial<Roles> }) {
  const flash = useFlash(node);
  const numeric = asNumber(roles.value) !== undefined;
  return (
    <section class="card">
      <p class={flash ? "value flash" : "value"}>{formatValue(roles.value, roles.edit, onOff()) || "–"}</p>
      <ValueEditor node={node} label={roles.title ?? nameOf(node.path)} />
      {numeric && <Sparkline node={node} />}
    </section>
  );
}

/** What this page has changed here, each to be undone. */
function OwnChanges({ path }: { path: string }) {
  const changes = done.value.filter((change) => change.path === path).slice(0, 10);
  if (changes.length === 0) return null;
  return (
    <section class="card">
      <h2>{t("yourChanges")}</h2>
      <ul class="plain-list">
        {changes.map((change) => (
          <li key={change.time} class="split">
            <span>
              <span class="quiet">{new Date(change.time).toLocaleTimeString(language.value)}</span>{" "}
              {formatValue(change.from, change.edit, onOff())} → {formatValue(change.to, change.edit, onOff())}
            </span>
            <Button icon="undo" kind="quiet" onClick={() => void undo(change)}>
              {t("undo")}
            </Button>
          </li>
        ))}
      </ul>
    </section>
  );
}

const rulesText = ({ minimum, maximum, step, unit }: NonNullable<Roles["edit"]>): string =>
  [
    minimum !== undefined || maximum !== undefined ? `${minimum ?? ""} … ${maximum ?? ""}` : "",
    step === undefined ? "" : t("stepOf", String(step)),
    unit ?? "",
  ]
    .filter(Boolean)
    .join(", ");

function Details({ node, roles }: { node: LiveNode; roles: Partial<Roles> }) {
  const rows: Array<[string, ComponentChildren]> = [
    [t("path"), <code>{node.path}</code>],
    [t("kind"), roles.value ? `${roles.type} · ${roles.value.type}` : roles.type],
    [t("permission"), roles.permission && t(`permission_${roles.permission}`)],
    [t("bounds"), roles.edit && rulesText(roles.edit)],
    [t("lastChange"), roles.timestamp ? new Date(Number(roles.timestamp)).toLocaleString(language.value) : null],
    [t("icon"), roles.icon],
  ];
  const isStructured = typeof roles.value?.value === "object" && roles.value.value !== null;
  return (
    <section class="card">
      <h2>{t("details")}</h2>
      <dl>
        {rows.map(([name, content]) => content && [<dt key={name}>{name}</dt>, <dd key={`${name}.`}>{content}</dd>])}
      </dl>
      {isStructured && <pre class="mono">{toPrettyJson(roles.value?.value)}</pre>}
    </section>
  );
}
