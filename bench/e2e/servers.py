# SPDX-License-Identifier: MIT
"""The servers that are measured: each is started on a screen of 480 x 272 pixels of 32 bits and told to end."""
import os
import re
import signal
import socket
import subprocess
import tempfile
import time

SIZE = (480, 272)
SCREEN_BYTES = SIZE[0] * SIZE[1] * 4

# With the screen in shared memory: the other way to see it, a mapped file, costs the server a system call more. And it
# does not begin again when its last client has gone.
XVFB = ['-screen', '0', '%dx%dx24' % SIZE, '-shmem', '-nolisten', 'tcp', '-ac', '-noreset']
# With its desktop: the plainer shells of its headless output show no window without an input device.
WESTON = ['--backend=headless-backend.so', '--use-pixman', '--shell=desktop-shell.so', '--no-config', '--idle-time=0',
          '--width=%d' % SIZE[0], '--height=%d' % SIZE[1]]


class Failure(Exception):
    pass


def wait_for(what, condition, seconds=10):
    until = time.monotonic() + seconds
    while time.monotonic() < until:
        found = condition()
        if found:
            return found
        time.sleep(0.01)
    raise Failure(f'{what}: not there after {seconds} s')


class Server:
    """A running server: `target` and `place` are what measure is told, `pid` is the process whose use is counted."""

    def __init__(self, name, target, folder):
        self.name = name
        self.target = target
        self.log = open(os.path.join(folder, name + '.log'), 'w+')
        self.env = dict(os.environ)
        self.place = None
        self.pid = None
        self.process = None

    def start(self, command, **more):
        """In a session of its own, as a service manager starts it: kernels share the processor out among sessions."""
        self.process = subprocess.Popen(command, env=self.env, stdin=subprocess.DEVNULL, stdout=self.log,
                                        stderr=self.log, start_new_session=True, **more)
        self.pid = self.process.pid

    def text(self):
        with open(self.log.name, encoding='utf-8', errors='replace') as log:
            return log.read()

    def wait_text(self, pattern):
        def look():
            if self.process.poll() is not None:
                raise Failure(f'{self.name} has ended: {self.text()}')
            return re.search(pattern, self.text())
        return wait_for(f'{self.name} ({pattern})', look)

    def stop(self):
        if self.process is None:
            return
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.log.close()

    def memory(self):
        """Bytes by the names of /proc/PID/smaps_rollup, which counts pages; what /proc/PID/status says lags behind."""
        with open(f'/proc/{self.pid}/smaps_rollup', encoding='ascii') as lines:
            return {key: int(value) * 1024 for key, value in re.findall(r'^(\w+):\s+(\d+) kB', lines.read(), re.M)}


def accepts(path):
    """The socket is there a moment before its server listens."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as client:
        return client.connect_ex(path) == 0


def child_of(pid):
    with open(f'/proc/{pid}/task/{pid}/children', encoding='ascii') as children:
        return int((children.read().split() or ['0'])[0])


def start_pfb(build, folder, command=(), name='pfb', size=SIZE):
    """This server on the virtual panel. `command` is put before the program (valgrind, strace)."""
    server = Server(name, 'pfb', folder)
    own = os.path.join(folder, name)
    os.mkdir(own, 0o700)
    server.env['XDG_RUNTIME_DIR'] = own
    server.env.pop('MC_RUNTIME_DIR', None)
    panel = os.path.join(own, 'pfbpanel-' + name)
    server.start([f'{build}/src/pfbpanel/pfbpanel', '--size', '%dx%d' % size, '--format', 'xrgb8888', '--name', name,
                  '--', *command, f'{build}/src/fbserver/fbserver'])
    wait_for(name, lambda: accepts(os.path.join(panel, 'pfb.mc')), 60)
    server.pid = wait_for(name, lambda: child_of(server.process.pid))
    server.env['MC_RUNTIME_DIR'] = panel
    server.place = os.path.join(panel, 'dev', 'fb0')
    return server


def start_floor(build, folder, copies, *tuned):
    """`tuned`: nothing, 'tuned' or 'draining'; see floor.c."""
    name = f'floor{copies}' + ''.join(tuned)
    server = Server(name, 'floor', folder)
    panel = os.path.join(folder, name + '.panel')
    path = os.path.join(folder, name + '.socket')
    with open(panel, 'wb') as file:
        file.truncate(SCREEN_BYTES)
    server.start([f'{build}/bench/e2e/floor', path, panel, str(copies), *tuned])
    wait_for(server.name, lambda: os.path.exists(path))
    server.place = f'{path}:{panel}'
    return server


def start_xvfb(folder):
    server = Server('xvfb', 'xvfb', folder)
    read, write = os.pipe()
    server.start(['Xvfb', '-displayfd', str(write), *XVFB], pass_fds=[write])
    os.close(write)
    with os.fdopen(read) as answer:
        number = answer.readline().strip()
    if not number:
        raise Failure(f'Xvfb did not start: {server.text()}')
    server.place = f":{number}/{server.wait_text('shmid ([0-9]+)').group(1)}"
    return server


def start_weston(folder):
    server = Server('weston', 'weston', folder)
    server.env['XDG_RUNTIME_DIR'] = os.path.join(folder, 'weston')
    os.mkdir(server.env['XDG_RUNTIME_DIR'], 0o700)
    server.place = 'bench'
    server.start(['weston', *WESTON, '--socket=bench'])
    wait_for('weston', lambda: os.path.exists(os.path.join(server.env['XDG_RUNTIME_DIR'], 'bench')))
    time.sleep(2)  # its desktop is drawn by clients of its own
    return server


class All:
    """All servers, in a folder of their own in memory: a panel on a disk would be written back meanwhile."""

    def __init__(self, build):
        self.folder = tempfile.TemporaryDirectory(prefix='pfb-bench-', dir='/dev/shm')
        self.servers = []
        try:
            for start in (lambda f: start_pfb(build, f), lambda f: start_floor(build, f, 1),
                          lambda f: start_floor(build, f, 2),
                          lambda f: start_floor(build, f, 2, 'tuned'), lambda f: start_floor(build, f, 2, 'draining'),
                          start_xvfb, start_weston):
                self.servers.append(start(self.folder.name))
        except BaseException:
            self.stop()
            raise

    def stop(self):
        for server in self.servers:
            server.stop()
        self.folder.cleanup()


class Starters:
    """What startup is told for each server: its environment, and its words. A panel stands by for this server."""

    def __init__(self):
        self.commands = {}
        self.panel = None

    def stop(self):
        if self.panel is not None:
            self.panel.stop()


def starters(build, folder):
    found = Starters()
    panel = found.panel = Server('panel', 'pfb', folder)
    panel.env['XDG_RUNTIME_DIR'] = folder
    panel.env.pop('MC_RUNTIME_DIR', None)
    place = os.path.join(folder, 'pfbpanel-start')
    panel.start([f'{build}/src/pfbpanel/pfbpanel', '--size', '%dx%d' % SIZE, '--format', 'xrgb8888', '--name', 'start',
                 '--', 'sleep', '600'])
    wait_for('the panel', lambda: os.path.exists(os.path.join(place, 'dev', 'fb0')))
    own = dict(panel.env, MC_RUNTIME_DIR=place)
    preload = f'{build}/src/pfbpanel/libpfbpanel-preload.so'
    found.commands['pfb'] = own, ['pfb', f'{place}/pfb.mc', f'{place}/dev/fb0', f'LD_PRELOAD={preload}',
                                  f'PFBPANEL_DIR={place}', f'{build}/src/fbserver/fbserver']
    path, pixels = os.path.join(folder, 'socket'), os.path.join(folder, 'panel')
    with open(pixels, 'wb') as file:
        file.truncate(SCREEN_BYTES)
    found.commands['floor2'] = own, ['floor', path, f'{path}:{pixels}', f'{build}/bench/e2e/floor', path, pixels,
                                     '2']
    number = 200 + os.getpid() % 300
    found.commands['xvfb'] = own, ['xvfb', f':{number}', 'WHERE/segment', 'Xvfb', f':{number}', *XVFB]
    found.commands['weston'] = own, ['weston', 'start', 'start', 'weston', *WESTON, '--socket=start']
    return found
