import type { ComponentChildren } from "preact";
import { useEffect, useRef } from "preact/hooks";

import { t } from "../i18n/index.js";
import { IconButton } from "./Button.js";

interface Props {
  title: string;
  onClose: () => void;
  children: ComponentChildren;
  /** At the side of the window rather than in its middle. */
  side?: boolean;
}

/** A dialog over the page; the browser keeps the focus inside, and Escape closes it. */
export function Modal({ title, onClose, children, side = false }: Props) {
  const dialog = useRef<HTMLDialogElement>(null);
  useEffect(() => {
    const element = dialog.current as HTMLDialogElement;
    element.showModal();
    return () => element.close();
  }, []);
  return (
    <dialog
      ref={dialog}
      class={side ? "modal side" : "modal"}
      aria-label={title}
      onCancel={(event) => {
        event.preventDefault();
        onClose();
      }}
      onClick={(event) => event.target === dialog.current && onClose()}
    >
      <div class="modal-body">
        <header>
          <h2>{title}</h2>
          <IconButton icon="close" name={t("close")} onClick={onClose} />
        </header>
        {children}
      </div>
    </dialog>
  );
}
