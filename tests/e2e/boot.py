# SPDX-License-Identifier: MIT
"""How a machine comes up: what of its root file system belongs to its init."""
import os

UNITS = '/etc/systemd/system'


def _text(build, name):
    with open(os.path.join(build.source, 'root', name)) as file:
        return file.read()


def _installed_line(build, start):
    """The line for an inittab that begins so, whether it is commented out or not."""
    with open(build.installed('share/pfb/fbserver.inittab')) as file:
        return next(line.lstrip('#') for line in file if line.lstrip('#').startswith(start))


def busybox(root, build, lines=''):
    """Without the server, which the case starts by itself."""
    root.link('/init', 'bin/busybox')
    root.file('/etc/inittab', (_text(build, 'inittab.busybox') + lines).encode())


def busybox_respawns(root, build):
    busybox(root, build, _installed_line(build, '::respawn:'))


def sysv(root, build):
    root.program(os.path.join(build.folder, 'sysv', 'sbin', 'init'), '/init')
    root.file('/etc/inittab', (_text(build, 'inittab.sysv') + _installed_line(build, 'fb:')).encode())


def systemd(root, build, unit='fbserver.service', target='sysinit.target'):
    """Debian's, with both installed units; the named one is enabled as "systemctl enable" does it."""
    root.tree(os.path.join(build.folder, 'systemd'),
              without=('/usr/share', '/usr/lib/x86_64-linux-gnu/perl', '/usr/lib/x86_64-linux-gnu/perl-base',
                       '/var/lib/dpkg', '/etc/init.d'))
    root.link('/init', 'lib/systemd/systemd')
    root.file('/etc/passwd', b'root:x:0:0:root:/:/bin/sh\n'
              b'member:x:1001:1001::/:/bin/sh\nstranger:x:1002:1002::/:/bin/sh\n')
    root.file('/etc/group', b'root:x:0:\ndisplay:x:900:member\nmember:x:1001:\nstranger:x:1002:\n')
    for name in ('fbserver.service', 'fbserver.socket'):
        path = os.path.join('lib/systemd/system', name)
        root.copy(build.installed(path), os.path.join(build.prefix, path))
    root.link(f'{UNITS}/{target}.wants/{unit}', os.path.join(build.prefix, 'lib/systemd/system', unit))
    for name in ('agent.service', 'drivers.service'):
        root.file(f'{UNITS}/{name}', _text(build, name).encode())
        root.link(f'{UNITS}/sysinit.target.wants/{name}', f'../{name}')
    for name in ('getty.target', 'graphical.target', 'dbus.service', 'dbus.socket'):
        root.link(f'{UNITS}/{name}', '/dev/null')
    root.link(f'{UNITS}/default.target', '/lib/systemd/system/multi-user.target')


def systemd_socket(root, build):
    """The socket is there at boot, for the group "display"; the server is not. An emulated machine is slow: where there is
    a limit to how often a socket may start its service, less often is too often here."""
    systemd(root, build, 'fbserver.socket', 'sockets.target')
    root.file(f'{UNITS}/fbserver.socket.d/here.conf', b'[Socket]\nSocketGroup=display\nTriggerLimitBurst=2\n')
