import type { FunctionComponent } from "preact";

import type { EditRules, Typed } from "../device/types.js";

/** What every editor is given. It keeps no value of its own: what it shows is what it was last given. */
export interface EditorProps {
  /** Of the element that takes the value, for its label. */
  id: string;
  value: Typed;
  edit: EditRules | null;
  disabled: boolean;
  /** The reader is at it: shown, and written by "apply". Null while what is typed is no value of this type. */
  onDraft: (value: unknown) => void;
  /** The reader has decided, as with a switch: written at once. */
  onCommit: (value: unknown) => void;
}

export type Editor = FunctionComponent<EditorProps>;
