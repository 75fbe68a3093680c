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
import tempfile

import servers

ROUNDS = 9
UPDATES = {'one': 1500, 'flight': 3000, 'paced': 60}
LATENCY_ROUNDS = {1: 600, 8: 150, 32: 50}
SIZES = [(1, 1), (8, 8), (16, 16), (32, 32), (64, 64), (128, 128), (256, 256), (480, 272)]
SURFACES = [0, 10, 100, 300, 1000]
CLIENTS = [0, 8, 32, 100, 200]
REPORTS = [100, 1000, 10000, 100000]


def measure(build, server, *work):
    command = [f'{build}/bench/e2e/measure', server.target, server.place, str(server.pid), *map(str, work)]
    done = subprocess.run(command, env=server.env, stdout=subprocess.PIPE, check=True, timeout=120)
    return json.loads(done.stdout)


def of_frames(server, mode, n):
    """A compositor that answers 60 times a second gets less to do."""
    return n if server.target != 'weston' else {'one': 60, 'flight': 16 * 40, 'paced': 60}[mode]


def seen(running):
    return [server for server in running if server.target != 'weston']


def measure_cpu(build, running):
    found = {mode: {server.name: [] for server in running} for mode in UPDATES}
    for _ in range(ROUNDS):
        for mode, n in UPDATES.items():
            for server in running:
                found[mode][server.name].append(measure(build, server, 'cpu', mode, of_frames(server, mode, n)))
    return found


def measure_latency(build, running):
    """Nanoseconds of every single update, over all rounds. A compositor whose pixels nobody sees is left out."""
    found = {n: {server.name: [] for server in seen(running)} for n in LATENCY_ROUNDS}
    for _ in range(ROUNDS):
        for n, rounds in LATENCY_ROUNDS.items():
            for server in seen(running):
                found[n][server.name].append(measure(build, server, 'latency', n, rounds)['ns'])
    return found


def measure_sizes(build, running):
    found = {'%dx%d' % size: {server.name: [] for server in seen(running)} for size in SIZES}
    for _ in range(5):
        for size in SIZES:
            for server in seen(running):
                found['%dx%d' % size][server.name].append(measure(build, server, 'size', *size, 300))
    return found


def measure_clients(build, running):
    found = {n: {server.name: [] for server in seen(running)} for n in CLIENTS}
    for _ in range(3):
        for n in CLIENTS:
            for server in seen(running):
                found[n][server.name].append(measure(build, server, 'clients', n, 500))
    return found


def measure_memory(build, running):
    """While one client shows a full screen. The screen's pixels are in memory up to three times: the client's, those
    that the server composes, and the panel's."""
    found = {}
    for server in running:
        command = [f'{build}/bench/e2e/measure', server.target, server.place, str(server.pid), 'picture', '500']
        with subprocess.Popen(command, env=server.env, stdout=subprocess.PIPE) as client:
            if b'ready' not in client.stdout.readline():
                raise servers.Failure(f'{server.name} shows no picture')
            found[server.name] = server.use()
    return found


def fresh(build, *work):
    """One measure of a server of its own: what earlier clients left behind is not counted."""
    with tempfile.TemporaryDirectory(prefix='pfb-bench-', dir='/dev/shm') as folder:
        server = servers.start_pfb(build, folder)
        try:
            return measure(build, server, *work)
        finally:
            server.stop()


def measure_start(build, rounds=15):
    found = {}
    with tempfile.TemporaryDirectory(prefix='pfb-bench-', dir='/dev/shm') as folder:
        starters = servers.starters(build, folder)
        try:
            for _ in range(rounds):
                for name, (env, words) in starters.commands.items():
                    done = subprocess.run([f'{build}/bench/e2e/startup', *words], env=env, stdout=subprocess.PIPE,
                                          check=True, timeout=60)
                    found.setdefault(name, []).append(json.loads(done.stdout))
        finally:
            starters.stop()
    return found


def measure_growth(build):
    return {
        'surfaces': {n: [fresh(build, 'surfaces', n, 2000) for _ in range(5)] for n in SURFACES},
        'reports': {n: [fresh(build, 'reports', n) for _ in range(3)] for n in REPORTS},
    }


def program_bytes(build):
    """Of the server, stripped."""
    with tempfile.NamedTemporaryFile() as stripped:
        subprocess.run(['strip', '-o', stripped.name, f'{build}/src/fbserver/fbserver'], check=True)
        return os.path.getsize(stripped.name)


def main():
    build, result = sys.argv[1:3]
    everything = servers.All(build)
    found = {'program': program_bytes(build)}
    try:
        for name, work in (('memory', measure_memory), ('cpu', measure_cpu), ('latency', measure_latency),
                           ('size', measure_sizes), ('clients', measure_clients)):
            print(f'measuring: {name}', flush=True)
            found[name] = work(build, everything.servers)
    finally:
        everything.stop()
    for name, work in (('growth', measure_growth), ('start', measure_start)):
        print(f'measuring: {name}', flush=True)
        found[name] = work(build)
    with open(result, 'w', encoding='utf-8') as file:
        json.dump(found, file)


if __name__ == '__main__':
    main()
