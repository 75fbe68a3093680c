#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""run.py BUILD RESULT.json [PART...] - measures the servers and writes what it found; with PART... only these parts, the
others stay as they are in RESULT.json. With ROUNDS=N in its environment it takes N rounds of each at most, for a quick
look.

All servers run at once and are idle but for the one that is measured; they take turns, round after round, so that what
else the machine does meets all of them alike. Figures are compared within one run only.

Where a kernel lets a client and its server run decides more than either of them does: both on one processor, or each on
its own. So they are bound, and measured both ways.
"""
import glob
import json
import os
import platform
import subprocess
import sys
import tempfile
import time

import servers

ROUNDS = {'cpu': 18, 'latency': 15, 'size': 5, 'clients': 5, 'memory': 5, 'surfaces': 5, 'reports': 5, 'start': 15,
          'fairness': 3, 'recovery': 10}
SLOW = 3  # what waits for a clock most of its time takes part in every third round of 'cpu' and 'latency'
UPDATES = {'one': 1500, 'burst': 16 * 100, 'window': 16 * 150, 'paced': 20}
FRAMES = {'one': 16, 'burst': 16 * 16, 'window': 16 * 16, 'paced': 20}  # for a compositor that draws 60 times a second
LATENCY_UPDATES = {1: 500, 8: 120, 32: 50}  # of each client
LATENCY_FRAMES = {1: 20, 8: 10, 32: 6}
SIZES = [(1, 1), (8, 8), (16, 16), (32, 32), (64, 64), (128, 128), (256, 256), (480, 272)]
CLIENTS = [0, 8, 32, 100, 200]
SURFACES = [0, 10, 100, 300, 1000]
WHERE = ['top', 'bottom', 'covered']
REPORTS = [100, 1000, 10000, 100000]
SCREENS = [(480, 272), (800, 480)]
FLOODS = ['none', 'dirty', 'show-hide', 'move', 'garbage', 'visits', 'deaf', 'mixture']
FLOOD_UPDATES = 60  # 30 a second
PAUSES_MS = [0, 50]  # before the server is started again; the second one is that of packaging/fbserver.service


def rounds_of(part):
    return range(min(ROUNDS[part], int(os.environ.get('ROUNDS', ROUNDS[part]))))


def processors():
    return ['one', 'two'] if len(os.sched_getaffinity(0)) > 1 else ['one']


def measure(build, server, where, *work):
    command = [f'{build}/bench/e2e/measure', server.target, server.place, str(server.pid), where, *map(str, work)]
    done = subprocess.run(command, env=server.env, stdout=subprocess.PIPE, check=True, timeout=120)
    return json.loads(done.stdout)


def note(found, measured, number, *keys):
    """Appends what was measured in a round at these keys; later on, only what one round has found is compared."""
    for key in keys[:-1]:
        found = found.setdefault(str(key), {})
    found.setdefault(str(keys[-1]), []).append({'round': number, **measured})


def is_slow(server):
    return server.target == 'weston'


def measure_cpu(build, running):
    found = {}
    for number in rounds_of('cpu'):
        for where in processors():
            for mode in UPDATES:
                for server in running:
                    slow = is_slow(server)
                    if number % SLOW == 0 or not (slow or mode == 'paced'):
                        updates = (FRAMES if slow else UPDATES)[mode]
                        note(found, measure(build, server, where, 'cpu', mode, updates), number,
                             where, mode, server.name)
    return found


def measure_latency(build, running):
    """Nanoseconds of every single update."""
    found = {}
    for number in rounds_of('latency'):
        for where in processors():
            for n in LATENCY_UPDATES:
                for server in running:
                    slow = is_slow(server)
                    if number % SLOW == 0 or not slow:
                        updates = (LATENCY_FRAMES if slow else LATENCY_UPDATES)[n]
                        note(found, measure(build, server, where, 'latency', n, updates), number, where, n, server.name)
    return found


def growing(running):
    """Of the floors, those that take a request and all requests for a wake-up."""
    return [server for server in running if server.name not in ('floor1', 'floor2tuned')]


def measure_sizes(build, running):
    found = {}
    for number in rounds_of('size'):
        for size in SIZES:
            for server in growing(running):
                note(found, measure(build, server, 'one', 'size', *size, 12 if is_slow(server) else 300), number,
                     '%dx%d' % size, server.name)
    return found


def measure_clients(build, running):
    found = {}
    for number in rounds_of('clients'):
        for n in CLIENTS:
            for server in growing(running):
                note(found, measure(build, server, 'one', 'clients', n, 12 if is_slow(server) else 400), number, n,
                     server.name)
    return found


def shown_memory(build, server):
    """While one client shows a full screen."""
    command = [f'{build}/bench/e2e/measure', server.target, server.place, str(server.pid), 'any', 'picture']
    with subprocess.Popen(command, env=server.env, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as client:
        if b'ready' not in client.stdout.readline():
            raise servers.Failure(f'{server.name} shows no picture')
        used = server.memory()
        client.stdin.close()
    return used


def measure_memory(build):
    """Of new servers, with the first of five clients that come one after the other, and with the fifth."""
    found = {}
    for number in rounds_of('memory'):
        everything = servers.All(build)
        try:
            for server in everything.servers:
                used = [shown_memory(build, server) for _ in range(5)]
                note(found, {'first': used[0], 'fifth': used[-1]}, number, server.name)
        finally:
            everything.stop()
    return found


def fresh(build, *work):
    """One measure of a server of its own: what earlier clients left behind is not counted."""
    with tempfile.TemporaryDirectory(prefix='pfb-bench-', dir='/dev/shm') as folder:
        server = servers.start_pfb(build, folder)
        try:
            return measure(build, server, 'one', *work)
        finally:
            server.stop()


def measure_surfaces(build):
    found = {}
    for number in rounds_of('surfaces'):
        for n in SURFACES:
            for where in WHERE:
                note(found, fresh(build, 'surfaces', where, n, 1500), number, where, n)
    return found


def measure_reports(build):
    found = {}
    for number in rounds_of('reports'):
        for n in REPORTS:
            note(found, fresh(build, 'reports', n), number, n)
    return found


def measure_start(build):
    found = {}
    with tempfile.TemporaryDirectory(prefix='pfb-bench-', dir='/dev/shm') as folder:
        starters = servers.starters(build, folder)
        try:
            for number in rounds_of('start'):
                for name, (env, words) in starters.commands.items():
                    done = subprocess.run([f'{build}/bench/e2e/startup', *words], env=env, stdout=subprocess.PIPE,
                                          check=True, timeout=60)
                    note(found, json.loads(done.stdout), number, name)
        finally:
            starters.stop()
    return found


def measure_flood(build, size, flood):
    """On a server of its own: what an earlier flood has left to do is not counted."""
    with tempfile.TemporaryDirectory(prefix='pfb-bench-', dir='/dev/shm') as folder:
        server = servers.start_pfb(build, folder, size=size)
        try:
            command = [f'{build}/bench/e2e/fairness', server.place, str(server.pid), *map(str, size), flood,
                       str(FLOOD_UPDATES)]
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
    found = {}
    for number in rounds_of('fairness'):
        for size in SCREENS:
            for flood in FLOODS:
                note(found, measure_flood(build, size, flood), number, '%dx%d' % size, flood)
    return found


def measure_recovery(build):
    """The server's end and return, with ten clients of the library."""
    found = {}
    with tempfile.TemporaryDirectory(prefix='pfb-bench-', dir='/dev/shm') as folder:
        starters = servers.starters(build, folder)
        env, (_, path, place, *words) = starters.commands['pfb']
        try:
            for number in rounds_of('recovery'):
                for death in ('kill', 'abort'):
                    for pause in PAUSES_MS:
                        done = subprocess.run([f'{build}/bench/e2e/recovery', place, path, death, str(pause), *words],
                                              env=env, stdout=subprocess.PIPE, check=True, timeout=120)
                        note(found, json.loads(done.stdout), number, death, pause)
        finally:
            starters.stop()
    return found


def program_bytes(build):
    """Of the server, stripped."""
    with tempfile.NamedTemporaryFile() as stripped:
        subprocess.run(['strip', '-o', stripped.name, f'{build}/src/fbserver/fbserver'], check=True)
        return os.path.getsize(stripped.name)


def machine():
    with open('/proc/cpuinfo', encoding='ascii') as info:
        model = next((line.split(':')[1].strip() for line in info if line.startswith('model name')), platform.machine())
    return {'model': model, 'processors': len(os.sched_getaffinity(0)), 'load': os.getloadavg()[0],
            'linux': '.'.join(platform.release().split('.')[:2])}


# Those of a list of servers that run side by side; then those that start their own.
SIDE_BY_SIDE = {'cpu': measure_cpu, 'latency': measure_latency, 'size': measure_sizes, 'clients': measure_clients}
ALONE = {'memory': measure_memory, 'surfaces': measure_surfaces, 'reports': measure_reports, 'start': measure_start,
         'fairness': measure_fairness, 'recovery': measure_recovery}


def measure_part(found, part, work, *words):
    print(f'measuring: {part} ...', end='', flush=True)
    started = time.monotonic()
    found[part] = work(*words)
    found['took'][part] = time.monotonic() - started
    found['rounds'][part] = len(rounds_of(part))
    print(f" {found['took'][part]:.1f} s", flush=True)


def measure_side_by_side(found, build, parts):
    everything = servers.All(build)
    try:
        for part in parts:
            measure_part(found, part, SIDE_BY_SIDE[part], build, everything.servers)
    finally:
        everything.stop()


def main():
    build, result, *wanted = sys.argv[1:]
    unknown = [part for part in wanted if part not in SIDE_BY_SIDE and part not in ALONE]
    if unknown:
        sys.exit(f'run.py: there is no part {unknown[0]}')
    found = {'took': {}, 'rounds': {}}
    if wanted and os.path.exists(result):
        with open(result, encoding='utf-8') as file:
            found = json.load(file)
    found.update(machine=machine(), program=program_bytes(build), whole=ROUNDS)
    beside = [part for part in SIDE_BY_SIDE if not wanted or part in wanted]
    if beside:
        measure_side_by_side(found, build, beside)
    for part, work in ALONE.items():
        if not wanted or part in wanted:
            measure_part(found, part, work, build)
    with open(result, 'w', encoding='utf-8') as file:
        json.dump(found, file)


if __name__ == '__main__':
    main()
