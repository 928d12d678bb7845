import { preference } from "../model/preferences.js";
import { de } from "./de.js";
import { en, type MessageKey } from "./en.js";

export type Language = "en" | "de";

const catalogues: Record<Language, Record<MessageKey, string>> = { en, de };

const preferred = (): Language => (navigator.language.toLowerCase().startsWith("de") ? "de" : "en");

export const language = preference<Language>("language", preferred());

/** The message in the reader's language, its {0}, {1} … replaced. Reads a signal: what renders it follows the choice. */
export function t(key: MessageKey, ...args: Array<string | number>): string {
  return catalogues[language.value][key].replace(/\{(\d)\}/g, (_, index: string) => String(args[Number(index)] ?? ""));
}

export type { MessageKey };

/** What a switch says. */
export const onOff = (): string[] => [t("on"), t("off")];
