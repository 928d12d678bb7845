import { t } from "../i18n/index.js";
import { Authority } from "./Authority.js";
import { Firmware } from "./Firmware.js";
import { LogLines } from "./LogLines.js";
import { Settings } from "./Settings.js";

const LOG = "system:log/lines";

/** What concerns the device as a machine rather than what it does. */
export function MachineView() {
  return (
    <div class="page columns">
      <h1 class="sr-only">{t("machine")}</h1>
      <div class="stack">
        <Settings />
      </div>
      <div class="stack">
        <Firmware />
        <Authority />
        <section class="card stack" aria-label={t("log")}>
          <h2>{t("log")}</h2>
          <LogLines path={LOG} />
        </section>
      </div>
    </div>
  );
}
