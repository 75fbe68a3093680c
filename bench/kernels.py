#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""kernels.py PROGRAM [OPTION...]  runs the kernel benchmark (build/NAME/bench/kernels), writes kernels.json beside it,
                                and prints the table; options are Google Benchmark's
   kernels.py FILE.json           prints the table of a run

Every number is a speed (bytes read and written per second) as a fraction of memcpy's over the same buffers in the same
run: the median over the repetitions, and how far their middle half spreads around it. Goals are for the fastest set of
the machine, those in brackets for sse2; a goal beside another library is how many times as fast as it, and without a
goal the number alone stands there. What is missed is marked by an exclamation mark, and listed below the table.

16x16of480 are 16 x 16 pixels in pictures of 480 pixels a row, as small rectangles mostly are: it is these that have a
goal. Those of 16x16 lie together, and are one row for many a loop, but for none of pixman's."""
import collections
import fnmatch
import json
import os
import statistics
import subprocess
import sys

REPETITIONS = ['--benchmark_min_time=0.01', '--benchmark_repetitions=9', '--benchmark_enable_random_interleaving=true']

SETS = ['avx2', 'neon', 'sse2', 'plain']  # the fastest first
SMALL, LARGE = '480x272', '1920x1080'
TINY, TINY_TOGETHER = '16x16of480', '16x16'

# For cases by their names: fractions of memcpy (small and large), times pixman, times libyuv, and the same for sse2. The
# first line that fits counts.
NONE = (None, None, None)
GOALS = [
    (['rgb_to_32', 'rgb_to_32a', '*_to_32_alpha4', '32_to_32', '32_to_32_270', '16_to_16', '16_to_16_270', 'fill_*', 'dim'],
     ((.95, .95), None, None), NONE),
    (['rgb_to_16', 'rgb_to_16_270', 'rgb_to_18*', '18_to_16', '16_to_18'], ((.85, .95), 1, 1), ((.45, .5), 1, 1)),
    (['16_to_32', '18_to_32'], ((.6, .7), 1, 1), (None, 1, 1)),
    (['over_random*'], ((.6, 1), 2, None), NONE),
    (['over_transparent'], ((1.2, 2.2), None, None), NONE),
    (['over_opaque'], ((.95, .95), None, None), NONE),
    (['32_to_32_90'], ((.7, .55), 3.5, None), NONE),
    (['16_to_16_90'], ((.6, .4), 3.5, None), NONE),
    (['rgb_to_16_90'], ((.48, .38), 3.5, None), NONE),
    (['*_x2', 'refresh_*_x1.6'], ((.6, .6), 3, None), NONE),
    (['refresh_*_x0.5', 'refresh_*_x0.8'], ((.75, .75), 3, None), NONE),
]
TINY_GOAL = (None, 4, None)  # beside one call of pixman; refreshes are no conversions


def run(program, options):
    path = os.path.join(os.path.dirname(program), 'kernels.json')
    command = [program, *REPETITIONS, '--benchmark_out=' + path, '--benchmark_out_format=json', *options]
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return path


def speeds_of(path):
    """{(case, size): {who: [bytes per second]}}"""
    with open(path, encoding='utf-8') as file:
        measured = json.load(file)['benchmarks']
    speeds = collections.defaultdict(lambda: collections.defaultdict(list))
    for one in measured:
        if one.get('run_type', 'iteration') != 'iteration':
            continue
        case, size, who = one['run_name'].split('/')[:3]
        speeds[case, size][who].append(one['bytes_per_second'])
    return speeds


def goals_by_sets(case, size):
    """The goals of the fastest set, and those of sse2"""
    if size in (TINY, TINY_TOGETHER):
        return (NONE if size == TINY_TOGETHER or case.startswith('refresh') else TINY_GOAL), NONE
    for patterns, fastest, sse2 in GOALS:
        if any(fnmatch.fnmatchcase(case, pattern) for pattern in patterns):
            return fastest, sse2
    return NONE, NONE


def goals_of(case, size, fastest):
    """[(who is measured, beside whom, goal or None)]; sse2 only where it has one"""
    of_fastest, of_sse2 = goals_by_sets(case, size)

    def fraction(pair):
        return pair[size == LARGE] if pair and size in (SMALL, LARGE) else None

    goals = [('sse2', 'memcpy', fraction(of_sse2[0])), ('sse2', 'pixman', of_sse2[1]), ('sse2', 'libyuv', of_sse2[2])]
    return [(fastest, 'memcpy', fraction(of_fastest[0])), (fastest, 'pixman', of_fastest[1]),
            (fastest, 'libyuv', of_fastest[2]), *[goal for goal in goals if goal[2] is not None and fastest != 'sse2']]


def judge(row, goals):
    """[(who, beside whom, goal, what was reached)] of those that could be measured"""
    return [(who, other, goal, statistics.median(row[who]) / statistics.median(row[other]))
            for who, other, goal in goals if who in row and other in row]


def is_missed(goal, reached):
    return goal is not None and round(reached, 2) < goal


def goal_text(other, goal, reached):
    mark = '!' if is_missed(goal, reached) else ''
    if other == 'memcpy':
        return '' if goal is None else f'{goal:g}{mark}'
    return f'{reached:.1f}' if goal is None else f'{reached:.1f} of {goal:g}{mark}'


def goal_cell(judged, fastest, other):
    words = []
    for who, beside, goal, reached in judged:
        if beside == other:
            text = goal_text(other, goal, reached)
            words.append(text if who == fastest else f'({text})')
    return ' '.join(words).strip() or '-'


def cell(values, limit):
    median = statistics.median(values) / limit
    if len(values) < 2:
        return f'{median:.2f}'
    low, _, high = statistics.quantiles(values, n=4)
    return f'{median:.2f} ±{(high - low) / 2 / limit:.2f}'


def area(size):
    """The order of the sizes"""
    w, h = map(int, size.split('of')[0].split('x'))
    return w * h, size


def print_table(speeds):
    found = {who for row in speeds.values() for who in row}
    sets = [who for who in reversed(SETS) if who in found]
    everyone = sets + [who for who in ('pixman', 'libyuv') if who in found]
    print(f'{"case":<19}{"size":<12}{"memcpy GB/s":>12}' + ''.join(f'{who:>12}' for who in everyone) +
          f'{"goal":>14}{"x pixman":>22}{"x libyuv":>20}')
    reached_all, missed = 0, []
    for (case, size), row in sorted(speeds.items(), key=lambda one: (one[0][0], area(one[0][1]))):
        fastest = sets[-1] if sets else None
        judged = judge(row, goals_of(case, size, fastest))
        missed += [(case, size, *one) for one in judged if is_missed(one[2], one[3])]
        reached_all += sum(goal is not None and not is_missed(goal, reached) for _, _, goal, reached in judged)
        limit = statistics.median(row['memcpy']) if 'memcpy' in row else 0
        cells = [cell(row[who], limit) if who in row and limit else '-' for who in everyone]
        goals = [goal_cell(judged, fastest, other) for other in ('memcpy', 'pixman', 'libyuv')]
        print(f'{case:<19}{size:<12}{limit / 1e9:>12.1f}' + ''.join(f'{text:>12}' for text in cells) +
              f'{goals[0]:>14}{goals[1]:>22}{goals[2]:>20}')
    print(f'\n{reached_all} goals reached, {len(missed)} missed')
    for case, size, who, other, goal, reached in missed:
        print(f'  {case} {size}: {who} is {reached:.2f} of {other}, the goal is {goal:g}')
    print(f'\n{TINY}: in rows of 480 pixels, which is judged; {TINY_TOGETHER}: together, as one row for all but pixman')


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    path = sys.argv[1]
    print_table(speeds_of(path if path.endswith('.json') else run(path, sys.argv[2:])))


main()
