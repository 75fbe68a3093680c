# SPDX-License-Identifier: MIT
"""What is made of the measures of several rounds: medians with the middle half, ratios, goals, tables."""
import statistics


def quantile(values, q):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(len(ordered) * q))]


def cell(values, scale=1000, digits=2, mark=''):
    """The median and the middle half."""
    values = [value / scale for value in values]
    low, high = quantile(values, .25), quantile(values, .75)
    return f'{statistics.median(values):.{digits}f}{mark} ({low:.{digits}f} – {high:.{digits}f})'


def ratios(mine, other, figure):
    """Round by round: what the machine did meanwhile met both."""
    by_round = {measure['round']: figure(measure) for measure in other}
    return [figure(measure) / by_round[measure['round']] for measure in mine if measure['round'] in by_round]


def column(measures, key):
    return [measure[key] for measure in measures]


def table(head, rows):
    lines = [head, ['---'] * len(head), *rows]
    return '\n'.join('| ' + ' | '.join(map(str, line)) + ' |' for line in lines) + '\n'


class Goals:
    """Counts goals that are reached, notes those that are missed."""

    def __init__(self):
        self.reached = 0
        self.missed = []

    def mark(self, what, values, goal, scale=1, digits=2, unit=''):
        """'!' where the median is above the goal, as precisely as it is shown."""
        median = statistics.median(values) / scale
        if round(median, digits) <= goal:
            self.reached += 1
            return ''
        self.missed.append(f'{what}: {median:.{digits}f}{unit}, the goal is {goal:g}{unit}')
        return '!'

    def cell(self, what, values, goal, scale=1, digits=2, unit=''):
        return cell(values, scale, digits, self.mark(what, values, goal, scale, digits, unit))
