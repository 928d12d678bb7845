import { Sparkline } from "../chart/Sparkline.js";
import { useLive } from "../device/live.js";
import { t } from "../i18n/index.js";
import { formatBytes, formatDuration } from "../model/values.js";
import { Card } from "../widgets/Card.js";

interface Interface {
  name?: string;
  addresses?: Array<{ ip: string; prefixLength: number }>;
}

/** The addresses of all interfaces, the device's access points among them. */
function addressesOf(value: unknown): string[] {
  const { wired, wireless, softAp } = (value ?? {}) as {
    wired?: Interface;
    wireless?: Interface;
    softAp?: { aps?: Interface[] };
  };
  return [wired, wireless, ...(softAp?.aps ?? [])]
    .flatMap((each) => (each?.addresses ?? []).map(({ ip }) => ip))
    .filter(Boolean);
}

const useNumber = (path: string): number | undefined => {
  const value = useLive(path).roles.value?.value?.value;
  return value === undefined || value === null ? undefined : Number(value);
};

/** How the machine is that the device runs on. */
export function MachineCard() {
  const load = useLive("system:load/one");
  const cpu = useNumber("system:load/cpu");
  const total = useNumber("system:memory/total");
  const free = useNumber("system:memory/available");
  const uptime = useNumber("system:uptime/seconds");
  const addresses = addressesOf(useLive("system:network/info").roles.value?.value?.value);
  if (!load.roles.value && cpu === undefined) return null;
  const used = total && free !== undefined ? total - free : undefined;
  return (
    <Card title={t("thisMachine")}>
      <p class="big numeric">
        {Number(load.roles.value?.value?.value ?? 0).toFixed(2)} <small>{t("load")}</small>
      </p>
      <Sparkline node={load} from={0} />
      <dl>
        {cpu !== undefined && <Share name={t("processor")} part={cpu / 100} text={`${Math.round(cpu)} %`} />}
        {used !== undefined && total && (
          <Share name={t("memory")} part={used / total} text={`${formatBytes(used)} / ${formatBytes(total)}`} />
        )}
        {uptime !== undefined && (
          <>
            <dt>{t("uptime")}</dt>
            <dd>{formatDuration(uptime)}</dd>
          </>
        )}
        {addresses.length > 0 && (
          <>
            <dt>{t("addresses")}</dt>
            <dd class="break">{addresses.join(", ")}</dd>
          </>
        )}
      </dl>
    </Card>
  );
}

function Share({ name, part, text }: { name: string; part: number; text: string }) {
  return (
    <>
      <dt>{name}</dt>
      <dd class="share">
        <meter aria-label={name} min={0} max={1} high={0.9} value={part} /> <span class="numeric">{text}</span>
      </dd>
    </>
  );
}
