# SPDX-License-Identifier: MIT
"""The plots of the page of figures."""
import collections
import json
import os
import statistics

import svg
from figures import column, quantile

NAMES = {'pfb': 'fbserver', 'floor1': 'floor, 1 copy', 'floor2': 'floor, 2 copies', 'floor2tuned': 'tuned floor',
         'floor2draining': 'draining floor', 'xvfb': 'Xvfb', 'weston': 'Weston'}
STYLES = {'pfb': ('#c00000', 'disc'), 'floor1': ('#b0b0b0', 'up'), 'floor2': ('#808080', 'square'),
          'floor2tuned': ('#606060', 'diamond'), 'floor2draining': ('#000000', 'cross'), 'xvfb': ('#e08000', 'down'),
          'weston': ('#0060c0', 'up')}
MORE_STYLES = [('#c00000', 'disc'), ('#0060c0', 'square'), ('#008040', 'up'), ('#a060c0', 'down')]
KERNEL_STYLES = {'plain': ('#909090', 'plus'), 'sse2': ('#e0a0a0', 'disc'), 'neon': ('#c00000', 'disc'),
                 'avx2': ('#c00000', 'disc'), 'pixman': ('#0060c0', 'up'), 'libyuv': ('#008040', 'square')}
KERNEL_SIZES = ['480x272', '1920x1080']
MODES = {'one': 'one', 'burst': 'burst', 'window': 'window', 'paced': '60/s'}
PROCESSORS = {'one': 'one processor', 'two': 'two processors'}


def microseconds(measures):
    return [ns / 1000 for ns in column(measures, 'cpu_ns')]


def by_server(found, x_of, values_of):
    """Of {x: {server: measures}}, a series for each server."""
    names = next(iter(found.values()))
    return [svg.Series(NAMES[name], *STYLES[name], [(x_of(x), values_of(each[name])) for x, each in found.items()])
            for name in names]


def draw_cpu(found, path):
    panels = [svg.Panel(f'An update, {PROCESSORS[where]}', '', 'µs of the server', by_server(modes, list(modes).index, microseconds),
                        ticks=[MODES[mode] for mode in modes]) for where, modes in found.items()]
    svg.draw(path, panels, 440)


def draw_latency(found, path):
    def of_rounds(q):
        return lambda measures: [quantile(times, q) / 1000 for times in column(measures, 'ns')]
    svg.draw(path, [svg.Panel(f'From request to pixel, {words}, {PROCESSORS[where]}', 'clients that ask at once', 'µs',
                              by_server(each, list(each).index, of_rounds(q)), ticks=list(each))
                    for q, words in ((.5, 'median'), (.99, '99th of 100')) for where, each in found.items()], 440, 320)


def draw_sizes(found, path):
    svg.draw(path, [svg.Panel('An update by its size', '', 'µs of the server',
                              by_server(found, list(found).index, microseconds), ticks=list(found))])


def draw_clients(found, path):
    svg.draw(path, [svg.Panel('An update beside quiet clients', 'clients', 'µs of the server',
                              by_server(found, int, microseconds))])


def draw_surfaces(found, path, titles):
    series = [svg.Series(titles[where], *style, [(int(n), microseconds(each)) for n, each in by_number.items()])
              for (where, by_number), style in zip(found.items(), MORE_STYLES)]
    svg.draw(path, [svg.Panel('An update among other surfaces', 'surfaces', 'µs of the server', series, None)])


def draw_reports(found, path):
    points = [(int(n), microseconds(each)) for n, each in found.items()]
    svg.draw(path, [svg.Panel('Scattered reports in one pass', 'reports', 'µs a report',
                              [svg.Series('fbserver', *STYLES['pfb'], points)], 'x')])


def draw_servers(path, title, y, found):
    """`found`: {what: {server: values}}"""
    servers = list(next(iter(found.values())))
    series = [svg.Series(what, *style, list(enumerate(each.values())))
              for (what, each), style in zip(found.items(), MORE_STYLES)]
    svg.draw(path, [svg.Panel(title, '', y, series, ticks=[NAMES[server] for server in servers])], 880)


def kernel_runs(path):
    """Without the summaries that the benchmark makes itself."""
    with open(path, encoding='utf-8') as file:
        return [one for one in json.load(file)['benchmarks'] if one.get('run_type', 'iteration') == 'iteration']


def kernel_repetitions(path):
    return max(collections.Counter(one['run_name'] for one in kernel_runs(path)).values())


def kernel_speeds(path):
    """{size: {case: {who: [fractions of memcpy]}}}"""
    speeds = {size: {} for size in KERNEL_SIZES}
    for one in kernel_runs(path):
        case, size, who = one['run_name'].split('/')[:3]
        if size in speeds:
            speeds[size].setdefault(case, {}).setdefault(who, []).append(one['bytes_per_second'])
    for cases in speeds.values():
        for case, row in cases.items():
            limit = statistics.median(row.pop('memcpy'))
            cases[case] = {who: [one / limit for one in values] for who, values in row.items()}
    return speeds


def draw_kernels(kernels, path):
    panels = []
    for size, cases in kernel_speeds(kernels).items():
        names = sorted(cases)
        points = {who: [(place, cases[case][who]) for place, case in enumerate(names) if who in cases[case]]
                  for who in KERNEL_STYLES}
        panels.append(svg.Panel(f'Pixel loops, {size}', '', "fraction of memcpy's speed",
                                [svg.Series(who, *KERNEL_STYLES[who], points[who]) for who in points if points[who]],
                                ticks=names))
    svg.draw(path, panels, 1000, 420, columns=1)


def draw_all(found, kernels, folder, memory, where):
    """`memory`: {what: {server: MiB}}, `where`: the titles of what is measured among other surfaces."""
    os.makedirs(folder, exist_ok=True)

    def path(name):
        return os.path.join(folder, name + '.svg')
    draw_cpu(found['cpu'], path('cpu'))
    draw_latency(found['latency'], path('latency'))
    draw_sizes(found['size'], path('size'))
    draw_clients(found['clients'], path('clients'))
    draw_surfaces(found['surfaces'], path('surfaces'), where)
    draw_reports(found['reports'], path('reports'))
    draw_servers(path('memory'), 'Memory beyond pixels', 'MiB', memory)
    draw_servers(path('start'), 'Start', 'ms',
                 {what: {name: [ns / 1e6 for ns in column(measures, key)] for name, measures in found['start'].items()}
                  for what, key in (('to accepting a client', 'accept_ns'),
                                    ('from its connection to its first pixels', 'pixel_ns'))})
    draw_kernels(kernels, path('kernels'))
