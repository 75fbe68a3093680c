# SPDX-License-Identifier: MIT
"""How a machine comes up: what of its root file system belongs to its init."""
import os

RESPAWNED = '::respawn:/etc/init.d/fbserver run >> /var/log/fbserver.log 2>&1\n'
UNITS = '/etc/systemd/system'


def _text(build, name):
    with open(os.path.join(build.source, 'root', name)) as file:
        return file.read()


def busybox(root, build, lines=''):
    """Without the server, which the case starts by itself."""
    root.link('/init', 'bin/busybox')
    root.file('/etc/inittab', (_text(build, 'inittab.busybox') + lines).encode())


def busybox_respawns(root, build):
    busybox(root, build, RESPAWNED)


def sysv(root, build):
    root.program(os.path.join(build.folder, 'sysv', 'sbin', 'init'), '/init')
    root.file('/etc/inittab', _text(build, 'inittab.sysv').encode())


def systemd(root, build):
    """Debian's, with the installed unit enabled as "systemctl enable" does it."""
    root.tree(os.path.join(build.folder, 'systemd'),
              without=('/usr/share', '/usr/lib/x86_64-linux-gnu/perl', '/usr/lib/x86_64-linux-gnu/perl-base',
                       '/var/lib/dpkg', '/etc/init.d'))
    root.link('/init', 'lib/systemd/systemd')
    root.file('/etc/passwd', b'root:x:0:0:root:/:/bin/sh\n')
    root.file('/etc/group', b'root:x:0:\n')
    unit = 'lib/systemd/system/fbserver.service'
    root.copy(build.installed(unit), os.path.join(build.prefix, unit))
    root.link(f'{UNITS}/sysinit.target.wants/fbserver.service', os.path.join(build.prefix, unit))
    for name in ('agent.service', 'drivers.service'):
        root.file(f'{UNITS}/{name}', _text(build, name).encode())
        root.link(f'{UNITS}/sysinit.target.wants/{name}', f'../{name}')
    for name in ('getty.target', 'graphical.target', 'dbus.service', 'dbus.socket'):
        root.link(f'{UNITS}/{name}', '/dev/null')
    root.link(f'{UNITS}/default.target', '/lib/systemd/system/multi-user.target')
