"""Plots as SVG, drawn by hand so that nothing else has to be installed."""

import math
from dataclasses import dataclass

WIDTH, HEIGHT = 640, 380
LEFT, RIGHT, TOP, BOTTOM = 70, 20, 40, 50
COLOURS = ("#1f5fbf", "#c0392b", "#2e8b57", "#8e44ad")
HEAD = ('<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
        'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12">\n'
        '<rect width="100%" height="100%" fill="white"/>\n')


def text(x, y, words, anchor="start", size=12, colour="#333"):
    words = words.replace("&", "&amp;").replace("<", "&lt;")
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-size="{size}" '
            f'fill="{colour}">{words}</text>\n')


def line(x1, y1, x2, y2, colour="#ddd", dashes=""):
    dashed = f' stroke-dasharray="{dashes}"' if dashes else ""
    return (f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" '
            f'stroke="{colour}"{dashed}/>\n')


def short(number):
    return f"{number:,.0f}" if number >= 1 else f"{number:g}"


@dataclass
class Axis:
    """A logarithmic axis between two places on the paper."""

    low: float
    high: float
    begin: float
    end: float

    def __call__(self, value):
        share = math.log(value / self.low) / math.log(self.high / self.low)
        return self.begin + share * (self.end - self.begin)

    def ticks(self):
        first = math.ceil(math.log10(self.low) - 1e-9)
        last = math.floor(math.log10(self.high) + 1e-9)
        return [10.0 ** power for power in range(first, last + 1)]


def curves(title, across, up, lines):
    """Curves of (x, y) points over logarithmic axes: `lines` maps a name to (points, dashes)."""
    points = [point for line_points, _ in lines.values() for point in line_points]
    xs, ys = [x for x, _ in points], [y for _, y in points]
    x_axis = Axis(min(xs) / 1.2, max(xs) * 1.2, LEFT, WIDTH - RIGHT)
    y_axis = Axis(10 ** math.floor(math.log10(min(ys))), 10 ** math.ceil(math.log10(max(ys))),
                  HEIGHT - BOTTOM, TOP)
    drawn = [HEAD.format(width=WIDTH, height=HEIGHT), text(LEFT, 22, title, size=15)]
    for tick in y_axis.ticks():
        drawn += [line(LEFT, y_axis(tick), WIDTH - RIGHT, y_axis(tick)),
                  text(LEFT - 6, y_axis(tick) + 4, short(tick), "end")]
    for tick in sorted(set(xs)):
        drawn += [line(x_axis(tick), TOP, x_axis(tick), HEIGHT - BOTTOM),
                  text(x_axis(tick), HEIGHT - BOTTOM + 16, short(tick), "middle")]
    drawn += [text((LEFT + WIDTH - RIGHT) / 2, HEIGHT - 12, across, "middle"),
              text(LEFT, TOP - 4, up, "start", 11, "#777")]
    for number, (name, (line_points, dashes)) in enumerate(lines.items()):
        colour = COLOURS[number % len(COLOURS)]
        path = " ".join(f"{x_axis(x):.1f},{y_axis(y):.1f}" for x, y in line_points)
        dashed = f' stroke-dasharray="{dashes}"' if dashes else ""
        drawn.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"'
                     f"{dashed}/>\n")
        drawn += [f'<circle cx="{x_axis(x):.1f}" cy="{y_axis(y):.1f}" r="3" fill="{colour}"/>\n'
                  for x, y in line_points if not dashes]
        key = TOP + 14 + 17 * number
        drawn += [line(LEFT + 12, key - 4, LEFT + 40, key - 4, colour, dashes),
                  text(LEFT + 46, key, name)]
    return "".join(drawn) + "</svg>\n"


def ratios(title, rows):
    """One dot for each row's ratio, with its aim as a bar."""
    left, step = 210, 22
    height = TOP + step * len(rows) + BOTTOM
    axis = Axis(min([0.5] + [row.value for row in rows if row.value > 0]) / 1.1,
                max([2.0] + [row.value for row in rows]) * 1.1, left, WIDTH - RIGHT - 40)
    drawn = [HEAD.format(width=WIDTH, height=height), text(12, 22, title, size=15)]
    for tick in (0.5, 0.7, 1, 1.5, 2, 3, 4, 5):
        if axis.low <= tick <= axis.high:
            drawn += [line(axis(tick), TOP, axis(tick), height - BOTTOM,
                           "#888" if tick == 1 else "#ddd"),
                      text(axis(tick), height - BOTTOM + 16, f"{tick:g}", "middle")]
    for number, row in enumerate(rows):
        y = TOP + step * (number + 0.5)
        drawn.append(text(left - 8, y + 4, row.name, "end"))
        if row.limit:
            drawn.append(line(axis(row.limit), y - 8, axis(row.limit), y + 8, "#c0392b"))
        drawn += [f'<circle cx="{axis(row.value):.1f}" cy="{y:.1f}" r="4" fill="{COLOURS[0]}"/>\n',
                  text(WIDTH - 12, y + 4, f"{row.value:.2f}", "end", 11)]
    drawn.append(text((left + WIDTH) / 2, height - 12, "launcher / floor; the bar is the aim",
                      "middle"))
    return "".join(drawn) + "</svg>\n"
