/** Line drawings of 24 by 24, stroked in the colour of the text. */
const SHAPES: Record<string, string> = {
  home: "M4 11l8-7 8 7v9h-5v-6H9v6H4z",
  tree: "M5 4h6v4H5zM13 10h6v4h-6zM13 17h6v4h-6zM8 8v11h5M8 12h5",
  chart: "M4 4v16h16M7 15l4-5 3 3 5-7",
  machine: "M4 6h16v9H4zM9 19h6M12 15v4",
  player: "M8 5l11 7-11 7z",
  play: "M8 5l11 7-11 7z",
  pause: "M8 5v14M16 5v14",
  stop: "M6 6h12v12H6z",
  next: "M5 5l9 7-9 7zM18 5v14",
  previous: "M19 5l-9 7 9 7zM6 5v14",
  volume: "M4 10v4h4l5 4V6l-5 4zM16 9a4 4 0 010 6M18.5 6.5a8 8 0 010 11",
  mute: "M4 10v4h4l5 4V6l-5 4zM16 10l5 5M21 10l-5 5",
  audio: "M9 18V6l10-2v12M9 18a2.5 2.5 0 11-5 0 2.5 2.5 0 015 0zM19 16a2.5 2.5 0 11-5 0 2.5 2.5 0 015 0z",
  track: "M9 18V6l10-2v12M9 18a2.5 2.5 0 11-5 0 2.5 2.5 0 015 0zM19 16a2.5 2.5 0 11-5 0 2.5 2.5 0 015 0z",
  list: "M9 6h11M9 12h11M9 18h11M4 6h1M4 12h1M4 18h1",
  container: "M3 6h7l2 2h9v11H3z",
  value: "M4 9h16M4 15h16M10 4L8 20M16 4l-2 16",
  values: "M4 9h16M4 15h16M10 4L8 20M16 4l-2 16",
  action: "M13 3L5 14h6l-1 7 8-11h-6z",
  stream: "M4 9c3-3 5 3 8 0s5 3 8 0M4 15c3-3 5 3 8 0s5 3 8 0",
  settings: "M4 7h9M17 7h3M4 17h3M11 17h9M15 5v4M9 15v4",
  network: "M12 20h.01M8 16a6 6 0 018 0M5 12.5a10.5 10.5 0 0114 0M2 9a15 15 0 0120 0",
  lock: "M6 11h12v9H6zM8.5 11V8a3.5 3.5 0 017 0v3",
  gauge: "M4 17a8 8 0 1116 0M12 17l4-6",
  language: "M12 3a9 9 0 100 18 9 9 0 000-18zM3 12h18M12 3c-5 5-5 13 0 18M12 3c5 5 5 13 0 18",
  search: "M11 4a7 7 0 100 14 7 7 0 000-14zM16 16l5 5",
  pin: "M9 3h6l-1 6 4 4H6l4-4zM12 13v8",
  copy: "M8 8h12v12H8zM16 8V4H4v12h4",
  close: "M6 6l12 12M18 6L6 18",
  menu: "M12 5v.01M12 12v.01M12 19v.01",
  chevron: "M9 6l6 6-6 6",
  undo: "M9 7L4 12l5 5M4 12h10a6 6 0 016 6",
  user: "M12 4a4 4 0 100 8 4 4 0 000-8zM4 21a8 8 0 0116 0",
  help: "M9 9a3 3 0 114 3c-1 .5-1 1-1 2M12 17.5v.01",
  light:
    "M12 8a4 4 0 100 8 4 4 0 000-8zM12 2v2M12 20v2M2 12h2M20 12h2M5 5l1.5 1.5M17.5 17.5L19 19M5 19l1.5-1.5M17.5 6.5L19 5",
  dark: "M20 14A8 8 0 1110 4a6.5 6.5 0 0010 10z",
  auto: "M12 3a9 9 0 100 18zM12 3a9 9 0 010 18",
  download: "M12 4v11M7 11l5 5 5-5M5 20h14",
  upload: "M12 16V5M7 9l5-5 5 5M5 20h14",
  warning: "M12 4L2.5 20h19zM12 10v4M12 17v.01",
  edit: "M4 20l1-5L16 4l4 4L9 19z",
  check: "M5 12l5 5L20 7",
};

/** Decoration: whoever shows an icon alone gives its button a name. */
export function Icon({ name, size = 20 }: { name: string; size?: number }) {
  return (
    <svg class="icon" width={size} height={size} viewBox="0 0 24 24" aria-hidden="true">
      <path d={SHAPES[name] ?? SHAPES.value} />
    </svg>
  );
}

/** The icon that the node names, if it is one of ours, and that of its kind otherwise. */
export const iconOf = (node: { icon?: string | null; type?: string | null }): string =>
  node.icon && node.icon in SHAPES ? node.icon : (node.type ?? "value");
