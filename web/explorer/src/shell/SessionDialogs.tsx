import { useSignal } from "@preact/signals";
import { useEffect, useId } from "preact/hooks";

import { notify } from "../device/notices.js";
import { attempt } from "../device/problems.js";
import {
  changePassword,
  isWithoutPassword,
  longestHold,
  sessionDialog,
  signIn,
  user,
  wrongPasswords,
} from "../device/session.js";
import { type MessageKey, t } from "../i18n/index.js";
import { Button } from "../widgets/Button.js";
import { Modal } from "../widgets/Modal.js";

const LEAST_LENGTH = 6;
const close = (): void => {
  sessionDialog.value = null;
};

interface FieldProps {
  label: string;
  value: string;
  onInput: (value: string) => void;
  secret?: "current-password" | "new-password";
  autofocus?: boolean;
}

function Field({ label, value, onInput, secret, autofocus = false }: FieldProps) {
  const id = useId();
  const common = {
    id,
    class: "text",
    autofocus,
    value,
    onInput: (event: InputEvent) => onInput((event.currentTarget as HTMLInputElement).value),
  };
  return (
    <div class="stack tight">
      <label for={id}>{label}</label>
      {secret ? (
        <input {...common} type="password" autocomplete={secret} />
      ) : (
        <input {...common} type="text" autocomplete="username" />
      )}
    </div>
  );
}

export function SignInDialog() {
  const name = useSignal("admin");
  const password = useSignal("");
  const isWrong = useSignal(false);
  const isBusy = useSignal(false);

  const submit = async () => {
    isBusy.value = true;
    isWrong.value = false;
    const accepted = await attempt(t("signIn"), () => signIn(name.value, password.value));
    isBusy.value = false;
    if (accepted) close();
    isWrong.value = accepted === false;
  };
  return (
    <Modal title={t("signIn")} onClose={close}>
      <form class="stack" onSubmit={(event) => (event.preventDefault(), void submit())}>
        {isWithoutPassword.value && <p class="note">{t("signInNoPassword")}</p>}
        <Field label={t("user")} value={name.value} onInput={(text) => (name.value = text)} />
        <Field
          label={t("password")}
          value={password.value}
          onInput={(text) => (password.value = text)}
          secret="current-password"
          autofocus
        />
        <p class="quiet">{t("signInAbout")}</p>
        <div role="alert">
          {isWrong.value && <p class="alarm">{t("wrongPassword")}</p>}
          {isBusy.value && wrongPasswords.value > 0 && <Brake seconds={longestHold(wrongPasswords.value)} />}
        </div>
        <div class="actions">
          <Button kind="main" type="submit" disabled={isBusy.value}>
            {t("signIn")}
          </Button>
          <Button onClick={close}>{t("cancel")}</Button>
        </div>
      </form>
    </Modal>
  );
}

/** The device answers wrong passwords later and later. How long exactly it does not say; at most so long. */
function Brake({ seconds }: { seconds: number }) {
  const left = useSignal(seconds);
  useEffect(() => {
    const timer = setInterval(() => (left.value = Math.max(0, left.value - 1)), 1000);
    return () => clearInterval(timer);
  }, [left]);
  return (
    <p class="note">
      {t("heldBack", left.value)}
      <progress value={seconds - left.value} max={seconds} aria-label={t("heldBack", left.value)} />
    </p>
  );
}

/** What is wrong with the new password, before the device is asked; null when nothing is. */
function fault(password: string, again: string): MessageKey | null {
  if (password.length < LEAST_LENGTH) return "tooShort";
  return password === again ? null : "notTheSame";
}

/** Sets the first password, or another one. */
export function PasswordDialog() {
  const isFirst = isWithoutPassword.value;
  const name = useSignal(user.value ?? "admin");
  const old = useSignal("");
  const fresh = useSignal("");
  const again = useSignal("");
  const wrong = fresh.value ? fault(fresh.value, again.value) : null;

  const submit = async () => {
    const done = await attempt(t("changePassword"), async () => {
      await changePassword(name.value, old.value, fresh.value);
      return true;
    });
    if (!done) return;
    notify({ id: "password", kind: "done", text: t("passwordChanged") });
    close();
  };
  return (
    <Modal title={t(isFirst ? "setPassword" : "changePassword")} onClose={close}>
      <form class="stack" onSubmit={(event) => (event.preventDefault(), void submit())}>
        {isFirst && <p class="note">{t("firstPasswordAbout")}</p>}
        <Field label={t("user")} value={name.value} onInput={(text) => (name.value = text)} />
        {!isFirst && (
          <Field
            label={t("oldPassword")}
            value={old.value}
            onInput={(text) => (old.value = text)}
            secret="current-password"
            autofocus
          />
        )}
        <Field
          label={t("newPassword")}
          value={fresh.value}
          onInput={(text) => (fresh.value = text)}
          secret="new-password"
          autofocus={isFirst}
        />
        <Field
          label={t("newPasswordAgain")}
          value={again.value}
          onInput={(text) => (again.value = text)}
          secret="new-password"
        />
        <p class="alarm" role="alert">
          {wrong && (wrong === "tooShort" || again.value) ? t(wrong) : ""}
        </p>
        <div class="actions">
          <Button kind="main" type="submit" disabled={!fresh.value || wrong !== null}>
            {t("apply")}
          </Button>
          <Button onClick={close}>{t("cancel")}</Button>
        </div>
      </form>
    </Modal>
  );
}
