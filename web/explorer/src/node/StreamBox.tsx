import { useSignal } from "@preact/signals";

import { device } from "../device/connection.js";
import { t } from "../i18n/index.js";
import { LogLines } from "../machine/LogLines.js";
import { Button } from "../widgets/Button.js";

/** Sound that the browser plays as it comes. */
export function AudioBox({ path }: { path: string }) {
  const failed = useSignal(false);
  return (
    <>
      <audio
        controls
        preload="none"
        src={device.streamUrl(path)}
        aria-label={t("audio")}
        onError={() => (failed.value = true)}
      />
      {failed.value && <p class="note">{t("noStream")}</p>}
    </>
  );
}

/** A stream: sound is played, text is shown line by line. What it is tells only the stream itself, so the reader asks. */
export function StreamBox({ path }: { path: string }) {
  const shown = useSignal<"audio" | "text" | null>(
    /audio|sound/.test(path) ? "audio" : /log|lines/.test(path) ? "text" : null,
  );
  return (
    <section class="card stack">
      {shown.value === "audio" && <AudioBox path={path} />}
      {shown.value === "text" && <LogLines path={path} />}
      <div class="actions">
        <Button icon="audio" pressed={shown.value === "audio"} onClick={() => (shown.value = "audio")}>
          {t("listen")}
        </Button>
        <Button icon="list" pressed={shown.value === "text"} onClick={() => (shown.value = "text")}>
          {t("showText")}
        </Button>
        <a class="button plain" href={device.streamUrl(path)} download="">
          {t("download")}
        </a>
      </div>
    </section>
  );
}
