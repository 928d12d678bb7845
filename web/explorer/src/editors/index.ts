import { type EditRules, optionsOf, type Typed } from "../device/types.js";
import { BytesEditor } from "./BytesEditor.js";
import type { Editor } from "./contract.js";
import {
  JsonEditor,
  NumberEditor,
  SelectEditor,
  SliderEditor,
  SwitchEditor,
  TextEditor,
  TextListEditor,
} from "./editors.js";

const AUTH_MODES = ["off", "writes", "writesAndEvents", "everything"];
/** A slider that has more steps than this cannot be set exactly with a finger. */
const MOST_STEPS = 1000;

const isNumeric = (type: string): boolean => type === "i32" || type === "i64" || type === "double";

function isSlider(type: string, edit: EditRules | null): boolean {
  if (type === "i64" || edit?.minimum === undefined || edit.maximum === undefined) return false;
  const range = Number(edit.maximum) - Number(edit.minimum);
  return range / Number(edit.step ?? (type === "double" ? range / 100 : 1)) <= MOST_STEPS;
}

/** The first that fits is the one. */
const EDITORS: Array<[fits: (type: string, edit: EditRules | null) => boolean, editor: Editor]> = [
  [(_, edit) => optionsOf(edit).length > 0, SelectEditor],
  [(type) => type === "webserverAuthMode", SelectEditor],
  [(type) => type === "bool", SwitchEditor],
  [isSlider, SliderEditor],
  [isNumeric, NumberEditor],
  [(type) => type === "string", TextEditor],
  [(type) => type === "stringList", TextListEditor],
  [(type) => type === "bytes", BytesEditor],
];

export function editorFor(value: Typed, edit: EditRules | null): Editor {
  return EDITORS.find(([fits]) => fits(value.type, edit))?.[1] ?? JsonEditor;
}

/** Bounds of a type whose node gives none because the type itself says all. */
export function rulesFor(value: Typed, edit: EditRules | null): EditRules | null {
  if (value.type !== "webserverAuthMode" || edit?.options) return edit;
  return { ...edit, options: AUTH_MODES.map((mode) => ({ value: { mode }, title: mode })) };
}
