import { useLive } from "../device/live.js";
import { t } from "../i18n/index.js";
import { pins } from "../model/preferences.js";
import { Card } from "../widgets/Card.js";
import { MachineCard } from "./MachineCard.js";
import { PinCard } from "./PinCard.js";
import { PlayerCard } from "./PlayerCard.js";

/** What one sees first: what the device does, how it is, and what the reader has pinned. */
export function Dashboard() {
  const name = useLive("system:host/name").roles.value?.value?.value;
  return (
    <div class="page">
      <header class="hero">
        <h1>{String(name ?? location.hostname)}</h1>
        <p class="quiet">{t("tagline")}</p>
      </header>
      <div class="grid">
        <PlayerCard />
        <MachineCard />
        {pins.paths.value.map((path) => (
          <PinCard key={path} path={path} />
        ))}
        <Card title={t("more")}>
          <p class="quiet">{t("moreAbout")}</p>
          <div class="actions">
            <a class="button plain" href="#/tree">
              {t("browse")}
            </a>
            <a class="button plain" href="#/machine">
              {t("machine")}
            </a>
          </div>
        </Card>
      </div>
    </div>
  );
}
