import { type MessageKey, t } from "../i18n/index.js";
import { Modal } from "../widgets/Modal.js";
import { isHelpOpen, SHORTCUTS } from "./shortcuts.js";

const IN_TREE: Array<[keys: string, what: MessageKey]> = [
  ["↑ ↓ Home End", "keysMove"],
  ["→ ←", "keysOpen"],
  ["Enter", "keysShow"],
];

export function Help() {
  return (
    <Modal title={t("help")} onClose={() => (isHelpOpen.value = false)}>
      <p>{t("helpAbout")}</p>
      <h3>{t("shortcuts")}</h3>
      <Keys keys={SHORTCUTS.map(({ keys, what }) => [keys, what])} />
      <h3>{t("inTree")}</h3>
      <Keys keys={IN_TREE} />
    </Modal>
  );
}

function Keys({ keys }: { keys: Array<[keys: string, what: MessageKey]> }) {
  return (
    <dl class="keys">
      {keys.map(([key, what]) => [
        <dt key={key}>
          {key.split(" ").map((each) => (
            <kbd key={each}>{each}</kbd>
          ))}
        </dt>,
        <dd key={what}>{t(what)}</dd>,
      ])}
    </dl>
  );
}
