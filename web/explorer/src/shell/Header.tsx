import { collecting, isPanelOpen, staged } from "../changes/changes.js";
import { online } from "../device/connection.js";
import { followed } from "../device/live.js";
import { askToSignIn, sessionDialog, signOut, user } from "../device/session.js";
import { language, t } from "../i18n/index.js";
import { type Theme, theme } from "../model/preferences.js";
import { Button } from "../widgets/Button.js";
import { Icon } from "../widgets/Icon.js";
import { hrefOf, type Route, route } from "./route.js";
import { isHelpOpen } from "./shortcuts.js";

const TABS: Array<[view: "dashboard" | "tree" | "chart" | "machine", icon: string]> = [
  ["dashboard", "home"],
  ["tree", "tree"],
  ["chart", "chart"],
  ["machine", "machine"],
];

const NEXT_THEME: Record<Theme, Theme> = { auto: "light", light: "dark", dark: "auto" };

const isAt = (at: Route, view: string): boolean => at.view === view || (view === "tree" && at.view === "node");

/** On wide windows the tabs stand in the header, on narrow ones within a thumb's reach at the bottom. */
export function Tabs({ place }: { place: "above" | "below" }) {
  return (
    <nav class={`tabs ${place}`} aria-label={t(place === "above" ? "views" : "viewsBelow")}>
      {TABS.map(([view, icon]) => (
        <a key={view} href={hrefOf({ view })} aria-current={isAt(route.value, view) ? "page" : undefined}>
          <Icon name={icon} />
          <span>{t(view)}</span>
        </a>
      ))}
    </nav>
  );
}

export function Header() {
  const name = String(followed("system:host/name").value?.value?.value ?? location.hostname);
  document.title = name;
  return (
    <header class="top">
      <a class="brand" href="#/" aria-label={`${name}: ${t("dashboard")}`}>
        <span class={online.value ? "lamp on" : "lamp"} />
        <span class="clip">{name}</span>
      </a>
      <Tabs place="above" />
      <div class="tools">
        {(staged.value.size > 0 || collecting.value) && (
          <Button kind="main" icon="edit" onClick={() => (isPanelOpen.value = true)}>
            {t("changesCount", staged.value.size)}
          </Button>
        )}
        <Account />
        <details class="menu">
          <summary class="button quiet round" aria-label={t("menu")} title={t("menu")}>
            <Icon name="menu" />
          </summary>
          <Menu />
        </details>
      </div>
    </header>
  );
}

function Account() {
  const name = user.value;
  if (name === null) {
    return (
      <Button icon="user" onClick={askToSignIn}>
        {t("signIn")}
      </Button>
    );
  }
  return (
    <details class="menu">
      <summary class="button plain">
        <Icon name="user" size={18} /> <span class="clip">{name}</span>
      </summary>
      <div>
        <button type="button" onClick={() => (sessionDialog.value = "password")}>
          {t("changePassword")}
        </button>
        <button type="button" onClick={signOut}>
          {t("signOut")}
        </button>
      </div>
    </details>
  );
}

function Menu() {
  return (
    <div onClick={(event) => (event.currentTarget.closest("details") as HTMLDetailsElement).removeAttribute("open")}>
      <button type="button" onClick={() => (isPanelOpen.value = true)}>
        <Icon name="undo" size={18} /> {t("changes")}
      </button>
      <button type="button" onClick={() => (theme.value = NEXT_THEME[theme.value])}>
        <Icon name={theme.value} size={18} /> {t(`theme_${theme.value}`)}
      </button>
      <button
        type="button"
        lang={language.value === "en" ? "de" : "en"}
        onClick={() => (language.value = language.value === "en" ? "de" : "en")}
      >
        <Icon name="language" size={18} /> {t("otherLanguage")}
      </button>
      <button type="button" onClick={() => (isHelpOpen.value = true)}>
        <Icon name="help" size={18} /> {t("help")}
      </button>
    </div>
  );
}
