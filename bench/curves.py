"""Draws a curve of vond_bench as SVG, both axes logarithmic."""

import html
import math

WIDTH, HEIGHT = 640, 400
LEFT, RIGHT, TOP, BOTTOM = 70, 20, 40, 50
COLOURS = ["#1f5fa8", "#b3451d", "#2e7d32", "#6a3d9a"]


def label(value):
    for size, suffix in ((1e6, "M"), (1e3, "k")):
        if value >= size:
            return f"{value / size:g}{suffix}"
    return f"{value:g}"


def axis(values):
    """From where to where an axis goes, as logarithms, and its marks."""
    low, high = math.log10(min(values)), math.log10(max(values))
    margin = max(0.05, (high - low) * 0.05)
    low, high = low - margin, high + margin
    marks = [factor * 10.0 ** power for power in range(math.floor(low), math.ceil(high) + 1) for factor in (1, 2, 5)
             if low <= math.log10(factor * 10.0 ** power) <= high]
    decades = [mark for mark in marks if math.log10(mark) == round(math.log10(mark))]
    return low, high, decades if len(decades) > 2 else marks


def draw(curve):
    lines = [line for line in curve["lines"] if line["points"]]
    xs = [x for line in lines for x, _ in line["points"]] or [1]
    ys = [y for line in lines for _, y in line["points"]] or [1]
    x_low, x_high, x_marks = axis(xs)
    y_low, y_high, y_marks = axis(ys)

    def at(x, y):
        return (LEFT + (math.log10(x) - x_low) / (x_high - x_low) * (WIDTH - LEFT - RIGHT),
                HEIGHT - BOTTOM - (math.log10(y) - y_low) / (y_high - y_low) * (HEIGHT - TOP - BOTTOM))

    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" width="{WIDTH}" '
             f'height="{HEIGHT}" font-family="sans-serif" font-size="12">',
             f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>']

    def text(x, y, content, anchor="middle", more=""):
        parts.append(f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{more}>{html.escape(content)}</text>')

    def stroke(x1, y1, x2, y2, colour):
        parts.append(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}"/>')

    for mark in x_marks:
        x, _ = at(mark, ys[0])
        stroke(x, TOP, x, HEIGHT - BOTTOM, "#dddddd")
        text(x, HEIGHT - BOTTOM + 16, label(mark))
    for mark in y_marks:
        _, y = at(xs[0], mark)
        stroke(LEFT, y, WIDTH - RIGHT, y, "#dddddd")
        text(LEFT - 6, y + 4, label(mark), "end")
    stroke(LEFT, HEIGHT - BOTTOM, WIDTH - RIGHT, HEIGHT - BOTTOM, "#444444")
    stroke(LEFT, TOP, LEFT, HEIGHT - BOTTOM, "#444444")
    text((LEFT + WIDTH - RIGHT) / 2, HEIGHT - 12, curve["x"])
    text(18, (TOP + HEIGHT - BOTTOM) / 2, curve["y"],
         more=f' transform="rotate(-90 18 {(TOP + HEIGHT - BOTTOM) / 2:.1f})"')

    for number, line in enumerate(lines):
        colour = COLOURS[number % len(COLOURS)]
        points = [at(x, y) for x, y in line["points"]]
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        parts.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
        parts.extend(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>' for x, y in points)
        text(LEFT + 10 + 200 * number, TOP - 14, f"{line['name']}: grows as x^{line['exponent']:.2f}", "start",
             f' fill="{colour}"')
    return "\n".join(parts) + "\n</svg>\n"
