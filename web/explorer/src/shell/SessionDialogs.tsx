import { useSignal } from "@preact/signals";
import type { ComponentChildren } from "preact";
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

interface FormProps {
  label: string;
  disabled?: boolean;
  /** False when the password was wrong, undefined when something else was, which the reader has been told. */
  send: () => Promise<boolean | undefined>;
  children: ComponentChildren;
}

/** Sends a password, once at a time, and closes the dialog when it was right. */
function PasswordForm({ label, disabled = false, send, children }: FormProps) {
  const isWrong = useSignal(false);
  const isBusy = useSignal(false);
  const submit = async () => {
    isBusy.value = true;
    isWrong.value = false;
    const accepted = await send();
    isBusy.value = false;
    isWrong.value = accepted === false;
    if (accepted) close();
  };
  return (
    <form class="stack" onSubmit={(event) => (event.preventDefault(), void submit())}>
      {children}
      <p class="alarm" role="alert">
        {isWrong.value && t("wrongPassword")}
      </p>
      {isBusy.value && wrongPasswords.value > 0 && <Brake seconds={longestHold(wrongPasswords.value)} />}
      <div class="actions">
        <Button kind="main" type="submit" disabled={disabled || isBusy.value}>
          {label}
        </Button>
        <Button onClick={close}>{t("cancel")}</Button>
      </div>
    </form>
  );
}

/** The device answers wrong passwords later and later. How long exactly it does not say; at most about so long. */
function Brake({ seconds }: { seconds: number }) {
  const left = useSignal(seconds);
  useEffect(() => {
    const timer = setInterval(() => (left.value = Math.max(0, left.value - 1)), 1000);
    return () => clearInterval(timer);
  }, [left]);
  const text = t("heldBack", left.value ? t("secondsAtMost", left.value) : t("anyMoment"));
  return (
    <p class="note" role="timer">
      {text}
      <progress value={seconds - left.value} max={seconds} aria-label={text} />
    </p>
  );
}

export function SignInDialog() {
  const name = useSignal("admin");
  const password = useSignal("");
  return (
    <Modal title={t("signIn")} onClose={close}>
      <PasswordForm
        label={t("signIn")}
        send={() => attempt(t("signIn"), () => signIn(name.value, password.value))}
      >
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
      </PasswordForm>
    </Modal>
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

  const send = async () => {
    const done = await attempt(t("changePassword"), () => changePassword(name.value, old.value, fresh.value));
    if (done) notify({ id: "password", kind: "done", text: t("passwordChanged") });
    return done;
  };
  return (
    <Modal title={t(isFirst ? "setPassword" : "changePassword")} onClose={close}>
      <PasswordForm label={t("apply")} disabled={!fresh.value || wrong !== null} send={send}>
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
      </PasswordForm>
    </Modal>
  );
}
