#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""count_client.py PANEL SERVER CLIENT FILE [--write] - counts what requests cost the client, in its library, and compares
it with FILE: more by over 5 % is a failure. --write records the counts instead.

callgrind counts a run with requests and one without, against the real server; the difference is the requests'. See the
head of FILE for what the counts are and on what they depend."""
import collections
import os
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True  # beside the sources
from count import ALLOCATORS, GROWTH, UPDATES, Profile, accepts, end, wait_until

WORDS = ('dirty', 'move')


def is_ours(function):
    return os.path.basename(function[0]).startswith('libpfb.so')


def counts_of(profile):
    ours = {function for function in profile.own if is_ours(function)}
    if not ours:
        sys.exit('count_client: nothing of libpfb was run')
    return collections.Counter({
        'instructions': sum(profile.own[function] for function in ours),
        'library_calls': sum(n for (caller, callee), n in profile.calls.items()
                             if caller in ours and not is_ours(callee)),
        'allocations': sum(n for (_, callee), n in profile.calls.items() if callee[1] in ALLOCATORS),
        'system_calls': profile.system_calls,
    })


def run(folder, client, word, requests):
    out = os.path.join(folder, 'callgrind')
    env = dict(os.environ, MC_RUNTIME_DIR=os.path.join(folder, 'pfbpanel-count'), GLIBC_TUNABLES='')
    subprocess.run(['valgrind', '-q', '--tool=callgrind', '--collect-systime=yes', f'--callgrind-out-file={out}', client,
                    word, str(requests)], env=env, check=True, timeout=60)
    return counts_of(Profile(out))


def count(panel, server, client):
    counts = {}
    with tempfile.TemporaryDirectory(prefix='pfb-count-') as folder:
        env = dict(os.environ, XDG_RUNTIME_DIR=folder)
        env.pop('MC_RUNTIME_DIR', None)
        command = [panel, '--size', '480x272', '--format', 'xrgb8888', '--name', 'count', '--', server]
        with open(os.path.join(folder, 'log'), 'w+', encoding='utf-8') as log:
            process = subprocess.Popen(command, env=env, stdout=log, stderr=log)
            try:
                path = os.path.join(folder, 'pfbpanel-count', 'pfb.mc')
                wait_until(lambda: accepts(path), process, 'the server does not start')
                for word in WORDS:
                    with_requests, without = (run(folder, client, word, n) for n in (UPDATES, 0))
                    for name, n in with_requests.items():
                        counts[word, name] = round((n - without[name]) / UPDATES, 1)
            finally:
                end(process)
    return counts


def read_lines(path):
    with open(path, encoding='utf-8') as file:
        return file.readlines()


def write_recorded(path, counts):
    head = [line for line in read_lines(path) if line.startswith('#')]
    with open(path, 'w', encoding='utf-8') as file:
        file.writelines(head + [f'{word} {name} {n:g}\n' for (word, name), n in counts.items()])


def main():
    panel, server, client, path = sys.argv[1:5]
    counts = count(panel, server, client)
    if '--write' in sys.argv:
        write_recorded(path, counts)
    recorded = {tuple(line.split()[:2]): float(line.split()[2]) for line in read_lines(path) if line[0] != '#'}
    failed = False
    for (word, name), n in counts.items():
        grown = n > recorded[word, name] * GROWTH
        failed = failed or grown
        print(f'{word} {name}: {n:g}, recorded {recorded[word, name]:g}{": GROWN" if grown else ""}')
    if failed:
        sys.exit(f'count_client: a request costs over 5 % more than {os.path.basename(path)} says')


if __name__ == '__main__':
    main()
