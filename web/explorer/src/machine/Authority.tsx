import { sha256 } from "@noble/hashes/sha2.js";
import { bytesToHex } from "@noble/hashes/utils.js";

import { useLive } from "../device/live.js";
import { type MessageKey, t } from "../i18n/index.js";
import { Button } from "../widgets/Button.js";
import { bytesOf, copy, saveAs } from "../widgets/files.js";

const SYSTEMS: Array<[name: string, how: MessageKey]> = [
  ["Windows", "trustWindows"],
  ["macOS", "trustMac"],
  ["iOS, iPadOS", "trustIos"],
  ["Android", "trustAndroid"],
  ["Linux, Chromium", "trustLinux"],
  ["Firefox", "trustFirefox"],
];

/** SHA-256 over the first certificate of a PEM text, as certificate viewers show it; null when there is none. */
function fingerprintOf(pem: string): string | null {
  const body = /-----BEGIN CERTIFICATE-----([\s\S]*?)-----END CERTIFICATE-----/.exec(pem)?.[1];
  if (!body) return null;
  const hex = bytesToHex(sha256(bytesOf(body.replace(/\s/g, "")))).toUpperCase();
  return hex.match(/../g)?.join(":") ?? null;
}

/** The certificate that a browser must trust to open the device over HTTPS without a warning. */
export function Authority() {
  const pem = String(useLive("settings:webserver/httpsCert").roles.value?.value?.value ?? "");
  const ownAuthority = useLive("settings:webserver/httpsUseDeviceCert").roles.value?.value?.value === true;
  const port = useLive("settings:webserver/httpsPort").roles.value?.value?.value;
  const fingerprint = fingerprintOf(pem);
  return (
    <section class="card stack" aria-label={t("authority")}>
      <h2>{t("authority")}</h2>
      {!fingerprint && <p class="quiet">{t("noAuthority")}</p>}
      {fingerprint && (
        <>
          <p class="quiet">{t(ownAuthority ? "authorityAbout" : "certificateAbout")}</p>
          <p>
            {t("fingerprint")}
            <br />
            <code class="break">{fingerprint}</code>
          </p>
          <div class="actions">
            <Button icon="download" kind="main" onClick={() => saveAs("authority.pem", pem, "application/x-pem-file")}>
              {t("download")}
            </Button>
            <Button icon="copy" onClick={() => void copy(fingerprint)}>
              {t("copyFingerprint")}
            </Button>
            {location.protocol === "http:" && Number(port) > 0 && (
              <a class="button plain" href={`https://${location.hostname}:${String(port)}/`}>
                {t("openHttps")}
              </a>
            )}
          </div>
          {ownAuthority && <Trusting />}
        </>
      )}
    </section>
  );
}

function Trusting() {
  return (
    <details>
      <summary>{t("howToTrust")}</summary>
      <p>{t("compareFirst")}</p>
      <dl class="wide">{SYSTEMS.map(([name, how]) => [<dt key={name}>{name}</dt>, <dd key={how}>{t(how)}</dd>])}</dl>
    </details>
  );
}
