"""The samples of a soak as a picture."""

from xml.sax.saxutils import escape

import fit

WIDTH, HEIGHT, LEFT, GAP = 760, 110, 64, 44
COLOURS = ("#1f6fb2", "#c8641b", "#3a8f3a", "#8a4fa3")
PANELS = (("daemon", "memory", "Daemon: private memory, KiB"), ("daemon", "descriptors", "Daemon: descriptors"),
          ("daemon", "threads", "Daemon: threads"), ("properties", "memory", "Property service: private memory, KiB"),
          ("properties", "descriptors", "Property service: descriptors"), ("store", "size", "Store, KiB"))


def pieces(samples, where, measure):
    """A line for each life of the process."""
    found, last = [], object()
    for sample in samples:
        life = sample[fit.OWNER.get(where, where)]["life"]
        if life != last:
            found.append([])
            last = life
        found[-1].append((sample["passes"], sample[where][measure]))
    return found


def panel(phones, where, measure, title, top, most_passes):
    lines = [(number, piece) for number, samples in enumerate(phones) for piece in pieces(samples, where, measure)]
    highest = max((y for _, piece in lines for _, y in piece), default=1) * 1.1 or 1
    out = [f'<text x="{LEFT}" y="{top - 8}" font-weight="bold">{escape(title)}</text>',
           f'<path d="M{LEFT} {top}V{top + HEIGHT}H{LEFT + WIDTH}" fill="none" stroke="#888"/>']
    for part in (0, 0.5, 1):
        y = top + HEIGHT * (1 - part)
        out.append(f'<text x="{LEFT - 6}" y="{y + 4:.0f}" text-anchor="end">{highest * part:.0f}</text>')
    for number, piece in lines:
        points = " ".join(f"{LEFT + WIDTH * x / most_passes:.1f},{top + HEIGHT * (1 - y / highest):.1f}" for x, y in thin(piece))
        out.append(f'<polyline points="{points}" fill="none" stroke="{COLOURS[number % len(COLOURS)]}"/>')
    return out


def thin(piece, most=300):
    """Not more points than can be seen; the last one stays."""
    step = max(1, len(piece) // most)
    return piece[::step] + piece[-1:]


def picture(phones, names):
    most_passes = max((samples[-1]["passes"] for samples in phones if samples), default=1)
    height = GAP * (len(PANELS) + 1) + HEIGHT * len(PANELS)
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {LEFT + WIDTH + 20} {height}" font-family="sans-serif" '
           'font-size="12">', f'<rect width="{LEFT + WIDTH + 20}" height="{height}" fill="#fff"/>']
    for number, name in enumerate(names):
        out.append(f'<text x="{LEFT + 200 * number}" y="16" fill="{COLOURS[number % len(COLOURS)]}">{escape(name)}</text>')
    for number, (where, measure, title) in enumerate(PANELS):
        out += panel(phones, where, measure, title, GAP + number * (HEIGHT + GAP) + 6, most_passes)
    out.append(f'<text x="{LEFT}" y="{height - 14}">0</text><text x="{LEFT + WIDTH}" y="{height - 14}" '
               f'text-anchor="end">{most_passes:,} passes</text></svg>')
    return "\n".join(out) + "\n"
