#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""run.py BUILD RESULT.json [PART...] - measures the servers and writes what it found; with PART... only these parts, the
others stay as they are in RESULT.json.

All servers run at once and are idle but for the one that is measured; they take turns, round after round, so that what
else the machine does meets all of them alike. Figures are compared within one run only.
"""
import glob
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
SCREENS = [(480, 272), (800, 480)]
FLOODS = ['none', 'dirty', 'show-hide', 'move', 'garbage', 'visits', 'deaf', 'mixture']
FLOOD_SECONDS = 6
PAUSES_MS = [0, 50]  # before the server is started again; the second one is that of packaging/fbserver.service


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


def measure_flood(build, size, flood):
    """On a server of its own: what an earlier flood has left to do is not counted."""
    with tempfile.TemporaryDirectory(prefix='pfb-bench-', dir='/dev/shm') as folder:
        server = servers.start_pfb(build, folder, size=size)
        try:
            command = [f'{build}/bench/e2e/fairness', server.place, str(server.pid), *map(str, size), flood,
                       str(FLOOD_SECONDS)]
            with subprocess.Popen(command, env=server.env, stdout=subprocess.PIPE) as client:
                answer = client.communicate(timeout=120)[0]
            if client.returncode != 0:
                raise servers.Failure(f'fairness, {flood}: status {client.returncode}')
        finally:
            server.stop()
        for left in glob.glob(f'/dev/shm/raw-{client.pid}-*'):  # of clients that the server has turned away
            os.unlink(left)
        return json.loads(answer)


def measure_fairness(build):
    """One client's updates while others flood, for each size of screen and each kind of flood."""
    return {'%dx%d' % size: {flood: measure_flood(build, size, flood) for flood in FLOODS} for size in SCREENS}


def measure_recovery(build, rounds=20):
    """The server's end and return, with ten clients of the library."""
    found = {death: {str(pause): [] for pause in PAUSES_MS} for death in ('kill', 'abort')}
    with tempfile.TemporaryDirectory(prefix='pfb-bench-', dir='/dev/shm') as folder:
        starters = servers.starters(build, folder)
        env, (_, path, place, *words) = starters.commands['pfb']
        try:
            for _ in range(rounds):
                for death, by_pause in found.items():
                    for pause, measures in by_pause.items():
                        done = subprocess.run([f'{build}/bench/e2e/recovery', place, path, death, pause, *words],
                                              env=env, stdout=subprocess.PIPE, check=True, timeout=120)
                        measures.append(json.loads(done.stdout))
        finally:
            starters.stop()
    return found


def program_bytes(build):
    """Of the server, stripped."""
    with tempfile.NamedTemporaryFile() as stripped:
        subprocess.run(['strip', '-o', stripped.name, f'{build}/src/fbserver/fbserver'], check=True)
        return os.path.getsize(stripped.name)


SIDE_BY_SIDE = {'memory': measure_memory, 'cpu': measure_cpu, 'latency': measure_latency, 'size': measure_sizes,
                'clients': measure_clients}
ALONE = {'growth': measure_growth, 'start': measure_start, 'fairness': measure_fairness, 'recovery': measure_recovery}


def measure_side_by_side(build, parts):
    found = {}
    everything = servers.All(build)
    try:
        for part in parts:
            print(f'measuring: {part}', flush=True)
            found[part] = SIDE_BY_SIDE[part](build, everything.servers)
    finally:
        everything.stop()
    return found


def main():
    build, result, *wanted = sys.argv[1:]
    unknown = [part for part in wanted if part not in SIDE_BY_SIDE and part not in ALONE]
    if unknown:
        sys.exit(f'run.py: there is no part {unknown[0]}')
    found = {}
    if wanted and os.path.exists(result):
        with open(result, encoding='utf-8') as file:
            found = json.load(file)
    found['program'] = program_bytes(build)
    beside = [part for part in SIDE_BY_SIDE if not wanted or part in wanted]
    if beside:
        found.update(measure_side_by_side(build, beside))
    for part, work in ALONE.items():
        if not wanted or part in wanted:
            print(f'measuring: {part}', flush=True)
            found[part] = work(build)
    with open(result, 'w', encoding='utf-8') as file:
        json.dump(found, file)


if __name__ == '__main__':
    main()
