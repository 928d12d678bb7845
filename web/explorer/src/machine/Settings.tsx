import { useSignal } from "@preact/signals";
import { useEffect } from "preact/hooks";

import { isPanelOpen, staged } from "../changes/changes.js";
import { useLive } from "../device/live.js";
import { attempt } from "../device/problems.js";
import { rights } from "../device/session.js";
import { ValueEditor } from "../editors/ValueEditor.js";
import { t } from "../i18n/index.js";
import { nameOf, ROOT } from "../model/paths.js";
import { hrefOfNode } from "../shell/route.js";
import { type Child, childrenOf, toChild } from "../tree/children.js";
import { Button } from "../widgets/Button.js";

const WEB_SERVER = toChild(["settings:webserver", null, "container", null, null, null, null]);

interface Section {
  container: Child;
  values: Child[];
}

async function allChildrenOf(path: string): Promise<Child[]> {
  const all: Child[] = [];
  for await (const children of childrenOf(path)) all.push(...children);
  return all;
}

/** Every container of settings that has values of its own, with these. */
async function sectionsBelow(container: Child): Promise<Section[]> {
  const children = await allChildrenOf(container.path);
  const values = children.filter((child) => child.type === "value");
  const inner = await Promise.all(children.filter((child) => child.type === "container").map(sectionsBelow));
  return [...(values.length ? [{ container, values }] : []), ...inner.flat()];
}

async function readSections(): Promise<Section[]> {
  // A device that does not list its tree has the web server's settings all the same.
  const roots = await allChildrenOf(ROOT).catch(() => [WEB_SERVER]);
  const settings = roots.filter((root) => root.path.startsWith("settings:") && root.type === "container");
  return (await Promise.all(settings.map(sectionsBelow))).flat();
}

/** All settings of the device, section by section; what is edited here is collected and applied together. */
export function Settings() {
  const sections = useSignal<Section[]>([]);
  const caller = rights.value;
  useEffect(() => {
    void attempt(t("settings"), readSections).then((read) => (sections.value = read ?? []));
  }, [caller, sections]);
  return (
    <section class="card stack" aria-label={t("settings")}>
      <h2>{t("settings")}</h2>
      <p class="quiet">{t("settingsAbout")}</p>
      {sections.value.map((section) => (
        <SectionBox key={section.container.path} {...section} />
      ))}
      {staged.value.size > 0 && (
        <div class="actions">
          <Button kind="main" onClick={() => (isPanelOpen.value = true)}>
            {t("reviewChanges", staged.value.size)}
          </Button>
        </div>
      )}
    </section>
  );
}

/** Follows its settings while it is open. */
function SectionBox({ container, values }: Section) {
  const isOpen = useSignal(false);
  return (
    <details class="section" onToggle={(event) => (isOpen.value = event.currentTarget.open)}>
      <summary>
        <span>{container.title || nameOf(container.path)}</span> <span class="quiet">{values.length}</span>
      </summary>
      {isOpen.value && values.map((child) => <Setting key={child.path} path={child.path} />)}
    </details>
  );
}

function Setting({ path }: { path: string }) {
  const node = useLive(path);
  const roles = node.roles.value;
  if (!roles) return null;
  const label = roles.title || nameOf(path);
  return (
    <div class="setting">
      <div>
        <a href={hrefOfNode(path)}>{label}</a>
        {roles.description && <p class="quiet">{roles.description}</p>}
      </div>
      <ValueEditor node={node} label={label} collect />
    </div>
  );
}
