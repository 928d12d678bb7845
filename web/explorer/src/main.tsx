import { effect } from "@preact/signals";
import { render } from "preact";

import { liveNode, type LiveNode } from "./device/live.js";
import { language } from "./i18n/index.js";
import { charted } from "./model/preferences.js";
import { App } from "./shell/App.js";
import { closeMenus, listenForShortcuts } from "./shell/shortcuts.js";

/** What is charted is followed on every view, so that its curve has no gaps. */
function followCharted(): void {
  const held = new Map<string, LiveNode>();
  effect(() => {
    const wanted = new Set(charted.paths.value);
    for (const [path, node] of held) {
      if (wanted.has(path)) continue;
      node.letGo();
      held.delete(path);
    }
    for (const path of wanted) {
      if (held.has(path)) continue;
      const node = liveNode(path);
      node.hold();
      held.set(path, node);
    }
  });
}

effect(() => {
  document.documentElement.lang = language.value;
});
followCharted();
listenForShortcuts();
closeMenus();
const place = document.getElementById("app") as HTMLElement;
place.replaceChildren(); // The bar that is shown until now.
render(<App />, place);
