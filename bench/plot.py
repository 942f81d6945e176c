"""Plots as SVG: bars of works beside their floors, and curves on logarithmic axes."""

import math
from xml.sax.saxutils import escape

OURS, FLOOR, MISSED, INK, GRID = "#2b6cb0", "#b8c4d0", "#c05621", "#222", "#ddd"
HEAD = ('<svg xmlns="http://www.w3.org/2000/svg" width="{w}" height="{h}" viewBox="0 0 {w} {h}" '
        'font-family="Helvetica, Arial, sans-serif" font-size="12">\n<rect width="{w}" height="{h}" fill="#fff"/>\n')


def text(x, y, words, anchor="start", extra=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" fill="{INK}" {extra}>{escape(words)}</text>\n'


def line(x1, y1, x2, y2, colour=GRID, width=1, extra=""):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" stroke-width="{width}" {extra}/>\n'


def box(x, y, width, height, colour):
    return f'<rect x="{x:.1f}" y="{y:.1f}" width="{max(width, 1):.1f}" height="{height:.1f}" fill="{colour}"/>\n'


def bars(results, number):
    """Each work as two bars, in units of its floor; a tick marks its goal."""
    results = [row for row in results if "failed" not in row]
    left, scale, row_height, top = 330, 260, 40, 60
    most = 2.4
    height = top + row_height * len(results) + 20
    width = left + scale * most + 190
    out = HEAD.format(w=round(width), h=height)
    out += text(12, 24, "Works beside their floors (floor = 1)", extra='font-size="15" font-weight="bold"')
    for colour, words, x in ((OURS, "ours", 12), (MISSED, "ours, goal missed", 80), (FLOOR, "floor", 220)):
        out += box(x, 36, 10, 10, colour) + text(x + 15, 45, words)
    out += line(300, 34, 300, 48, INK, 2) + text(306, 45, "goal")
    for tick in (0.5, 1, 1.5, 2):
        out += line(left + scale * tick, top - 8, left + scale * tick, height - 16)
        out += text(left + scale * tick, height - 4, f"{tick:g}", "middle")
    for index, row in enumerate(results):
        y = top + index * row_height
        ratio = row["ratio"]
        colour = MISSED if row["met"] is False else OURS
        out += text(left - 10, y + 17, row["name"], "end")
        out += box(left, y, scale * min(ratio, most), 12, colour) + box(left, y + 14, scale, 9, FLOOR)
        shown = f"{number(row['ours']['median'])} {row['unit']} ({ratio:.2f}x)"
        out += text(left + scale * min(ratio, most) + 6, y + 11, shown)
        out += text(left + scale + 6, y + 22, f"{number(row['floor']['median'])} {row['unit']}", extra='font-size="10"')
        if row["goal"]:
            limit = min(float(row["goal"].split()[-1]), most)
            out += line(left + scale * limit, y - 3, left + scale * limit, y + 25, INK, 2)
    return out + "</svg>\n"


def decades(values):
    low = math.floor(math.log10(min(values)))
    high = math.ceil(math.log10(max(values)))
    return low, max(high, low + 1)


def label(value):
    return f"{value:,.0f}" if value >= 1 else f"{value:g}"


def curve(title, points, x_name, y_name):
    """Ours and the floor against x, both axes logarithmic: a slope of one decade a decade is a straight cost."""
    left, top, width, height = 90, 50, 480, 300
    positive = [point for point in points if point[0] > 0 and point[1] > 0]
    values = [y for point in positive for y in point[1:] if y]
    (x_low, x_high), (y_low, y_high) = decades([point[0] for point in positive]), decades(values)

    def place(x, y):
        return (left + width * (math.log10(x) - x_low) / (x_high - x_low),
                top + height - height * (math.log10(y) - y_low) / (y_high - y_low))

    out = HEAD.format(w=left + width + 40, h=top + height + 60)
    out += text(12, 24, title, extra='font-size="15" font-weight="bold"')
    for power in range(x_low, x_high + 1):
        x, _ = place(10.0 ** power, 10.0 ** y_low)
        out += line(x, top, x, top + height) + text(x, top + height + 18, label(10.0 ** power), "middle")
    for power in range(y_low, y_high + 1):
        _, y = place(10.0 ** x_low, 10.0 ** power)
        out += line(left, y, left + width, y) + text(left - 8, y + 4, label(10.0 ** power), "end")
    out += text(left + width / 2, top + height + 44, x_name, "middle")
    out += text(22, top + height / 2, y_name, "middle", f'transform="rotate(-90 22 {top + height / 2:.0f})"')
    for column, colour, name in ((2, FLOOR, "floor"), (1, OURS, "ours")):
        series = [place(point[0], point[column]) for point in positive if point[column]]
        if not series:
            continue
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in series)
        out += f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2.5"/>\n'
        for x, y in series:
            out += f'<circle cx="{x:.1f}" cy="{y:.1f}" r="4" fill="{colour}"/>\n'
        out += text(series[-1][0] + 8, series[-1][1] + 4, name)
    return out + "</svg>\n"
