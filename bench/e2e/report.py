#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""report.py RESULT.json PLOTS PAGE.md [KERNELS] - writes the page of figures, and the plots into the folder PLOTS.

KERNELS is a file with the table of the pixel loops, as bench/kernels.py prints it."""
import json
import os
import platform
import statistics
import subprocess
import sys

import servers

MODES = {'one': 'one at a time', 'flight': '16 in flight', 'paced': '60 a second'}
NAMES = {'pfb': 'fbserver', 'floor1': 'floor, 1 copy', 'floor2': 'floor, 2 copies',
         'floor2tuned': 'tuned floor, 2 copies', 'xvfb': 'Xvfb', 'weston': 'Weston'}
MIB = 1024 * 1024
FLOODS = {'none': 'no flood', 'dirty': 'reports of the whole screen', 'show-hide': 'hiding and showing',
          'move': 'moving', 'garbage': 'garbage', 'visits': 'coming and going', 'deaf': 'questions, answers unread',
          'mixture': 'a mixture'}
FAIRNESS_BOUND_MS = 33  # docs/robustness.md says why
RECOVERY_GOAL_MS = 100


def quantile(values, q):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(len(ordered) * q))]


def cell(values, scale=1000, digits=2):
    """The median and the middle half."""
    values = [value / scale for value in values]
    low, high = quantile(values, .25), quantile(values, .75)
    return f'{statistics.median(values):.{digits}f} ({low:.{digits}f} – {high:.{digits}f})'


def ratio(mine, other):
    """Round by round: what the machine did meanwhile met both."""
    return cell([a / b for a, b in zip(mine, other)], 1)


def table(head, rows):
    lines = [head, ['---'] * len(head), *rows]
    return '\n'.join('| ' + ' | '.join(map(str, line)) + ' |' for line in lines) + '\n'


def cpu_of(measures):
    return [measure['cpu_ns'] for measure in measures]


def cpu_part(found):
    rows, ratios = [], []
    for mode, text in MODES.items():
        cpu = {name: cpu_of(measures) for name, measures in found[mode].items()}
        rows.append([text, *(cell(cpu[name]) for name in NAMES)])
        ratios.append([text, *(ratio(cpu['pfb'], cpu[name]) for name in ('floor2', 'floor2tuned', 'xvfb', 'weston'))])
    return (table(['µs an update', *NAMES.values()], rows) + '\nThe server as a fraction of each, round by round:\n\n' +
            table(['', 'floor, 2 copies (goal 1.15)', 'tuned floor', 'Xvfb (goal 1)', 'Weston (goal 0.4)'], ratios))


def latency_part(found):
    rows = []
    for n, by_server in found.items():
        for q, text in ((.5, 'median'), (.99, '99th of 100')):
            each = {name: [quantile(times, q) for times in rounds] for name, rounds in by_server.items()}
            rows.append([f'{n}, {text}', *(cell(each[name], 1000, 1) for name in each),
                         ratio(each['pfb'], each['xvfb'])])
    names = [NAMES[name] for name in next(iter(found.values()))]
    return table(['clients', *names, 'fbserver of Xvfb (goal 1)'], rows)


def memory_part(found, program):
    rows = []
    for name, use in found.items():
        pixels = 2 + (name != 'floor1' and name != 'xvfb')
        beyond = use['VmRSS'] - pixels * servers.SCREEN_BYTES
        own = use['RssAnon'] - (servers.SCREEN_BYTES if name not in ('floor1', 'xvfb') else 0)
        rows.append([NAMES[name], f'{own / MIB:.2f}', f'{beyond / MIB:.2f}'])
    return (table(['MiB', 'anonymous, beyond pixels (goal 0.6)', 'all resident, beyond pixels (goal 6)'], rows) +
            f'\nThe stripped program has {program / 1024:.0f} KiB (goal: under 300).\n')


def start_part(found):
    rows = []
    for name, measures in found.items():
        accept = [measure['accept_ns'] for measure in measures]
        pixel = [measure['pixel_ns'] for measure in measures]
        shown = cell(pixel, 1e6) + f', least {min(pixel) / 1e6:.2f}' if max(pixel) > 0 else ''
        rows.append([NAMES[name], cell(accept, 1e6) + f', least {min(accept) / 1e6:.2f}', shown])
    return table(['ms', 'from start to accepting a client (goal 5)', 'from its connection to its pixels (goal 5)'], rows)


def growth_part(found):
    by_surfaces = [[n, cell(cpu_of(measures))] for n, measures in found['growth']['surfaces'].items()]
    by_reports = [[n, cell(cpu_of(measures))] for n, measures in found['growth']['reports'].items()]
    names = list(next(iter(found['clients'].values())))
    by_clients = [[n, *(cell(cpu_of(each[name])) for name in names)] for n, each in found['clients'].items()]
    by_size = [[n, *(cell(cpu_of(each[name])) for name in names)] for n, each in found['size'].items()]
    titles = [NAMES[name] for name in names]
    return '\n'.join([
        'An update of 8 x 8 pixels over other surfaces, shown and unchanged, µs:\n',
        table(['surfaces', 'fbserver'], by_surfaces),
        'An update of 64 x 64 pixels while other clients are connected and quiet, µs:\n',
        table(['clients', *titles], by_clients),
        'An update by its size, one at a time, µs:\n', table(['pixels', *titles], by_size),
        'Scattered reports of one pixel each that wait for one pass, µs a report (receiving it included):\n',
        table(['reports', 'fbserver'], by_reports)])


def milliseconds(ns):
    return f'{ns / 1e6:.1f}'


def own_time(late, waiting):
    """Without the time in which the server was ready to run and the kernel ran other programs."""
    return max(0, late - waiting)


def fairness_part(found):
    rows = []
    for size, floods in found.items():
        for flood, measure in floods.items():
            late = measure['late_ns'] or [float('nan')]
            rows.append([f"{size}, {FLOODS.get(flood, flood)}", f"{measure['requests']:.0f}", measure['sent'], measure['seen'],
                         *map(milliseconds, (statistics.median(late), quantile(late, .99), max(late),
                                             max(map(own_time, late, measure['waiting_ns']), default=0))),
                         f"{100 * measure['cpu']:.0f} %"])
    return table(['', 'requests of the flood a second', 'updates', 'seen', 'late, median', '99th of 100',
                  'worst', f'worst, by the server (bound {FAIRNESS_BOUND_MS})', "server's processor"], rows)


def fairness_faults(found):
    for size, floods in found.items():
        for flood, measure in floods.items():
            worst = max(map(own_time, measure['late_ns'], measure['waiting_ns']), default=0) / 1e6
            if measure['seen'] < measure['sent']:
                yield f"{size}, {flood}: {measure['sent'] - measure['seen']} updates were not seen"
            if worst > FAIRNESS_BOUND_MS:
                yield f'{size}, {flood}: late by {worst:.1f} ms, the bound is {FAIRNESS_BOUND_MS} ms'


DEATHS = {'kill': 'killed (SIGKILL)', 'abort': 'aborts'}
PARTS = ('end', 'start', 'back', 'full')


def recovery_part(found):
    rows = []
    for death, by_pause in found.items():
        for pause, measures in by_pause.items():
            each = {part: [measure[part] for measure in measures] for part in PARTS}
            rows.append([DEATHS[death], f'{pause} ms', len(measures),
                         *(milliseconds(statistics.median(each[part])) for part in PARTS[:-1]),
                         *map(milliseconds, (statistics.median(each['full']), max(each['full'])))])
    return table(['the server', 'started again after', 'times', 'its end is known', 'its socket is there',
                  'all clients are back', f'all of it (goal {RECOVERY_GOAL_MS})', 'worst'], rows)


def plot(folder, name, title, x, y, series, log=True):
    """series: {title: [(x, values)]}; points at the medians, bars over the middle half."""
    commands = [f"set terminal svg size 640,400 background 'white'; set output '{folder}/{name}.svg'",
                f"set title '{title}'; set xlabel '{x}'; set ylabel '{y}'; set key left top; set grid",
                'set logscale xy' if log else 'set yrange [0:*]']
    data = []
    for points in series.values():
        data += [f'{at} {statistics.median(values)} {quantile(values, .25)} {quantile(values, .75)}'
                 for at, values in points] + ['e']
    parts = [f"'-' using 1:2:3:4 with yerrorlines title '{text}'" for text in series]
    commands += ['plot ' + ', '.join(parts), *data]
    subprocess.run(['gnuplot'], input='\n'.join(commands), text=True, check=True)


def per_name(found, x_of):
    names = next(iter(found.values()))
    return {NAMES[name]: [(x_of(key), [ns / 1000 for ns in cpu_of(each[name])]) for key, each in found.items()]
            for name in names}


def plots(found, folder):
    def area(size):
        width, height = map(int, size.split('x'))
        return width * height
    plot(folder, 'size', 'An update by its size', 'pixels', 'us of the server', per_name(found['size'], area))
    plot(folder, 'clients', 'An update beside quiet clients', 'clients', 'us of the server',
         per_name(found['clients'], int), log=False)
    for name, title in (('surfaces', 'An update over other surfaces'), ('reports', 'Scattered reports in one pass')):
        points = [(int(n), [ns / 1000 for ns in cpu_of(each)]) for n, each in found['growth'][name].items()]
        plot(folder, name, title, name, 'us of the server', {'fbserver': points}, log=name == 'reports')
    latency = {}
    for n, by_server in found['latency'].items():
        for name, rounds in by_server.items():
            latency.setdefault(NAMES[name], []).append((int(n), [quantile(times, .5) / 1000 for times in rounds]))
    plot(folder, 'latency', 'From request to pixel, median', 'clients that ask at once', 'us', latency)


def machine():
    with open('/proc/cpuinfo', encoding='ascii') as info:
        model = next((line.split(':')[1].strip() for line in info if line.startswith('model name')), platform.machine())
    release = '.'.join(platform.release().split('.')[:2])
    return f'{model}, {os.cpu_count()} processors, Linux {release}, load {os.getloadavg()[1]:.1f} afterwards'


PAGE = '''# Performance

`make bench` has written this page: it builds, measures and compares on the machine that it runs on, and takes some
minutes. Each figure is a median, with the middle half of its rounds in brackets. The servers take turns in every round,
and only figures of one run are compared: a busy machine moves all of them, by 15 to 40 % between runs. The plots of the
same run are in `build/bench/results`, with all single measures in `results.json`.

Machine: {machine}.

## What is measured

One client with a surface of 480 x 272 pixels of 32 bits draws 64 x 64 of them, reports it, and waits until they are on
the panel. The servers:

- **fbserver**, on the virtual panel;
- the **floor**: a GLib loop that receives one request for each wake-up and copies the rectangle, once, or twice as
  fbserver does (into the work image, then to the panel), and does nothing else (`bench/e2e/floor.c`). GLib as it is
  commonly used makes six system calls a request; the tuned floor, as fbserver, makes two;
- **Xvfb**, with the shared-memory extension (`XShmPutImage`);
- **Weston**, headless, with its pixman renderer. It draws 60 times a second and shows its pixels to nobody, so its
  client waits for the end of the frame; latency is not compared.

## Processor time of the server

{cpu}
## From request to pixel

All clients ask at once, and each one's time ends when its last pixel is on the panel. µs.

{latency}
## Memory

While one client shows a full screen.

{memory}
## Start

{start}
## Recovery

The server ends and is started again, and ten clients of the library, each a process, put their surfaces back: one of the
whole screen, nine translucent ones over it. Its end is a SIGKILL, or an assertion that a request fails. Who starts it
again does so at once, or after the 50 ms that `packaging/fbserver.service` asks for. ms, medians; all of it is from the signal or
the request to the last pixel of the full picture.

{recovery}
## Fairness

One client shows 30 updates a second on top of everything while three others, each with a translucent surface as large as
the screen, flood the server. How late an update is counts from its report to its pixels on the panel, in ms. The bound is for
what the server makes of it: without the time in which it, or the benchmark that looks, was ready and the kernel ran other
programs, the floods among them. Garbage is the worst: each of these clients leaves connections full of requests behind.
[Robustness](robustness.md#floods) says where the bound comes from. `make bench` fails when it is exceeded, or an update is
not seen.

{fairness}
## Growth

{growth}
{kernels}
## Instructions

`bench/instructions.txt` has the instructions and system calls of one update, `bench/instructions-client.txt` those of a
request in the client. They do not depend on how busy a machine is, and tests of the release build compare them.
'''


KERNELS = '''## Pixel loops

Speeds (bytes read and written per second) as fractions of memcpy's over the same buffers, medians and how far their
middle half spreads. The goals are for the fastest instruction set, those in brackets for SSE2; beside pixman and libyuv
they are how many times as fast the fastest set is. An exclamation mark: missed.

'''


def kernels_part(path):
    if path is None:
        return ''
    with open(path, encoding='utf-8') as file:
        return KERNELS + '```\n' + file.read().rstrip() + '\n```\n'


def main():
    result, folder, page = sys.argv[1:4]
    with open(result, encoding='utf-8') as file:
        found = json.load(file)
    plots(found, folder)
    text = PAGE.format(machine=machine(), cpu=cpu_part(found['cpu']), latency=latency_part(found['latency']),
                       memory=memory_part(found['memory'], found['program']), start=start_part(found['start']),
                       recovery=recovery_part(found['recovery']), fairness=fairness_part(found['fairness']),
                       growth=growth_part(found), kernels=kernels_part(sys.argv[4] if len(sys.argv) > 4 else None))
    with open(page, 'w', encoding='utf-8') as file:
        file.write(text)
    print(cpu_part(found['cpu']))
    print(latency_part(found['latency']))
    faults = list(fairness_faults(found['fairness']))
    sys.exit('\n'.join(faults) if faults else 0)


if __name__ == '__main__':
    main()
