#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""run.py BUILD RESULT.json - measures the servers and writes what it found.

All servers run at once and are idle but for the one that is measured; they take turns, round after round, so that what
else the machine does meets all of them alike. Figures are compared within one run only.
"""
import json
import os
import subprocess
import sys

import servers

ROUNDS = 5
UPDATES = {'one': 1500, 'flight': 3000, 'paced': 60}


def measure(build, server, *work):
    command = [f'{build}/bench/e2e/measure', server.target, server.place, str(server.pid), *map(str, work)]
    done = subprocess.run(command, env=server.env, stdout=subprocess.PIPE, check=True, timeout=120)
    return json.loads(done.stdout)


def of_frames(server, mode, n):
    """A compositor that answers 60 times a second gets less to do."""
    return n if server.target != 'weston' else {'one': 60, 'flight': 16 * 40, 'paced': 60}[mode]


def measure_cpu(build, running):
    found = {mode: {server.name: [] for server in running} for mode in UPDATES}
    for _ in range(ROUNDS):
        for mode, n in UPDATES.items():
            for server in running:
                found[mode][server.name].append(measure(build, server, 'cpu', mode, of_frames(server, mode, n)))
    return found


def main():
    build, result = sys.argv[1:3]
    everything = servers.All(build)
    try:
        found = {'cpu': measure_cpu(build, everything.servers)}
    finally:
        everything.stop()
    with open(result, 'w', encoding='utf-8') as file:
        json.dump(found, file, indent=1)


if __name__ == '__main__':
    main()
