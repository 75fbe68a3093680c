#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""kernels.py PROGRAM [OPTION...]  runs the kernel benchmark (build/NAME/bench/kernels), writes kernels.json beside it,
                                and prints the table; options are Google Benchmark's
   kernels.py FILE.json           prints the table of a run

Every number is a speed (bytes read and written per second) as a fraction of memcpy's over the same buffers in the same
run: the median over the repetitions, and how far their middle half spreads around it."""
import collections
import json
import os
import statistics
import subprocess
import sys

REPETITIONS = ['--benchmark_min_time=0.02', '--benchmark_repetitions=15', '--benchmark_enable_random_interleaving=true']


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


def cell(values, limit):
    median = statistics.median(values) / limit
    if len(values) < 2:
        return f'{median:.2f}'
    low, _, high = statistics.quantiles(values, n=4)
    return f'{median:.2f} ±{(high - low) / 2 / limit:.2f}'


def print_table(speeds):
    everyone = []
    for row in speeds.values():
        everyone += [who for who in row if who not in everyone and who != 'memcpy']
    print(f'{"case":<20}{"size":<11}{"memcpy GB/s":>12}' + ''.join(f'{who:>13}' for who in everyone))
    for (case, size), row in speeds.items():
        limit = statistics.median(row['memcpy'])
        cells = [cell(row[who], limit) if who in row else '-' for who in everyone]
        print(f'{case:<20}{size:<11}{limit / 1e9:>12.1f}' + ''.join(f'{text:>13}' for text in cells))


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    path = sys.argv[1]
    print_table(speeds_of(path if path.endswith('.json') else run(path, sys.argv[2:])))


main()
