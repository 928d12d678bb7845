import type { MessageKey } from "../i18n/index.js";

/** What a change may cost whoever makes it over the network. */
export type Risk = MessageKey;

const RISKS: Array<[RegExp, Risk]> = [
  [/^settings:webserver\/(port|httpsPort)$/, "riskPort"],
  [/^settings:webserver\/https/, "riskCertificate"],
  [/^settings:webserver\/(authMode|users)$/, "riskRights"],
  [/^settings:webserver\/(documentRoot|defaultLocation)$|^settings:features\/webclient$/, "riskPage"],
  [/^settings:webserver\/(enableExternalWebAccess|strict|limits\/)/, "riskAccess"],
  [/(^|[:/])(network|wired|wireless|softAp|ip|dhcp|addresses)([:/]|$)/, "riskAddress"],
];

/** Why writing this node may cut off the page that writes it; null when it may not. */
export function riskOf(path: string): Risk | null {
  return RISKS.find(([pattern]) => pattern.test(path))?.[1] ?? null;
}
