import { t } from "../i18n/index.js";
import { Button } from "../widgets/Button.js";
import { Modal } from "../widgets/Modal.js";
import { Difference } from "./ChangesPanel.js";
import { risky, stage, write } from "./changes.js";

const close = (): void => {
  risky.value = null;
};

/** Asks before a change that may cut off the page itself. */
export function RiskDialog() {
  if (!risky.value) return null;
  const { change, risk } = risky.value;
  return (
    <Modal title={t("areYouSure")} onClose={close}>
      <Difference change={change} />
      <p class="note warn">{t(risk)}</p>
      <div class="actions">
        <Button
          kind="danger"
          onClick={() => {
            close();
            void write(change);
          }}
        >
          {t("changeAnyway")}
        </Button>
        <Button
          onClick={() => {
            close();
            stage(change);
          }}
        >
          {t("collect")}
        </Button>
        <Button onClick={close}>{t("cancel")}</Button>
      </div>
    </Modal>
  );
}
