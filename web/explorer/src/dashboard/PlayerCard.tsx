import { writer } from "../device/connection.js";
import { useLive } from "../device/live.js";
import { attempt } from "../device/problems.js";
import { caller, whyReadOnly } from "../device/session.js";
import { ReadOnlyNote, ValueEditor } from "../editors/ValueEditor.js";
import { t } from "../i18n/index.js";
import { formatClock } from "../model/values.js";
import { AudioBox } from "../node/StreamBox.js";
import { hrefOfNode } from "../shell/route.js";
import { Icon } from "../widgets/Icon.js";
import { Card } from "../widgets/Card.js";

const PLAYER = "player:player";

/** The player, where the device is one: what plays, and the buttons of a player. */
export function PlayerCard() {
  const whole = useLive(PLAYER);
  const control = useLive(`${PLAYER}/control`).roles.value;
  const state = useLive(`${PLAYER}/state`).roles.value?.value?.value;
  const track = useLive(`${PLAYER}/track`).roles.value?.value?.value;
  const position = Number(useLive(`${PLAYER}/position`).roles.value?.value?.value ?? 0);
  if (whole.problem.value || !whole.roles.value) return null;

  const isPlaying = state === "playing";
  const reason = control ? whyReadOnly(control, caller.value) : null;
  const run = (command: string) => void attempt(t("player"), () => writer().invoke(`${PLAYER}/control`, command));
  const button = (command: string, icon: string, kind = "") => (
    <button
      type="button"
      class={`transport ${kind}`}
      aria-label={t(icon as "play")}
      disabled={reason !== null}
      onClick={() => run(command)}
    >
      <Icon name={icon} size={kind ? 28 : 22} />
    </button>
  );
  return (
    <Card
      title={whole.roles.value.title ?? t("player")}
      tools={<a href={hrefOfNode(`${PLAYER}/playlist`)}>{t("playlist")}</a>}
    >
      <p class="track">{String(track ?? "–")}</p>
      <p class="quiet numeric" aria-live="off">
        {typeof state === "string" && t(`player_${state as "playing"}`)} · {formatClock(position / 1000)}
      </p>
      <div class="transports">
        {button("previous", "previous")}
        {isPlaying ? button("pause", "pause", "main") : button("play", "play", "main")}
        {button("next", "next")}
        {button("stop", "stop")}
      </div>
      <Volume />
      {reason && <ReadOnlyNote reason={reason} />}
      <AudioBox path={`${PLAYER}/audio`} />
    </Card>
  );
}

function Volume() {
  const node = useLive(`${PLAYER}/volume`);
  const mute = useLive(`${PLAYER}/mute`);
  const isMuted = mute.roles.value?.value?.value === true;
  if (!node.roles.value) return null;
  return (
    <>
      <div class="volume">
        <Icon name={isMuted ? "mute" : "volume"} />
        <ValueEditor node={node} label={t("volume")} quiet />
      </div>
      <div class="split">
        <span>{t("mute")}</span>
        <ValueEditor node={mute} label={t("mute")} quiet />
      </div>
    </>
  );
}
