#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""count.py PANEL SERVER CLIENT FILE [--write] - counts what updates cost the server, from the packet to the panel, and
compares it with FILE: more by over 5 % is a failure. --write records the counts instead.

callgrind counts a run with updates for each scene and one without; the difference is the updates'. See the head of FILE
for what the scenes and the counts are and on what they depend."""
import collections
import os
import re
import socket
import subprocess
import sys
import tempfile
import time

UPDATES = 200
GROWTH = 1.05
SCENES = ('one', 'adjacent', 'scattered')
# Instructions in them change with their versions and with the processor: they are only recorded.
LIBRARIES = {'in_glib': 'libglib-', 'in_pixman': 'libpixman-', 'in_libc': 'libc.'}
LOOPS = 'in_loops'
ALLOCATORS = {'malloc', 'calloc', 'realloc', 'reallocarray', 'aligned_alloc', 'posix_memalign'}


class Profile:
    """What a file of callgrind's tells: by (object, function) its own instructions, and who called whom how often."""

    def __init__(self, path):
        self.own = collections.Counter()
        self.calls = collections.Counter()
        self.system_calls = 0
        names = {}
        with open(path, encoding='utf-8', errors='replace') as lines:
            self.read(lines, names)

    @staticmethod
    def name(names, kind, text):
        """Names are given once, as "(7) name", and by number from then on."""
        number, name = re.match(r'(\(\d+\))?\s*(.*)', text).groups()
        if number is None:
            return name
        if name:
            names[kind, number] = name
        return names[kind, number]

    def read(self, lines, names):
        caller = callee = ob = callee_ob = ''
        events = []
        in_call = False
        for line in lines:
            key, _, rest = line.rstrip('\n').partition('=')
            if line.startswith('events: '):
                events = line.split()[1:]
            elif key == 'ob':
                ob = callee_ob = self.name(names, 'ob', rest)
            elif key == 'cob':
                callee_ob = self.name(names, 'ob', rest)
            elif key == 'fn':
                caller = (ob, self.name(names, 'fn', rest).split("'")[0])
            elif key == 'cfn':
                callee = (callee_ob, self.name(names, 'fn', rest).split("'")[0])
            elif key == 'calls':
                self.calls[caller, callee] += int(rest.split()[0])
                callee_ob = ob
                in_call = True
            elif re.match(r'[+*\-\d]', line):
                if not in_call:
                    costs = dict(zip(events, map(int, line.split()[1:])))
                    self.own[caller] += costs.get('Ir', 0)
                    self.system_calls += costs.get('sysCount', 0)
                in_call = False


def counts_of(profile, server):
    program = os.path.realpath(server)
    ours = {function for function in profile.own if os.path.realpath(function[0]) == program}
    if not any(name.startswith('fs_render(') for _, name in ours):
        sys.exit('count: no pass was made; is the program stripped?')
    loops = {callee for caller, callee in profile.calls
             if caller in ours and callee in ours and caller[1].startswith('render_')}
    counts = collections.Counter({
        'instructions': sum(profile.own[function] for function in ours - loops),
        'library_calls': sum(n for (caller, callee), n in profile.calls.items()
                             if caller in ours and os.path.realpath(callee[0]) != program),
        'allocations': sum(n for (_, callee), n in profile.calls.items() if callee[1] in ALLOCATORS),
        'system_calls': profile.system_calls,
    })
    counts[LOOPS] = sum(profile.own[function] for function in loops)
    for name, library in LIBRARIES.items():
        counts[name] = sum(n for (path, _), n in profile.own.items() if os.path.basename(path).startswith(library))
    return counts


def accepts(path):
    """The socket is there a moment before its server listens."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as client:
        return client.connect_ex(path) == 0


def wait_until(condition, process, what):
    until = time.monotonic() + 60
    while not condition():
        if process.poll() is not None or time.monotonic() > until:
            sys.exit(f'count: {what}')
        time.sleep(0.02)


def end(process):
    process.terminate()
    try:
        process.wait(30)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def child_of(process):
    with open(f'/proc/{process.pid}/task/{process.pid}/children', encoding='ascii') as children:
        return children.read().split()[0]


def run(panel, server, client, scene, updates):
    with tempfile.TemporaryDirectory(prefix='pfb-count-') as folder:
        out = os.path.join(folder, 'callgrind')
        own = os.path.join(folder, 'pfbpanel-count')
        env = dict(os.environ, XDG_RUNTIME_DIR=folder, GLIBC_TUNABLES='')
        env.pop('MC_RUNTIME_DIR', None)
        command = [panel, '--size', '480x272', '--format', 'xrgb8888', '--name', 'count', '--', 'valgrind',
                   '--tool=callgrind', '--collect-systime=yes', f'--callgrind-out-file={out}', server]
        with open(os.path.join(folder, 'log'), 'w+', encoding='utf-8') as log:
            process = subprocess.Popen(command, env=env, stdout=log, stderr=log)
            try:
                wait_until(lambda: accepts(os.path.join(own, 'pfb.mc')), process, 'the server does not start')
                subprocess.run([client, os.path.join(own, 'dev', 'fb0'), child_of(process), scene, str(updates)],
                               env=dict(env, MC_RUNTIME_DIR=own), check=True, timeout=60)
            finally:
                end(process)
        return counts_of(Profile(out), server)


def read_recorded(path):
    with open(path, encoding='utf-8') as file:
        lines = [line.split() for line in file if line.strip() and not line.startswith('#')]
    return {(scene, name): float(count) for scene, name, count in lines}


def write_recorded(path, counts):
    with open(path, encoding='utf-8') as file:
        head = [line for line in file if line.startswith('#')]
    with open(path, 'w', encoding='utf-8') as file:
        file.writelines(head + [f'{scene} {name} {count:g}\n' for (scene, name), count in counts.items()])


def main():
    panel, server, client, path = sys.argv[1:5]
    without = run(panel, server, client, 'one', 0)
    counts = {}
    for scene in SCENES:
        with_updates = run(panel, server, client, scene, UPDATES)
        for name, count in with_updates.items():
            counts[scene, name] = round((count - without[name]) / UPDATES, 1)
    if '--write' in sys.argv:
        write_recorded(path, counts)
    recorded = read_recorded(path)
    failed = False
    for (scene, name), count in counts.items():
        grown = name not in LIBRARIES and name != LOOPS and count > recorded[scene, name] * GROWTH
        failed = failed or grown
        print(f'{scene} {name}: {count:g}, recorded {recorded[scene, name]:g}{": GROWN" if grown else ""}')
    if failed:
        sys.exit(f'count: an update costs over 5 % more than {os.path.basename(path)} says')


if __name__ == '__main__':
    main()
