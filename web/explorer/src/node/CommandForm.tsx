import { parseJson } from "@zark/client";
import { useSignal } from "@preact/signals";
import { useId } from "preact/hooks";

import { writer } from "../device/connection.js";
import { attempt } from "../device/problems.js";
import { caller, whyReadOnly } from "../device/session.js";
import { optionsOf, type Roles } from "../device/types.js";
import { ReadOnlyNote } from "../editors/ValueEditor.js";
import { t } from "../i18n/index.js";
import { nameOf } from "../model/paths.js";
import { toPrettyJson } from "../model/values.js";
import { Button } from "../widgets/Button.js";

/** JSON where it is JSON, and otherwise the text itself: nobody wants to quote a single word. */
function argumentOf(text: string): unknown {
  if (text.trim() === "") return null;
  try {
    return parseJson(text);
  } catch {
    return text;
  }
}

/** Runs a command with an argument and shows what it returned. */
export function CommandForm({ path, roles }: { path: string; roles: Partial<Roles> }) {
  const id = useId();
  const argument = useSignal("");
  const result = useSignal<{ text: string } | null>(null);
  const running = useSignal(false);
  const reason = whyReadOnly(roles, caller.value);
  const options = optionsOf(roles.edit);

  const run = async (value: unknown) => {
    running.value = true;
    result.value = null;
    await attempt(roles.title ?? nameOf(path), async () => {
      result.value = { text: toPrettyJson(await writer().invoke(path, value)) };
    });
    running.value = false;
  };
  return (
    <section class="card stack">
      {options.length > 0 ? (
        <div class="actions">
          {options.map((option) => (
            <Button
              key={option.title}
              disabled={reason !== null || running.value}
              onClick={() => void run(option.value)}
            >
              {option.title}
            </Button>
          ))}
        </div>
      ) : (
        <form
          class="stack"
          onSubmit={(event) => {
            event.preventDefault();
            void run(argumentOf(argument.value));
          }}
        >
          <label for={id}>{t("argument")}</label>
          <textarea
            id={id}
            class="mono"
            rows={3}
            spellcheck={false}
            placeholder={roles.description ?? ""}
            value={argument.value}
            disabled={reason !== null}
            onInput={(event) => (argument.value = event.currentTarget.value)}
          />
          <div class="actions">
            <Button icon="action" kind="main" type="submit" disabled={reason !== null || running.value}>
              {t("run")}
            </Button>
          </div>
        </form>
      )}
      {reason && <ReadOnlyNote reason={reason} />}
      <div role="status">
        {result.value && (
          <>
            <h2>{t("result")}</h2>
            <pre class="mono">{result.value.text}</pre>
          </>
        )}
      </div>
    </section>
  );
}
