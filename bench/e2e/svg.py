# SPDX-License-Identifier: MIT
"""Small plots as SVG: points at the medians, bars over the middle half, one or several panels with one legend."""
import collections
import html
import math
import statistics

from figures import quantile

# `series`: [Series]. `ticks`: texts, where the horizontal axis has places 0, 1, ... instead of numbers. `log`: axes.
Panel = collections.namedtuple('Panel', 'title x y series log ticks', defaults=['y', None])
# `points`: [(x, values)]. `shape`: of SHAPES. `line`: whether one joins them, and how it is dashed: None, '' or '4 3'.
Series = collections.namedtuple('Series', 'title colour shape points line', defaults=[''])

SHAPES = {'disc': 'm-3.5,0a3.5,3.5 0 1 0 7,0a3.5,3.5 0 1 0-7,0z', 'square': 'm-3,-3h6v6h-6z',
          'up': 'm0,-4.2l4,7h-8z', 'down': 'm0,4.2l4,-7h-8z', 'diamond': 'm0,-4.5l4,4.5l-4,4.5l-4,-4.5z',
          'cross': 'm-3,-3l6,6m0,-6l-6,6', 'plus': 'm-4,0h8m-4,-4v8'}
LEFT, RIGHT, TOP, BOTTOM = 66, 26, 30, 44  # around a panel's field
LETTER = 6.8  # about as wide
LEGEND_ROW = 18


class Axis:
    """Values from the pixel `start` to the pixel `end`."""

    def __init__(self, values, start, end, log):
        self.log, self.start, self.end = log, start, end
        low, high = min(values), max(values)
        self.ticks = log_ticks(low, high) if log else linear_ticks(min(low, 0), high)
        self.low, self.high = self.scaled(self.ticks[0]), self.scaled(self.ticks[-1])

    def scaled(self, value):
        return math.log10(max(value, 1e-9)) if self.log else value

    def at(self, value):
        return self.start + (self.scaled(value) - self.low) / (self.high - self.low) * (self.end - self.start)


def log_ticks(low, high):
    """1, 2 and 5 of each decade, or its 1 alone where there are many; the first is below all, the last above."""
    first, last = math.floor(math.log10(max(low, 1e-9))), math.ceil(math.log10(max(high, 1e-9)))
    steps = (1, 2, 5) if last - first <= 3 else (1,)
    found = [step * 10.0 ** decade for decade in range(first, last + 1) for step in steps]
    below = [tick for tick in found if tick <= low]
    above = [tick for tick in found if tick >= high]
    chosen = [tick for tick in found if below[-1] <= tick <= above[0]]
    return chosen if len(chosen) > 1 else [chosen[0], chosen[0] * 10]


def linear_ticks(low, high):
    span = (high - low) or 1
    step = next(step for step in (10.0 ** decade * one for decade in range(-6, 12) for one in (1, 2, 5))
                if span / step <= 6)
    return [number * step for number in range(math.floor(low / step), math.ceil(high / step) + 1)]


class Places:
    """Places 0, 1, ... that have names instead of numbers."""

    def __init__(self, count, start, end):
        self.ticks = list(range(count))
        self.start, self.each = start, (end - start) / count

    def at(self, place):
        return self.start + (place + .5) * self.each


def number(value):
    return f'{value:,.0f}'.replace(',', ' ') if abs(value) >= 1000 else f'{value:.6g}'


def text(x, y, words, more=''):
    return f'<text x="{x:.0f}" y="{y:.0f}"{more}>{html.escape(words)}</text>' if words else ''


def draw_field(panel, x, y, left, right, top, bottom):
    """Grid, frame and words."""
    parts = [f'<path class="grid" d="{"".join(f"M{left},{y.at(tick):.1f}H{right}" for tick in y.ticks)}'
             f'{"".join(f"M{x.at(tick):.1f},{top}V{bottom}" for tick in x.ticks)}"/>',
             f'<path class="frame" d="M{left},{top}V{bottom}H{right}"/>']
    parts += [text(left - 5, y.at(tick) + 4, number(tick), ' text-anchor="end"') for tick in y.ticks]
    if is_turned(panel, right - left):
        parts += [text(x.at(place) + 3, bottom + 12, words, f' text-anchor="end" transform="rotate(-45 '
                       f'{x.at(place) + 3:.0f} {bottom + 12})"') for place, words in enumerate(panel.ticks)]
    else:
        words = panel.ticks or tick_words(x)
        parts += [text(x.at(tick), bottom + 15, word, ' text-anchor="middle"') for tick, word in zip(x.ticks, words)]
    middle = (left + right) / 2
    return parts + [text(middle, top - 10, panel.title, ' text-anchor="middle" class="title"'),
                    text(middle, bottom + 34, panel.x, ' text-anchor="middle"'),
                    text(left - 52, (top + bottom) / 2, panel.y + (', log scale' if y.log else ''), f' text-anchor="middle" transform="rotate(-90 '
                         f'{left - 52} {(top + bottom) / 2:.0f})"')]


def tick_words(axis):
    """Where there are many, those of 2 and 5 would meet their neighbours."""
    many = axis.log and len(axis.ticks) > 8
    return ['' if many and f'{tick:e}'[0] != '1' else number(tick) for tick in axis.ticks]


def is_turned(panel, wide):
    """Whether the words below the places do not fit beside each other."""
    return bool(panel.ticks) and LETTER * (max(map(len, panel.ticks)) + 1) > wide / len(panel.ticks)


def draw_series(panel, x, y):
    for nth, series in enumerate(panel.series):
        # In a place of its own a point moves aside a little, series by series.
        aside = (nth - (len(panel.series) - 1) / 2) * min(8, x.each * .8 / len(panel.series)) if panel.ticks else 0
        points = [(x.at(at) + aside, y.at(statistics.median(values)), y.at(quantile(values, .25)),
                   y.at(quantile(values, .75))) for at, values in series.points]
        bars = ''.join(f'M{px:.1f},{low:.1f}V{high:.1f}' for px, _, low, high in points)
        marks = ''.join(f'M{px:.1f},{py:.1f}{SHAPES[series.shape]}' for px, py, _, _ in points)
        yield f'<g fill="{series.colour}" stroke="{series.colour}"><path d="{bars}"/>'
        if series.line is not None and not panel.ticks:
            joined = 'L'.join(f'{px:.1f},{py:.1f}' for px, py, _, _ in points)
            yield f'<path class="line" stroke-dasharray="{series.line or "none"}" d="M{joined}"/>'
        yield f'<path d="{marks}"/></g>'


def draw_panel(panel, left, top, right, bottom):
    left, top, right = left + LEFT, top + TOP, right - RIGHT
    bottom -= BOTTOM + (LETTER * .75 * max(map(len, panel.ticks)) - 20 if is_turned(panel, right - left) else 0)
    bottom = round(bottom)
    values = [quantile(values, q) for series in panel.series for _, values in series.points for q in (.25, .5, .75)]
    y = Axis(values, bottom, top, 'y' in (panel.log or ''))
    if panel.ticks:
        x = Places(len(panel.ticks), left, right)
    else:
        x = Axis([at for series in panel.series for at, _ in series.points], left, right, 'x' in (panel.log or ''))
    return [*draw_field(panel, x, y, left, right, top, bottom), *draw_series(panel, x, y)]


def draw_legend(panels, top, width):
    """(what is drawn, how high it is)"""
    series = {one.title: one for panel in panels for one in panel.series}
    if len(series) < 2:
        return [], 0
    parts, x, y = [], LEFT, top + LEGEND_ROW / 2
    for one in series.values():
        wide = 28 + LETTER * len(one.title)
        if x + wide > width - RIGHT:
            x, y = LEFT, y + LEGEND_ROW
        parts += [f'<path fill="{one.colour}" stroke="{one.colour}" d="M{x:.0f},{y:.0f}{SHAPES[one.shape]}"/>',
                  text(x + 9, y + 4, one.title)]
        x += wide
    return parts, y + LEGEND_ROW - top


def draw(path, panels, width=640, height=360, columns=2):
    columns = min(columns, len(panels))
    parts = []
    for nth, panel in enumerate(panels):
        left, top = nth % columns * width, nth // columns * height
        parts += draw_panel(panel, left, top, left + width, top + height)
    whole = columns * width
    bottom = -(-len(panels) // columns) * height
    legend, high = draw_legend(panels, bottom, whole)
    bottom = round(bottom + high)
    with open(path, 'w', encoding='utf-8') as file:
        file.write(f'<svg xmlns="http://www.w3.org/2000/svg" width="{whole}" height="{bottom}" '
                   f'viewBox="0 0 {whole} {bottom}" font-family="sans-serif" font-size="12">\n'
                   '<style>.grid{stroke:#ddd;fill:none}.frame{stroke:#444;fill:none}.line{fill:none}'
                   '.title{font-weight:bold}</style>\n'
                   f'<rect width="{whole}" height="{bottom}" fill="#fff"/>\n' +
                   '\n'.join(part for part in [*parts, *legend] if part) + '\n</svg>\n')
