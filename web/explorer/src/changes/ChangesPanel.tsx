import { language, onOff, t } from "../i18n/index.js";
import { formatValue } from "../model/values.js";
import { Button, IconButton } from "../widgets/Button.js";
import { Modal } from "../widgets/Modal.js";
import {
  applyAll,
  applying,
  type Change,
  collecting,
  discardAll,
  done,
  isPanelOpen,
  staged,
  undo,
  unstage,
} from "./changes.js";
import { riskOf } from "./risks.js";

/** What is collected, as a difference that is applied together, and what was changed, each to be undone. */
export function ChangesPanel() {
  if (!isPanelOpen.value) return null;
  const changes = [...staged.value.values()];
  const risks = [...new Set(changes.flatMap(({ path }) => riskOf(path) ?? []))];
  return (
    <Modal side title={t("changes")} onClose={() => (isPanelOpen.value = false)}>
      <label class="split">
        <span>{t("collectAll")}</span>
        <input
          type="checkbox"
          role="switch"
          class="switch"
          checked={collecting.value}
          onChange={(event) => (collecting.value = event.currentTarget.checked)}
        />
      </label>
      <h3>{t("collected")}</h3>
      {changes.length === 0 && <p class="quiet">{t("nothingCollected")}</p>}
      <ul class="plain-list">
        {changes.map((change) => (
          <li key={change.path} class="split">
            <Difference change={change} />
            <IconButton icon="close" name={t("takeBackOf", change.title)} onClick={() => unstage(change.path)} />
          </li>
        ))}
      </ul>
      {risks.map((risk) => (
        <p key={risk} class="note warn">
          {t(risk)}
        </p>
      ))}
      {changes.length > 0 && (
        <div class="actions">
          <Button
            kind={risks.length ? "danger" : "main"}
            icon="check"
            disabled={applying.value}
            onClick={() => void applyAll()}
          >
            {t("applyAll", changes.length)}
          </Button>
          <Button onClick={discardAll}>{t("discardAll")}</Button>
        </div>
      )}
      <h3>{t("changed")}</h3>
      {done.value.length === 0 && <p class="quiet">{t("nothingChanged")}</p>}
      <ul class="plain-list">
        {done.value.map((change) => (
          <li key={change.time} class="split">
            <Difference change={change} time={change.time} />
            <Button kind="quiet" icon="undo" onClick={() => void undo(change)}>
              {t("undo")}
            </Button>
          </li>
        ))}
      </ul>
    </Modal>
  );
}

export function Difference({ change, time }: { change: Change; time?: number }) {
  return (
    <div class="difference">
      <strong>{change.title}</strong>{" "}
      {time && <small class="quiet">{new Date(time).toLocaleTimeString(language.value)}</small>}
      <div>
        <del>{formatValue(change.from, change.edit, onOff()) || "–"}</del> →{" "}
        <ins>{formatValue(change.to, change.edit, onOff()) || "–"}</ins>
      </div>
    </div>
  );
}
