"""Draws plots as SVG that can be read on a light and on a dark page."""

import math
from xml.sax.saxutils import escape

# Medium tones, which have enough contrast to both white and black: not every viewer tells an image which page it is on.
STYLE = """<style>
text { font: 12px sans-serif; fill: #747b84; }
.title { font-weight: bold; }
.grid { stroke: #8b949e; stroke-opacity: 0.35; }
.one { stroke: #8b949e; stroke-width: 1.5; }
.target { stroke: #e5484d; stroke-width: 2; }
.s0 { stroke: #1f7fe0; fill: #1f7fe0; }
.s1 { stroke: #d2601a; fill: #d2601a; }
.s2 { stroke: #2a9247; fill: #2a9247; }
.line { fill: none; stroke-width: 2; }
</style>"""
LEGEND_WIDTH = 260


class Axis:
    """A logarithmic axis from `low` to `high`, which are rounded outwards to 1, 2 or 5 times a power of ten."""

    def __init__(self, values, begin, end):
        low, high = min(values), max(values)
        steps = [step * 10.0 ** power for power in range(-3, 10) for step in (1, 2, 5)]
        self.low = max(step for step in steps if step <= low)
        self.high = min(step for step in steps if step >= high)
        if self.low == self.high:
            self.high *= 2
        self.ticks = [step for step in steps if self.low <= step <= self.high]
        self.begin, self.end = begin, end

    def at(self, value):
        """Returns the position of a value."""
        return self.begin + (self.end - self.begin) * math.log(value / self.low) / math.log(self.high / self.low)


def text(x, y, content, kind="", anchor="start"):
    """Returns a text; `y` is its base line."""
    return f'<text x="{x:.1f}" y="{y:.1f}" class="{kind}" text-anchor="{anchor}">{escape(content)}</text>'


def line(x1, y1, x2, y2, kind):
    """Returns a straight line."""
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{kind}"/>'


def dot(x, y, kind):
    """Returns a point of a series."""
    return f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3.5" class="{kind}"/>'


def legend(names, x, y):
    """Returns a row of series names."""
    parts = []
    for number, name in enumerate(names):
        parts += [dot(x + number * LEGEND_WIDTH, y - 4, f"s{number}"), text(x + 10 + number * LEGEND_WIDTH, y, name)]
    return parts


def image(width, height, parts):
    """Returns the whole document."""
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" '
            f'height="{height}" role="img">\n' + STYLE + "\n" + "\n".join(parts) + "\n</svg>\n")


def number(value):
    """Shows a tick."""
    return f"{value:g}"


def ratios(groups, names):
    """Draws ratios with their spread, a line for each size within each group.

    `groups`: (title, [(size, [(median, lower, upper) of each series], upper limit of the first series or None)])
    """
    left, width, top, row, gap = 120, 820, 50, 18, 28
    axis = Axis([value for _, rows in groups for _, series, _ in rows for ratio in series for value in ratio],
                left, width - 20)
    bottom = top + sum(gap + row * len(rows) for _, rows in groups)
    parts = legend([f"korvaneinfod {name}" for name in names], left, 18)
    parts.insert(0, line(left + 560, 8, left + 560, 20, "target") + text(left + 568, 18, "target (to GDBus)"))
    for tick in axis.ticks:
        parts.append(line(axis.at(tick), top - 8, axis.at(tick), bottom, "one" if tick == 1 else "grid"))
        parts.append(text(axis.at(tick), top - 12, number(tick), "", "middle"))
    y = top
    for title, rows in groups:
        y += gap - 10
        parts.append(text(8, y, title, "title"))
        y += 10
        for size, series, limit in rows:
            y += row
            parts.append(text(left - 12, y - 2, size, "", "end"))
            if limit is not None:
                parts.append(line(axis.at(limit), y - 13, axis.at(limit), y + 1, "target"))
            for index, (median, lower, upper) in enumerate(series):
                level = y - 9 + 6 * index
                parts.append(line(axis.at(lower), level, axis.at(upper), level, f"s{index}"))
                parts.append(dot(axis.at(median), level, f"s{index}"))
    return image(width, bottom + 10, parts)


def times(panels):
    """Draws times in microseconds over the number of entries, a panel for each kind.

    `panels`: (title, {series: [(entries, microseconds)]})
    """
    columns, panel_width, panel_height, top = 2, 410, 260, 40
    parts = legend(panels[0][1], 50, 18)
    for position, (title, series) in enumerate(panels):
        x0 = 50 + position % columns * panel_width
        y0 = top + position // columns * panel_height
        points = [point for line_points in series.values() for point in line_points]
        x_axis = Axis([entries for entries, _ in points], x0 + 10, x0 + panel_width - 70)
        y_axis = Axis([time for _, time in points], y0 + panel_height - 50, y0 + 30)
        parts.append(text(x0, y0 + 14, f"{title} (µs over entries)", "title"))
        for tick in y_axis.ticks:
            parts.append(line(x_axis.begin, y_axis.at(tick), x_axis.end, y_axis.at(tick), "grid"))
            parts.append(text(x_axis.begin - 6, y_axis.at(tick) + 4, number(tick), "", "end"))
        for entries in sorted({entries for entries, _ in points}):
            parts.append(text(x_axis.at(entries), y_axis.begin + 18, number(entries), "", "middle"))
        for index, line_points in enumerate(series.values()):
            places = [(x_axis.at(entries), y_axis.at(time)) for entries, time in line_points]
            path = " ".join(f"{x:.1f},{y:.1f}" for x, y in places)
            parts.append(f'<polyline points="{path}" class="s{index} line"/>')
            parts += [dot(x, y, f"s{index}") for x, y in places]
    rows = -(-len(panels) // columns)
    return image(50 + columns * panel_width, top + rows * panel_height, parts)
