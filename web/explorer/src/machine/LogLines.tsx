import { DeviceError } from "@zark/client";
import { useSignal } from "@preact/signals";
import { useEffect, useRef } from "preact/hooks";

import { device } from "../device/connection.js";
import { describe } from "../device/problems.js";
import { rights } from "../device/session.js";
import { t } from "../i18n/index.js";
import { Button } from "../widgets/Button.js";

const MOST_LINES = 1000;

/** Lines of a text stream as they come, the last ones in sight unless the reader has scrolled away from them. */
export function LogLines({ path }: { path: string }) {
  const lines = useSignal<string[]>([]);
  const problem = useSignal<string | null>(null);
  const paused = useSignal(false);
  const box = useRef<HTMLPreElement>(null);
  const caller = rights.value;

  useEffect(() => {
    if (paused.value) return undefined;
    const ending = new AbortController();
    problem.value = null;
    let retry: ReturnType<typeof setTimeout>;
    const open = async (wait: number): Promise<void> => {
      let isFirst = true;
      try {
        await follow(path, ending.signal, (more) => {
          // The device begins with its last lines each time.
          lines.value = [...(isFirst ? [] : lines.value), ...more].slice(-MOST_LINES);
          isFirst = false;
          problem.value = null;
        });
      } catch (error: unknown) {
        if (ending.signal.aborted) return;
        problem.value = describe(error);
        if (error instanceof DeviceError && error.kind !== "offline") return;
      }
      if (!ending.signal.aborted) retry = setTimeout(() => void open(Math.min(2 * wait, 30_000)), isFirst ? wait : 1_000);
    };
    void open(1_000);
    return () => {
      ending.abort();
      clearTimeout(retry);
    };
  }, [path, caller, paused.value, lines, problem]);

  useEffect(() => {
    const element = box.current;
    if (element && element.scrollHeight - element.scrollTop - element.clientHeight < 80)
      element.scrollTop = element.scrollHeight;
  }, [lines.value]);

  return (
    <div class="stack">
      {problem.value && <p class="note">{t("noLog", problem.value)}</p>}
      <pre
        class="log mono"
        role="log"
        aria-live="off"
        ref={box}
        tabIndex={0}
        aria-label={t("log")}
        hidden={problem.value !== null && lines.value.length === 0}
      >
        {lines.value.join("\n")}
      </pre>
      <div class="actions">
        <Button icon={paused.value ? "play" : "pause"} onClick={() => (paused.value = !paused.value)}>
          {t(paused.value ? "resume" : "pause")}
        </Button>
        <Button kind="quiet" onClick={() => (lines.value = [])}>
          {t("clear")}
        </Button>
      </div>
    </div>
  );
}

async function follow(path: string, signal: AbortSignal, tell: (lines: string[]) => void): Promise<void> {
  const { body } = await device.openStream(path, { signal });
  const reader = body?.getReader();
  const decoder = new TextDecoder();
  for (let rest = ""; ;) {
    const { done, value } = (await reader?.read()) ?? { done: true };
    if (done) return;
    const lines = (rest + decoder.decode(value, { stream: true })).split("\n");
    rest = lines.pop() ?? "";
    if (lines.length) tell(lines);
  }
}
