"""What a long run measured, as a small SVG."""

WIDTH, HEIGHT, LEFT = 640, 110, 60
CURVES = [("kib", "private memory, KiB"), ("descriptors", "descriptors"), ("p99", "p99, ms")]


def draw(lines):
    """One panel for each curve, from 0 up, over the minutes."""
    parts = []
    for index, (key, title) in enumerate(CURVES):
        top = index * (HEIGHT + 30) + 20
        most = max(line[key] for line in lines) * 1.15 or 1
        step = (WIDTH - LEFT - 20) / max(1, len(lines) - 1)
        points = " ".join(f"{LEFT + number * step:.1f},{top + HEIGHT * (1 - line[key] / most):.1f}" for number, line in enumerate(lines))
        last = lines[-1][key]
        parts += [
            f'<text x="{LEFT}" y="{top - 6}">{title}: {last:.0f} at the end</text>',
            f'<path d="M{LEFT} {top}V{top + HEIGHT}H{WIDTH - 20}" class="axis"/>',
            f'<text x="{LEFT - 6}" y="{top + 8}" text-anchor="end">{most:.0f}</text>',
            f'<text x="{LEFT - 6}" y="{top + HEIGHT}" text-anchor="end">0</text>',
            f'<polyline points="{points}"/>',
        ]
    height = len(CURVES) * (HEIGHT + 30) + 20
    style = "text{font:12px sans-serif}.axis{fill:none;stroke:#888}polyline{fill:none;stroke:#06c;stroke-width:2}"
    minutes = f'<text x="{WIDTH - 20}" y="{height - 4}" text-anchor="end">{len(lines)} minutes</text>'
    body = "\n".join([*parts, minutes])
    return f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}">\n<style>{style}</style>\n' \
           f'<rect width="100%" height="100%" fill="#fff"/>\n{body}\n</svg>\n'
