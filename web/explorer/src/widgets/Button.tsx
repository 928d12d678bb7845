import type { ComponentChildren } from "preact";

import { Icon } from "./Icon.js";

interface Common {
  onClick?: () => void;
  disabled?: boolean;
  /** For a button that stays down. */
  pressed?: boolean;
}

interface Props extends Common {
  icon?: string;
  kind?: "main" | "plain" | "quiet" | "danger";
  type?: "button" | "submit";
  children?: ComponentChildren;
}

export function Button({ icon, kind = "plain", type = "button", pressed, children, ...rest }: Props) {
  return (
    <button {...rest} type={type} class={`button ${kind}`} aria-pressed={pressed}>
      {icon && <Icon name={icon} size={18} />}
      {children}
    </button>
  );
}

/** A button that shows an icon alone; its name is read aloud, and shown when the pointer rests on it. */
export function IconButton({ icon, name, pressed, ...rest }: Common & { icon: string; name: string }) {
  return (
    <button {...rest} type="button" class="button quiet round" aria-label={name} title={name} aria-pressed={pressed}>
      <Icon name={icon} />
    </button>
  );
}
