import { useSignal } from "@preact/signals";
import { useEffect, useId, useMemo } from "preact/hooks";

import { collecting, propose, stage, staged, unstage } from "../changes/changes.js";
import type { LiveNode } from "../device/live.js";
import { askToSignIn, caller, whyReadOnly, type ReadOnlyReason } from "../device/session.js";
import type { Typed } from "../device/types.js";
import { type MessageKey, t } from "../i18n/index.js";
import { nameOf } from "../model/paths.js";
import { sameValue } from "../model/values.js";
import { Button } from "../widgets/Button.js";
import { Icon } from "../widgets/Icon.js";
import { editorFor, rulesFor } from "./index.js";
import { LatestWriter } from "./LatestWriter.js";

const REASONS: Record<ReadOnlyReason, MessageKey> = {
  fixed: "readOnlyFixed",
  signIn: "readOnlySignIn",
  internal: "readOnlyInternal",
};

export function ReadOnlyNote({ reason }: { reason: ReadOnlyReason }) {
  return (
    <p class="note">
      <Icon name="lock" size={16} /> {t(REASONS[reason])}{" "}
      {reason === "signIn" && (
        <button type="button" class="link" onClick={askToSignIn}>
          {t("signIn")}
        </button>
      )}
    </p>
  );
}

interface Props {
  node: LiveNode;
  label: string;
  /** Edits are always collected here, whatever the reader chose elsewhere. */
  collect?: boolean;
  /** Writes without a word when all goes well, and leaves it to the view to say why it may not. */
  quiet?: boolean;
}

/** The editor of a value node with all that is the same for every type: draft, apply, collect, refusal, read-only. */
export function ValueEditor({ node, label, collect = false, quiet = false }: Props) {
  const id = useId();
  const roles = node.roles.value;
  const draft = useSignal<{ value: unknown } | null>(null);
  const writer = useMemo(() => new LatestWriter(), [node]);
  const current = roles?.value ?? null;

  useEffect(() => {
    draft.value = null;
  }, [node, draft]);

  if (!roles || !current) return null;
  const change = (value: unknown) => ({
    path: node.path,
    title: roles.title ?? nameOf(node.path),
    from: node.roles.peek()?.value ?? null,
    to: { type: current.type, value },
    edit: roles.edit ?? null,
  });
  const reason = whyReadOnly(roles, caller.value);
  const waiting = staged.value.get(node.path);
  const shown = shownValue(current, draft.value, waiting?.to, writer.wanted.value);
  const edit = rulesFor(current, roles.edit ?? null);
  const Editor = editorFor(current, roles.edit ?? null);
  const collects = collect || collecting.value;

  const commit = (value: unknown) => {
    draft.value = null;
    if (collects) stage(change(value));
    else void writer.write({ value }, (wanted) => propose(change(wanted.value), quiet));
  };
  const onDraft = (value: unknown) => {
    if (collects && value !== null) commit(value);
    else draft.value = value !== null && sameValue(value, current.value) ? null : { value };
  };
  return (
    <form
      class={waiting ? "editor staged" : "editor"}
      onSubmit={(event) => {
        event.preventDefault();
        if (draft.value && draft.value.value !== null) commit(draft.value.value);
      }}
    >
      <label for={id} class="sr-only">
        {label}
      </label>
      <Editor id={id} value={shown} edit={edit} disabled={reason !== null} onDraft={onDraft} onCommit={commit} />
      {draft.value && (
        <DraftActions
          isValid={draft.value.value !== null}
          onCollect={() => {
            stage(change(draft.value?.value));
            draft.value = null;
          }}
          onRevert={() => (draft.value = null)}
        />
      )}
      {waiting && <StagedNote path={node.path} />}
      {reason && !quiet && <ReadOnlyNote reason={reason} />}
    </form>
  );
}

interface DraftProps {
  isValid: boolean;
  onCollect: () => void;
  onRevert: () => void;
}

function DraftActions({ isValid, onCollect, onRevert }: DraftProps) {
  return (
    <div class="actions">
      <Button kind="main" type="submit" disabled={!isValid}>
        {t("apply")}
      </Button>
      <Button disabled={!isValid} onClick={onCollect}>
        {t("collect")}
      </Button>
      <Button kind="quiet" onClick={onRevert}>
        {t("revert")}
      </Button>
    </div>
  );
}

function StagedNote({ path }: { path: string }) {
  return (
    <p class="note">
      {t("isStaged")}{" "}
      <button type="button" class="link" onClick={() => unstage(path)}>
        {t("takeBack")}
      </button>
    </p>
  );
}

/** What the reader is at comes first, then what is collected or on its way, then what the device has. */
function shownValue(
  current: Typed,
  draft: { value: unknown } | null,
  stagedTo: Typed | undefined,
  wanted: { value: unknown } | null,
): Typed {
  if (draft) return { type: current.type, value: draft.value };
  if (stagedTo) return stagedTo;
  return wanted ? { type: current.type, value: wanted.value } : current;
}
