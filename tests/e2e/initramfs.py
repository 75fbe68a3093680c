# SPDX-License-Identifier: MIT
"""Root file systems for the emulated machine: an archive in the kernel's own format, written without root rights."""
import os
import re
import stat
import subprocess


class Initramfs:
    def __init__(self):
        self._entries = {}

    def folder(self, path):
        parent = os.path.dirname(path)
        if parent not in ('', '/'):
            self.folder(parent)
        self._entries.setdefault(path, (stat.S_IFDIR | 0o755, b''))

    def file(self, path, data, mode=0o644):
        self.folder(os.path.dirname(path))
        self._entries[path] = (stat.S_IFREG | mode, data)

    def copy(self, source, path, mode=None):
        with open(source, 'rb') as file:
            self.file(path, file.read(), mode if mode is not None else stat.S_IMODE(os.stat(source).st_mode))

    def link(self, path, target):
        self.folder(os.path.dirname(path))
        self._entries[path] = (stat.S_IFLNK | 0o777, target.encode())

    def program(self, source, path):
        """A program with the libraries that it is linked to, at the paths where its loader looks for them."""
        self.copy(source, path, 0o755)
        for library in re.findall(r'(/\S+) \(0x', subprocess.check_output(['ldd', source], text=True)):
            self.copy(library, library, 0o755)

    def tree(self, source, without=()):
        """What lies below `source`, but for the folders `without`."""
        for folder, folders, names in os.walk(source):
            inside = '/' + os.path.relpath(folder, source)
            folders[:] = [name for name in folders if os.path.normpath(f'{inside}/{name}') not in without]
            for name in names + folders:
                path = os.path.join(folder, name)
                there = os.path.normpath(os.path.join(inside, name))
                if os.path.islink(path):
                    self.link(there, os.readlink(path))
                elif name in names:
                    self.copy(path, there)
                else:
                    self.folder(there)

    def write(self, path):
        with open(path, 'wb') as archive:
            for number, name in enumerate(sorted(self._entries)):
                mode, data = self._entries[name]
                _write_entry(archive, name.lstrip('/'), number + 1, mode, data)
            _write_entry(archive, 'TRAILER!!!', 0, 0, b'')


def _write_entry(archive, name, number, mode, data):
    fields = [number, mode, 0, 0, 1, 0, len(data), 0, 0, 0, 0, len(name) + 1, 0]
    header = b'070701' + b''.join(b'%08x' % field for field in fields) + name.encode() + b'\0'
    archive.write(header + b'\0' * (-len(header) % 4) + data + b'\0' * (-len(data) % 4))
