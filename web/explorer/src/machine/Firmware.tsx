import { sha256 } from "@noble/hashes/sha2.js";
import { bytesToHex } from "@noble/hashes/utils.js";
import { useSignal } from "@preact/signals";
import { useEffect, useId, useRef } from "preact/hooks";

import { device } from "../device/connection.js";
import { useLive } from "../device/live.js";
import { attempt } from "../device/problems.js";
import { caller, whyReadOnly } from "../device/session.js";
import { ReadOnlyNote } from "../editors/ValueEditor.js";
import { t } from "../i18n/index.js";
import { formatBytes, formatValue } from "../model/values.js";
import { Button } from "../widgets/Button.js";

const PIECE = 1 << 20;
const UPDATE = "system:update";
const NODES = ["state", "name", "size", "sha256", "error"] as const;

type Stage = { name: "summing" | "sending"; part: number } | { name: "done"; bytes: number; sha256: string };

/** The sum of a file of any size, a piece at a time, so that the page stays alive. */
async function sumOf(file: Blob, signal: AbortSignal, onPart: (part: number) => void): Promise<string> {
  const hash = sha256.create();
  for (let at = 0; at < file.size; at += PIECE) {
    signal.throwIfAborted();
    hash.update(new Uint8Array(await file.slice(at, at + PIECE).arrayBuffer()));
    onPart(Math.min(1, (at + PIECE) / file.size));
  }
  return bytesToHex(hash.digest());
}

/** Sends an image with its sum, and shows what the device makes of it. */
export function Firmware() {
  const id = useId();
  const stage = useSignal<Stage | null>(null);
  const file = useSignal<File | null>(null);
  const ending = useRef<AbortController | null>(null);
  useEffect(() => () => ending.current?.abort(), []);
  const update = useLive(UPDATE).roles.value;
  const reason = update ? whyReadOnly(update, caller.value) : null;
  const limit = Number(useLive("settings:webserver/limits/updateBytes").roles.value?.value?.value ?? Infinity);
  const isTooLarge = file.value !== null && file.value.size > limit;

  const send = async (image: File) => {
    const { signal } = (ending.current = new AbortController());
    const answer = await attempt(t("firmware"), async () => {
      const sum = await sumOf(image, signal, (part) => (stage.value = { name: "summing", part }));
      const onProgress = (sent: number, total: number) =>
        (stage.value = { name: "sending", part: total ? sent / total : 0 });
      return device.upload(image, { name: image.name, sha256: sum, onProgress, signal });
    });
    stage.value = answer ? { name: "done", ...answer } : null;
  };
  const now = stage.value;
  const isBusy = now !== null && now.name !== "done";
  return (
    <section class="card stack" aria-labelledby={`${id}-title`}>
      <h2 id={`${id}-title`}>{t("firmware")}</h2>
      <p class="quiet">{t("firmwareAbout")}</p>
      <div class="field">
        <label for={id} class="sr-only">
          {t("chooseImage")}
        </label>
        <input
          id={id}
          type="file"
          disabled={isBusy}
          onChange={(event) => (file.value = event.currentTarget.files?.[0] ?? null)}
        />
        <Button
          icon="upload"
          kind="main"
          disabled={!file.value || isTooLarge || isBusy || reason !== null}
          onClick={() => file.value && void send(file.value)}
        >
          {t("upload")}
        </Button>
        {isBusy && (
          <Button kind="quiet" onClick={() => ending.current?.abort()}>
            {t("cancel")}
          </Button>
        )}
      </div>
      {reason && <ReadOnlyNote reason={reason} />}
      <div role="status">
        {isTooLarge && <p class="alarm">{t("imageTooLarge", formatBytes(limit))}</p>}
        {now && now.name !== "done" && (
          <label class="stack">
            {t(now.name, Math.round(now.part * 100))}
            <progress value={now.part} max={1} />
          </label>
        )}
        {now?.name === "done" && (
          <p>
            {t("uploaded", formatBytes(now.bytes))} <code>{now.sha256}</code>
          </p>
        )}
      </div>
      <DeviceProgress />
    </section>
  );
}

/** What the device itself says about the last image, where it does. */
function DeviceProgress() {
  const nodes = Object.fromEntries(NODES.map((name) => [name, useLive(`${UPDATE}/${name}`)]));
  const progress = useLive(`${UPDATE}/progress`).roles.value?.value?.value;
  const shown = NODES.map((name) => [name, nodes[name]?.roles.value] as const).filter(([, roles]) =>
    formatValue(roles?.value),
  );
  if (shown.length === 0) return null;
  return (
    <>
      {typeof progress === "number" && progress > 0 && progress < 100 && (
        <progress value={progress} max={100} aria-label={t("firmware")} />
      )}
      <dl>
        {shown.map(([name, roles]) => [
          <dt key={name}>{roles?.title ?? name}</dt>,
          <dd key={`${name}.`} class="break">
            {formatValue(roles?.value, roles?.edit)}
          </dd>,
        ])}
      </dl>
    </>
  );
}
