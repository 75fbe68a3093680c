#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""report.py RESULTS PAGE.md - writes the page of figures, and its plots into a folder beside it that is named like it.

RESULTS is a folder: results.json is what run.py has measured, kernels.json what the pixel loops have reached, and
kernels.txt their table, as bench/kernels.py prints it. Fails when a part is missing, when a client's updates were late
beyond the stated bound, or lost, while others flood."""
import json
import os
import re
import statistics
import sys

import plots
import run
import servers
from figures import Goals, cell, column, quantile, ratios, table
from page import PAGE
from plots import NAMES, PROCESSORS

MODES = {'one': 'one at a time', 'burst': '16 in flight, bursts', 'window': '16 in flight, a window',
         'paced': '60 a second'}
NOT_JUDGED = ['window']
CPU_GOALS = {'floor2': 1.15, 'floor2tuned': None, 'floor2draining': None, 'xvfb': 1, 'weston': .4}
MIB = 1024 * 1024
ANONYMOUS_GOAL_MIB, RESIDENT_GOAL_MIB, PROGRAM_GOAL_KIB = .6, 6, 300
START_GOAL_MS = 5
SURFACES_GOAL_US = 5  # that the most surfaces cost more than none
FLOODS = {'none': 'no flood', 'dirty': 'reports of the whole screen', 'show-hide': 'hiding and showing',
          'move': 'moving', 'garbage': 'garbage', 'visits': 'coming and going', 'deaf': 'questions, answers unread',
          'mixture': 'a mixture'}
FAIRNESS_BOUND_MS = 33  # docs/robustness.md says why
RECOVERY_GOAL_MS = 100
DEATHS = {'kill': 'killed (SIGKILL)', 'abort': 'aborts'}
WHERE = {'top': 'above all', 'bottom': 'below all', 'covered': 'below all, half covered by each'}


def cpu_of(measures):
    return column(measures, 'cpu_ns')


def titles(by_server, **others):
    return [others.get(name, NAMES[name]) for name in by_server]


# ---- side by side ----

def cpu_table(modes):
    rows = [[MODES[mode], *(cell(cpu_of(measures)) for measures in each.values())] for mode, each in modes.items()]
    return table(['µs an update', *titles(next(iter(modes.values())))], rows)


def waits_table(modes):
    rows = [[MODES[mode], *(cell(column(measures, 'waits'), 1) for measures in each.values())]
            for mode, each in modes.items()]
    return table(['waits an update', *titles(next(iter(modes.values())))], rows)


def cpu_ratios(where, modes, goals):
    rows = []
    for mode, each in modes.items():
        row = []
        for name, goal in CPU_GOALS.items():
            values = ratios(each['pfb'], each[name], lambda measure: measure['cpu_ns'])
            what = f'processor time, {PROCESSORS[where]}, {MODES[mode]}, beside {NAMES[name]}'
            judged = goal is not None and mode not in NOT_JUDGED
            row.append(goals.cell(what, values, goal) if judged else cell(values, 1))
        rows.append([MODES[mode], *row])
    heads = [NAMES[name] + (f' (goal {goal:g})' if goal else '') for name, goal in CPU_GOALS.items()]
    return table(['fbserver as a fraction of', *heads], rows)


def cpu_part(found, goals):
    return '\n'.join(f'### {PROCESSORS[where].capitalize()}\n\n{cpu_table(modes)}\n'
                     f'{cpu_ratios(where, modes, goals)}\n{waits_table(modes)}' for where, modes in found.items())


def latency_part(found, goals):
    parts = []
    for where, by_number in found.items():
        rows = []
        for n, each in by_number.items():
            for q, text in ((.5, 'median'), (.99, '99th of 100')):
                def of_round(measure, q=q):
                    return quantile(measure['ns'], q)
                rows.append([f'{n}, {text}', *(cell(map(of_round, measures), 1000, 1) for measures in each.values()),
                             goals.cell(f'latency, {PROCESSORS[where]}, clients: {n}, {text}, beside Xvfb',
                                        ratios(each['pfb'], each['xvfb'], of_round), 1)])
        heads = titles(next(iter(by_number.values())), weston='Weston, to its frame callback')
        parts.append(f'### {PROCESSORS[where].capitalize()}: latency\n\n' +
                     table(['clients', *heads, 'fbserver as a fraction of Xvfb (goal 1)'], rows))
    return '\n'.join(parts)


def weston_ms(found):
    """From one frame to the next: its only client asks for one as soon as the one before is over."""
    return statistics.median(ns for measure in found['one']['1']['weston'] for ns in measure['ns']) / 1e6


def memory_beyond_pixels(found):
    """{what: {server: bytes}}. The client's and the panel's pixels are shared; those that a server composes are not."""
    beyond = {}
    for name, measures in found.items():
        composed = servers.SCREEN_BYTES * (name not in ('floor1', 'xvfb'))
        for what, field, pixels in (('anonymous', 'Anonymous', composed),
                                    ('all resident', 'Rss', composed + 2 * servers.SCREEN_BYTES)):
            for client in ('first', 'fifth'):
                beyond.setdefault(f'{what}, {client} client', {})[name] = [
                    use[field] - pixels for use in column(measures, client)]
    return beyond


def memory_part(found, program, goals):
    beyond = memory_beyond_pixels(found)
    limits = [ANONYMOUS_GOAL_MIB if what.startswith('anonymous') else RESIDENT_GOAL_MIB for what in beyond]
    rows = []
    for name in found:
        row = [NAMES[name]]
        for (what, each), limit in zip(beyond.items(), limits):
            mark = goals.mark(f'memory, {what}', each[name], limit, MIB, unit=' MiB') if name == 'pfb' else ''
            row.append(cell(each[name], MIB, 2, mark))
        rows.append(row)
    mark = goals.mark('the stripped program', [program], PROGRAM_GOAL_KIB, 1024, 0, ' KiB')
    return (table(['MiB', *(f'{what} (goal {limit:g})' for what, limit in zip(beyond, limits))], rows) +
            f'\nThe stripped program has {program / 1024:.0f} KiB{mark} (goal: under {PROGRAM_GOAL_KIB}).\n')


# ---- alone ----

def start_part(found, goals):
    rows = []
    for name, measures in found.items():
        row = [NAMES[name]]
        for key, what in (('accept_ns', 'start'), ('pixel_ns', 'first pixels')):
            values = column(measures, key)
            mark = goals.mark(what, values, START_GOAL_MS, 1e6, unit=' ms') if name == 'pfb' else ''
            row.append(cell(values, 1e6, 2, mark) + f', least {min(values) / 1e6:.2f}')
        rows.append(row)
    return table(['ms', f'from start to accepting a client (goal {START_GOAL_MS})',
                  f'from its connection to its pixels (goal {START_GOAL_MS})'], rows)


def surfaces_part(found, goals):
    numbers = list(next(iter(found.values())))
    least, most = numbers[0], numbers[-1]
    rows = [[n, *(cell(cpu_of(by_number[n])) for by_number in found.values())] for n in numbers]
    more = [goals.cell(f'{most} surfaces more than {least}, {WHERE[where]}',
                       [a - b for a, b in zip(cpu_of(by_number[most]), cpu_of(by_number[least]))], SURFACES_GOAL_US,
                       1000, unit=' µs') for where, by_number in found.items()]
    rows.append([f'{most} more than {least} (goal {SURFACES_GOAL_US})', *more])
    return table(['other surfaces', *(WHERE[where] for where in found)], rows)


def reports_part(found):
    return table(['reports', 'fbserver'], [[n, cell(cpu_of(measures))] for n, measures in found.items()])


def side_part(found, what):
    rows = [[n, *(cell(cpu_of(measures)) for measures in each.values())] for n, each in found.items()]
    return table([what, *titles(next(iter(found.values())))], rows)


def own_times(measure):
    """How late each update was without the time in which the server was ready to run and the kernel ran others."""
    return [max(0, late - waiting) for late, waiting in zip(measure['late_ns'], measure['waiting_ns'])]


def fairness_row(size, flood, measures, goals):
    what = f'fairness, {size}, {FLOODS[flood]}'
    late = [one for measure in measures for one in measure['late_ns']]
    sent, seen = sum(column(measures, 'sent')), len(late)
    lost = goals.mark(f'{what}, updates that were not seen', [sent - seen], 0, 1, 0)
    own = [max(own_times(measure), default=0) for measure in measures]
    bound = goals.mark(f'{what}, late by the server', [max(own)], FAIRNESS_BOUND_MS, 1e6, 1, ' ms')
    worst = [max(measure['late_ns'], default=0) for measure in measures]
    return [f'{size}, {FLOODS[flood]}', f"{statistics.median(column(measures, 'requests')):.0f}",
            f'{seen} of {sent}{lost}', cell(late or [0], 1e6, 1), f'{quantile(late or [0], .99) / 1e6:.1f}',
            cell(worst, 1e6, 1), cell(own, 1e6, 1), f'{max(own) / 1e6:.1f}{bound}',
            f"{100 * statistics.median(column(measures, 'cpu')):.0f} %"]


def fairness_part(found, goals):
    rows = [fairness_row(size, flood, measures, goals)
            for size, floods in found.items() for flood, measures in floods.items()]
    return table(['', 'requests of the flood a second', 'updates seen', 'late, ms', '99th of 100', "a round's worst",
                  "a round's worst, by the server", f'worst of all, by the server (bound {FAIRNESS_BOUND_MS})',
                  "server's processor"], rows)


def recovery_part(found, goals):
    rows = []
    for death, by_pause in found.items():
        for pause, measures in by_pause.items():
            full = column(measures, 'full')
            mark = goals.mark(f'recovery, {DEATHS[death]}, {pause} ms', full, RECOVERY_GOAL_MS, 1e6, 1, ' ms')
            rows.append([DEATHS[death], f'{pause} ms', len(measures),
                         *(cell(column(measures, part), 1e6, 1) for part in ('end', 'start', 'back')),
                         cell(full, 1e6, 1, mark), f'{max(full) / 1e6:.1f}'])
    return table(['the server', 'started again after', 'times', 'its end is known', 'its socket is there',
                  'all clients are back', f'all of it (goal {RECOVERY_GOAL_MS})', 'worst'], rows)


# ---- the pixel loops ----

def kernels_part(path, goals):
    """Their table. What it says about goals below goes to where all of that is."""
    with open(path, encoding='utf-8') as file:
        text = file.read()
    summary = re.search(r'^(\d+) goals reached, (\d+) missed\n((?:  .*\n)*)', text, re.M)
    if summary is None:
        sys.exit(f'report.py: {path} does not say what was reached')
    missed = ['pixel loops, ' + line.strip() for line in summary[3].splitlines()]
    if len(missed) != int(summary[2]):
        sys.exit(f'report.py: {path} lists {len(missed)} that were missed, and says {summary[2]}')
    goals.reached += int(summary[1])
    goals.missed += missed
    return text[:summary.start()].rstrip()


# ---- the page ----

def shortened(found):
    few = [f'{part} {found["rounds"][part]} of {whole}' for part, whole in found['whole'].items()
           if found['rounds'][part] < whole]
    if not few:
        return ''
    return f'\n**Taken with fewer rounds than it takes by itself, for a quick look: {", ".join(few)}.**\n'


def missed_part(goals):
    lines = [f'{goals.reached} goals reached, {len(goals.missed)} missed.']
    return '\n'.join(lines + ([''] + [f'- {one}' for one in goals.missed] if goals.missed else [])) + '\n'


def page(found, results, folder):
    goals = Goals()
    host = found['machine']
    fields = {
        'plots': os.path.basename(folder),
        'machine': f"{host['model']}, processors: {host['processors']}, Linux {host['linux']}, "
                   f"load {host['load']:.1f} when it began",
        'shortened': shortened(found),
        'weston_ms': weston_ms(found['latency']),
        'rounds': ', '.join(f'{part} {n}' for part, n in found['rounds'].items()),
        'cpu': cpu_part(found['cpu'], goals), 'latency': latency_part(found['latency'], goals),
        'memory': memory_part(found['memory'], found['program'], goals),
        'start': start_part(found['start'], goals), 'recovery': recovery_part(found['recovery'], goals),
        'fairness': fairness_part(found['fairness'], goals), 'surfaces': surfaces_part(found['surfaces'], goals),
        'clients': side_part(found['clients'], 'clients'), 'size': side_part(found['size'], 'pixels'),
        'reports': reports_part(found['reports']),
        'repetitions': plots.kernel_repetitions(os.path.join(results, 'kernels.json')),
        'kernels': kernels_part(os.path.join(results, 'kernels.txt'), goals),
    }
    return PAGE.format(**fields, missed=missed_part(goals)), goals


def main():
    results, path = sys.argv[1:]
    with open(os.path.join(results, 'results.json'), encoding='utf-8') as file:
        found = json.load(file)
    missing = [part for part in run.ROUNDS if not found.get(part)]
    if missing:
        sys.exit(f'report.py: not measured: {", ".join(missing)}')
    folder = os.path.splitext(path)[0]
    text, goals = page(found, results, folder)
    memory = {what: {name: [one / MIB for one in values] for name, values in each.items()}
              for what, each in memory_beyond_pixels(found['memory']).items()}
    plots.draw_all(found, os.path.join(results, 'kernels.json'), folder, memory, WHERE)
    with open(path, 'w', encoding='utf-8') as file:
        file.write(text)
    print(missed_part(goals))
    faults = [one for one in goals.missed if one.startswith('fairness')]
    sys.exit('\n'.join(faults) if faults else 0)


if __name__ == '__main__':
    main()
