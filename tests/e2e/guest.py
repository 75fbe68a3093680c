# SPDX-License-Identifier: MIT
"""An emulated PC: booted, asked to run commands over its second serial line, and looked at."""
import base64
import json
import os
import socket
import subprocess
import time

import pictures

BOOT_SECONDS = 120
WAIT_SECONDS = 60  # for what takes no time: only a hang runs out of it


class GuestError(Exception):
    pass


class Guest:
    def __init__(self, folder, kernel, words, initramfs, vga):
        """Boots `kernel` with `words` on its command line; the machine's files go into `folder`."""
        os.makedirs(folder, exist_ok=True)
        self.log = os.path.join(folder, 'console.log')
        self._dump = os.path.join(folder, 'screen.ppm')
        ours, theirs = socket.socketpair()
        qmp_ours, qmp_theirs = socket.socketpair()
        chardevs = []
        for name, end in (('agent', theirs), ('qmp', qmp_theirs)):
            chardevs += ['-chardev', f'socket,id={name},fd={end.fileno()}']
        self._emulator = subprocess.Popen(
            ['qemu-system-x86_64', '-M', 'q35', '-accel', 'tcg', '-cpu', 'max', '-m', '512', '-no-reboot', '-nodefaults',
             '-display', 'none', '-vga', vga, '-kernel', kernel, '-initrd', initramfs,
             '-append', 'console=tty0 console=ttyS0 fbcon=map:0 panic=-1 ' + words,
             *chardevs, '-serial', f'file:{self.log}', '-serial', 'chardev:agent', '-mon', 'chardev=qmp,mode=control'],
            pass_fds=[theirs.fileno(), qmp_theirs.fileno()], stdin=subprocess.DEVNULL)
        theirs.close()
        qmp_theirs.close()
        self._agent = ours
        self._received = b''
        self._qmp = qmp_ours.makefile('rw')
        try:
            self._qmp_answer('QMP')
            self._qmp_run('qmp_capabilities')
            self._read_until(b'agent-is-up\n', BOOT_SECONDS)
        except Exception:
            self.stop()
            raise

    def stop(self):
        self._emulator.kill()
        self._emulator.wait()
        self._agent.close()

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.stop()

    def _qmp_answer(self, key):
        while True:
            line = self._qmp.readline()
            if not line:
                raise GuestError('the emulator is gone')
            answer = json.loads(line)
            if 'error' in answer:
                raise GuestError(str(answer['error']))
            if key in answer:
                return answer[key]

    def _qmp_run(self, command, **arguments):
        self._qmp.write(json.dumps({'execute': command, 'arguments': arguments}) + '\n')
        self._qmp.flush()
        return self._qmp_answer('return')

    def _read_until(self, mark, seconds):
        """What comes before the mark; what comes behind it is kept for the next time."""
        end = time.monotonic() + seconds
        data, self._received = self._received, b''
        while mark not in data:
            self._agent.settimeout(max(0.01, end - time.monotonic()))
            try:
                more = self._agent.recv(65536)
            except TimeoutError:
                more = b''
            if not more:
                raise GuestError(f'the machine does not answer; {self.log} ends with\n' + self.log_tail())
            data += more
        before, self._received = data.split(mark, 1)
        return before

    def log_tail(self):
        with open(self.log, errors='replace') as file:
            return ''.join(file.readlines()[-20:])

    def status(self, command):
        """Runs a shell command; returns (exit status, output)."""
        self._agent.sendall(f'({command}) < /dev/null 2>&1; printf "\\036%d\\036" $?\n'.encode())
        output = self._read_until(b'\x1e', WAIT_SECONDS)
        return int(self._read_until(b'\x1e', WAIT_SECONDS)), output.decode(errors='replace')

    def run(self, command):
        """The output of a shell command, without its last newline. Its failure is an error."""
        status, output = self.status(command)
        if status != 0:
            raise GuestError(f'{command}: status {status}\n{output}')
        return output.rstrip('\n')

    def wait_for(self, command):
        """Runs a shell command again and again until it succeeds."""
        end = time.monotonic() + WAIT_SECONDS
        while True:
            status, output = self.status(command)
            if status == 0:
                return output.rstrip('\n')
            if time.monotonic() > end:
                raise GuestError(f'in vain for {WAIT_SECONDS} s: {command}\n{output}')
            time.sleep(0.05)

    def memory(self, device):
        """The memory of a framebuffer."""
        return base64.b64decode(self.run(f'device dump {device} | base64'))

    def screen(self):
        """What the emulator shows."""
        self._qmp_run('screendump', filename=self._dump)
        return pictures.read_ppm(self._dump)
