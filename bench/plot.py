"""Draws lines on two logarithmic axes as SVG; the same figures give the same file."""

import math
from dataclasses import dataclass

COLOURS = {"inspect": "#1f6fb2", "prepare-move": "#b2541f", "commit-move": "#2f8f4e", "rollback-move": "#7a4fa3"}
WIDTH, HEIGHT, LEFT, BOTTOM, TOP, RIGHT = 760, 400, 70, 50, 16, 190


@dataclass
class Series:
    name: str
    points: list
    colour: str
    dashed: bool


def number(value):
    return f"{value:,.0f}" if value >= 1 else f"{value:g}"


class Axis:
    def __init__(self, values, begin, end):
        self.low, self.high = math.log10(min(values)), math.log10(max(values))
        if self.high - self.low < 1e-9:
            self.high = self.low + 1
        self.begin, self.end = begin, end

    def at(self, value):
        return self.begin + (math.log10(value) - self.low) / (self.high - self.low) * (self.end - self.begin)


def decades(values):
    return [10.0 ** power for power in range(math.floor(math.log10(min(values))), math.ceil(math.log10(max(values))) + 1)]


def plot(path, across, upwards, series):
    xs = sorted({x for line in series for x, _ in line.points})
    ticks = decades([y for line in series for _, y in line.points])
    horizontal = Axis(xs, LEFT, WIDTH - RIGHT)
    vertical = Axis(ticks, HEIGHT - BOTTOM, TOP)
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif" font-size="12">',
           f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>']
    for tick in ticks:
        y = vertical.at(tick)
        out.append(f'<path d="M{LEFT} {y:.1f}H{WIDTH - RIGHT}" stroke="#ddd"/>'
                   f'<text x="{LEFT - 8}" y="{y + 4:.1f}" text-anchor="end">{number(tick)}</text>')
    for x in xs:
        at = horizontal.at(x)
        out.append(f'<path d="M{at:.1f} {TOP}V{HEIGHT - BOTTOM}" stroke="#eee"/>'
                   f'<text x="{at:.1f}" y="{HEIGHT - BOTTOM + 18}" text-anchor="middle">{number(x)}</text>')
    for index, line in enumerate(series):
        colour = COLOURS[line.colour]
        dash = ' stroke-dasharray="5 4"' if line.dashed else ""
        points = " ".join(f"{horizontal.at(x):.1f},{vertical.at(y):.1f}" for x, y in line.points)
        y = TOP + 14 + 20 * index
        out.append(f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="2"{dash}/>'
                   f'<path d="M{WIDTH - RIGHT + 14} {y - 4}h26" stroke="{colour}" stroke-width="2"{dash}/>'
                   f'<text x="{WIDTH - RIGHT + 46}" y="{y}">{line.name}</text>')
    out.append(f'<text x="{(LEFT + WIDTH - RIGHT) / 2}" y="{HEIGHT - 10}" text-anchor="middle">{across}</text>'
               f'<text x="16" y="{HEIGHT / 2}" text-anchor="middle" transform="rotate(-90 16 {HEIGHT / 2})">{upwards}</text></svg>')
    path.write_text("\n".join(out) + "\n")
