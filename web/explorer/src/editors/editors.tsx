import { parseJson } from "@zark/client";
import { useSignal } from "@preact/signals";

import { optionsOf } from "../device/types.js";
import { t } from "../i18n/index.js";
import { sameValue, toPrettyJson } from "../model/values.js";
import { IconButton } from "../widgets/Button.js";
import type { EditorProps } from "./contract.js";

export function SwitchEditor({ id, value, disabled, onCommit }: EditorProps) {
  return (
    <input
      id={id}
      type="checkbox"
      role="switch"
      class="switch"
      checked={value.value === true}
      disabled={disabled}
      onChange={(event) => onCommit(event.currentTarget.checked)}
    />
  );
}

export function SliderEditor({ id, value, edit, disabled, onCommit }: EditorProps) {
  /** What is being typed, which a change of the value from elsewhere must not take away. */
  const typed = useSignal<string | null>(null);
  const bounds = { min: String(edit?.minimum), max: String(edit?.maximum), step: String(edit?.step ?? "any") };
  const unit = edit?.unit ?? "";
  return (
    <span class="slider">
      <input
        {...bounds}
        id={id}
        type="range"
        value={String(value.value)}
        disabled={disabled}
        aria-valuetext={`${String(value.value)} ${unit}`}
        onInput={(event) => onCommit(event.currentTarget.valueAsNumber)}
      />
      <input
        {...bounds}
        type="number"
        class="number"
        aria-label={t("exactValue")}
        value={typed.value ?? String(value.value)}
        disabled={disabled}
        onInput={(event) => (typed.value = event.currentTarget.value)}
        onChange={(event) => {
          typed.value = null;
          if (event.currentTarget.value !== "") onCommit(event.currentTarget.valueAsNumber);
        }}
      />
      {unit && <span class="quiet">{unit}</span>}
    </span>
  );
}

/** A 64-bit integer has more digits than the browser's number, and so it stays text until it is whole. */
function parseNumber(text: string, type: string): number | bigint | null {
  if (type === "double") return text.trim() !== "" && Number.isFinite(Number(text)) ? Number(text) : null;
  if (!/^\s*-?\d+\s*$/.test(text)) return null;
  const exact = BigInt(text);
  return Number.isSafeInteger(Number(exact)) ? Number(exact) : exact;
}

export function NumberEditor({ id, value, edit, disabled, onDraft }: EditorProps) {
  const typed = useSignal<string | null>(null);
  const bounds = [edit?.minimum, edit?.maximum].map((bound) => (bound === undefined ? "" : String(bound)));
  // What is typed stays as it is typed while it means what the value is.
  const shown = typed.value !== null && parseNumber(typed.value, value.type) === value.value ? typed.value : undefined;
  return (
    <span class="field">
      <input
        id={id}
        class="number"
        inputMode={value.type === "double" ? "decimal" : "numeric"}
        value={shown ?? String(value.value ?? typed.value ?? "")}
        disabled={disabled}
        aria-invalid={value.value === null}
        onInput={(event) => {
          typed.value = event.currentTarget.value;
          onDraft(parseNumber(event.currentTarget.value, value.type));
        }}
      />
      {edit?.unit && <span class="quiet">{edit.unit}</span>}
      {(bounds[0] || bounds[1]) && <span class="quiet">{`${bounds[0]} … ${bounds[1]}`}</span>}
    </span>
  );
}

export function SelectEditor({ id, value, edit, disabled, onCommit }: EditorProps) {
  const options = optionsOf(edit);
  const chosen = options.findIndex((option) => sameValue(option.value, value.value));
  return (
    <select
      id={id}
      value={String(chosen)}
      disabled={disabled}
      onChange={(event) => onCommit(options[Number(event.currentTarget.value)]?.value)}
    >
      {chosen < 0 && <option value="-1">–</option>}
      {options.map((option, index) => (
        <option key={index} value={String(index)}>
          {option.title}
        </option>
      ))}
    </select>
  );
}

const MOST_LINES = 12;

/** One line, as most texts are, and more when there are: a certificate that is pasted keeps its lines. */
export function TextEditor({ id, value, disabled, onDraft }: EditorProps) {
  const text = String(value.value ?? "");
  const lines = Math.min(text.split("\n").length, MOST_LINES);
  return (
    <textarea
      id={id}
      class={lines > 1 ? "mono" : "one-line"}
      rows={lines}
      spellcheck={false}
      value={text}
      disabled={disabled}
      onInput={(event) => onDraft(event.currentTarget.value)}
      onKeyDown={(event) => {
        if (event.key !== "Enter" || event.shiftKey || lines > 1) return;
        event.preventDefault();
        event.currentTarget.form?.requestSubmit();
      }}
    />
  );
}

export function TextListEditor({ id, value, disabled, onDraft }: EditorProps) {
  const texts = (value.value as string[] | null) ?? [];
  const put = (index: number, text: string) => onDraft(texts.map((each, i) => (i === index ? text : each)));
  return (
    <div class="text-list">
      {texts.map((text, index) => (
        <div class="field" key={index}>
          <input
            id={index === 0 ? id : undefined}
            class="text"
            aria-label={t("entry", index + 1)}
            value={text}
            disabled={disabled}
            onInput={(event) => put(index, event.currentTarget.value)}
          />
          {!disabled && (
            <IconButton
              icon="close"
              name={t("removeEntry", index + 1)}
              onClick={() => onDraft(texts.filter((_, i) => i !== index))}
            />
          )}
        </div>
      ))}
      {!disabled && (
        <button
          type="button"
          id={texts.length ? undefined : id}
          class="button plain"
          onClick={() => onDraft([...texts, ""])}
        >
          {t("addEntry")}
        </button>
      )}
    </div>
  );
}

/** Values of a structure that no other editor knows, as JSON. */
export function JsonEditor({ id, value, disabled, onDraft }: EditorProps) {
  const typed = useSignal<string | null>(null);
  return (
    <textarea
      id={id}
      class="mono"
      rows={6}
      spellcheck={false}
      disabled={disabled}
      value={
        typed.value !== null && sameValue(parsed(typed.value), value.value) ? typed.value : toPrettyJson(value.value)
      }
      aria-invalid={value.value === null}
      onInput={(event) => {
        typed.value = event.currentTarget.value;
        onDraft(parsed(event.currentTarget.value));
      }}
    />
  );
}

function parsed(text: string): unknown {
  try {
    return parseJson(text);
  } catch {
    return null;
  }
}
