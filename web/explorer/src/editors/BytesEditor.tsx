import { t } from "../i18n/index.js";
import { formatBytes } from "../model/values.js";
import { Button } from "../widgets/Button.js";
import { bytesOf, saveAs, toBase64 } from "../widgets/files.js";
import type { EditorProps } from "./contract.js";

const SHOWN = 64;

const hex = (bytes: Uint8Array): string =>
  Array.from(bytes.subarray(0, SHOWN), (byte) => byte.toString(16).padStart(2, "0")).join(" ") +
  (bytes.length > SHOWN ? " …" : "");

/** Bytes come from a file and go into one; the first of them are shown. */
export function BytesEditor({ id, value, disabled, onDraft }: EditorProps) {
  const bytes = bytesOf(String(value.value ?? ""));
  return (
    <div class="stack">
      <code class="bytes">{bytes.length ? hex(bytes) : "–"}</code>
      <div class="field">
        <span class="quiet">{formatBytes(bytes.length)}</span>
        <Button icon="download" onClick={() => saveAs("value.bin", bytes, "application/octet-stream")}>
          {t("saveFile")}
        </Button>
        {!disabled && (
          <input
            id={id}
            type="file"
            onChange={async (event) => {
              const file = event.currentTarget.files?.[0];
              if (file) onDraft(toBase64(new Uint8Array(await file.arrayBuffer())));
            }}
          />
        )}
      </div>
    </div>
  );
}
