import type { ComponentChildren } from "preact";
import { useEffect, useRef } from "preact/hooks";

import { ChangesPanel } from "../changes/ChangesPanel.js";
import { RiskDialog } from "../changes/RiskDialog.js";
import { ChartView } from "../chart/ChartView.js";
import { Dashboard } from "../dashboard/Dashboard.js";
import { online } from "../device/connection.js";
import { dismiss, notices } from "../device/notices.js";
import { isWithoutPassword, sessionDialog } from "../device/session.js";
import { t } from "../i18n/index.js";
import { MachineView } from "../machine/MachineView.js";
import { NodeView } from "../node/NodeView.js";
import { TreeView } from "../tree/TreeView.js";
import { IconButton } from "../widgets/Button.js";
import { Icon } from "../widgets/Icon.js";
import { Header, Tabs } from "./Header.js";
import { Help } from "./Help.js";
import { PasswordDialog, SignInDialog } from "./SessionDialogs.js";
import { route } from "./route.js";
import { isHelpOpen } from "./shortcuts.js";

export function App() {
  return (
    <div class={online.value ? "app" : "app offline"}>
      <a class="skip" href="#main" onClick={skipToMain}>
        {t("skip")}
      </a>
      <Header />
      <Banners />
      <main id="main" tabIndex={-1}>
        <View />
      </main>
      <Tabs place="below" />
      <Notices />
      <Dialogs />
    </div>
  );
}

/** The fragment of the address is the route, so that a link to an element of the page has to be followed by hand. */
function skipToMain(event: Event): void {
  event.preventDefault();
  document.getElementById("main")?.focus();
}

function View() {
  const at = route.value;
  if (at.view === "chart") return <ChartView />;
  if (at.view === "machine") return <MachineView />;
  if (at.view === "dashboard") return <Dashboard />;
  const path = at.view === "node" ? at.path : null;
  return (
    <div class={path ? "explore has-node" : "explore"}>
      <TreeView selected={path} />
      {path ? <NodeView key={path} path={path} /> : <p class="empty quiet">{t("pickNode")}</p>}
    </div>
  );
}

function Banners() {
  const banners = useRef<HTMLDivElement>(null);
  useEffect(() => {
    const element = banners.current as HTMLDivElement;
    // What stands below them in the window has to know how tall they are.
    const tell = () => document.documentElement.style.setProperty("--banners", `${element.offsetHeight}px`);
    const watcher = new ResizeObserver(tell);
    watcher.observe(element);
    return () => watcher.disconnect();
  }, []);
  return (
    <div role="status" class="banners" ref={banners}>
      {!online.value && (
        <Banner kind="alarm">
          <strong>{t("offline")}</strong> {t("offlineAbout")}
        </Banner>
      )}
      {isWithoutPassword.value && (
        <Banner kind="hint">
          {t("noPassword")}{" "}
          <button type="button" class="link" onClick={() => (sessionDialog.value = "password")}>
            {t("setPassword")}
          </button>
        </Banner>
      )}
    </div>
  );
}

function Banner({ kind, children }: { kind: string; children: ComponentChildren }) {
  return (
    <p class={`banner ${kind}`}>
      <Icon name="warning" size={18} />
      <span>{children}</span>
    </p>
  );
}

function Notices() {
  const place = useRef<HTMLDivElement>(null);
  const shown = notices.value;
  useEffect(() => {
    // Shown anew it lies above a dialog that has been opened since.
    place.current?.hidePopover?.();
    if (shown.length) place.current?.showPopover?.();
  }, [shown]);
  return (
    <div class="notices" role="status" popover="manual" ref={place}>
      {shown.map(({ id, kind, text, action }) => (
        <div key={id} class={`notice ${kind}`}>
          <span>{text}</span>
          {action && (
            <button
              type="button"
              class="link"
              onClick={() => {
                dismiss(id);
                action.run();
              }}
            >
              {action.label}
            </button>
          )}
          <IconButton icon="close" name={t("close")} onClick={() => dismiss(id)} />
        </div>
      ))}
    </div>
  );
}

function Dialogs() {
  return (
    <>
      {sessionDialog.value === "signIn" && <SignInDialog />}
      {sessionDialog.value === "password" && <PasswordDialog />}
      {isHelpOpen.value && <Help />}
      <ChangesPanel />
      <RiskDialog />
    </>
  );
}
