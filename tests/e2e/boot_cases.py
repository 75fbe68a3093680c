# SPDX-License-Identifier: MIT
"""The server started at boot by other kinds of init, killed, and ended in order."""
import re

import boot
import pictures
from machine import Machine
from scenes import Scene
from screen_cases import BOCHS, expect, windows

SIZE = (800, 480)


def life(machine, report, name, scene, end):
    """`end`: the command that ends the server in order."""
    server = machine.wait_for_server()
    machine.show(scene)
    expect(machine, report, f'{name}: started at boot', scene.picture, 32, f'process {server}')
    machine.signal('STOP')  # so that they do not come back at once
    machine.run(f'kill -KILL {server}')
    new = machine.wait_for_server(server)
    expect(machine, report, f'{name}: a killed server leaves the picture', scene.picture, 32)
    machine.run('device fill /dev/fb0 0')
    expect(machine, report, f'{name}: black before the clients are back', pictures.black(*SIZE), 32)
    machine.signal('CONT')
    expect(machine, report, f'{name}: killed and started again, the picture comes back', scene.picture, 32,
           f'process {server}, then {new}')
    machine.signal('STOP')
    machine.run(end.format(new))
    expect(machine, report, f'{name}: its end leaves a black screen', pictures.black(*SIZE), 32, end)
    console = machine.run('device console')
    report.check(f'{name}: and the console in graphics mode', console == 'graphics', console)
    return new


def systemd(build, report):
    scene = Scene('whole', (*SIZE, 32), windows(*SIZE))
    with Machine(build, 'systemd', BOCHS, [scene], 'std', 'video=800x480 systemd.firstboot=off',
                 boot=boot.systemd) as machine:
        machine.wait_for('systemctl is-active drivers.service || test -e /dev/fb0')
        life(machine, report, 'systemd', scene, 'systemctl stop fbserver')
        stopped = machine.status('systemctl is-active fbserver')[1].strip()
        report.check('systemd: a stopped server stays away', stopped == 'inactive', stopped)
        machine.run('systemctl start fbserver')
        machine.signal('CONT')
        expect(machine, report, 'systemd: started again by hand', scene.picture, 32,
               machine.run('systemctl status --no-pager fbserver | head -12'))


UNIT = 'fbserver.socket'


def _active(machine, unit):
    return machine.status(f'systemctl is-active {unit}')[1].strip()


def _sends(machine, user):
    """(status, text) of a client of that user that sends the server something and ends."""
    return machine.status(f'su {user} -c "client fb.visitor . status"')


def socket(build, report):
    """The socket is enabled, and the server is started by whoever connects first."""
    scene = Scene('whole', (*SIZE, 32), windows(*SIZE))
    with Machine(build, 'socket', BOCHS, [scene], 'std', 'video=800x480 systemd.firstboot=off',
                 boot=boot.systemd_socket) as machine:
        machine.wait_for('test -e /dev/fb0')
        waits_for_a_client(machine, report)
        machine.show(scene)
        expect(machine, report, 'socket: started by its first client, the picture', scene.picture, 32,
               machine.run(f'systemctl status --no-pager {UNIT} fbserver | head -30'))
        aborted(machine, report, scene)
        aborted_often(machine, report, scene)
        stopped(machine, report, scene)


def waits_for_a_client(machine, report):
    machine.wait_for(f'systemctl is-active {UNIT}')
    listed = machine.run('ls -la /run/mc')
    report.check('socket: made at boot with the mode and the group of its unit',
                 re.search(r'srw-rw---- +1 root +display .* pfb.mc$', listed, re.M), listed)
    report.check('socket: nobody has connected, and there is no server', _active(machine, 'fbserver') == 'inactive')
    status, text = _sends(machine, 'stranger')
    report.check('socket: another user is refused', status == 1 and 'cannot connect: Permission denied' in text, text)
    report.check('socket: and starts no server', _active(machine, 'fbserver') == 'inactive')
    status, text = _sends(machine, 'member')
    report.check('socket: a member of the group is let in', status == 0, text)
    machine.wait_for("journalctl -u fbserver | grep 'not yet create surface'")
    report.check('socket: and has started the server, which has its request', _active(machine, 'fbserver') == 'active')
    status, text = _sends(machine, 'stranger')
    report.check('socket: another user is refused by the running server', status == 1 and 'Permission denied' in text, text)
    left = machine.run('ls /run/mc')
    report.check('socket: the server makes no lock file beside it', left == 'pfb.mc', left)


def aborted(machine, report, scene):
    server = machine.wait_for_server()
    machine.signal('STOP')
    machine.run("client fb.bad - 'create 0 32 0 0 10 10 40 0 0'")
    new = machine.wait_for_server(server)
    machine.run('device fill /dev/fb0 0')
    expect(machine, report, 'socket: black before the clients are back', pictures.black(*SIZE), 32)
    machine.signal('CONT')
    expect(machine, report, 'socket: aborted and started again, the picture comes back', scene.picture, 32,
           f'process {server}, then {new}')
    log = machine.run('journalctl --no-pager -u fbserver | tail -20')
    report.check('socket: the journal tells of the abort', "create: Assertion `0' failed" in log, log)


def aborted_often(machine, report, scene):
    """More often than the service manager takes for normal by default, with clients that wait all the time."""
    server = machine.wait_for_server()
    for _ in range(30):
        machine.run("client fb.bad - 'create 0 32 0 0 10 10 40 0 0'")
        server = machine.wait_for_server(server)
    text = machine.run('systemctl show --no-pager -p NRestarts,Result,ActiveState fbserver; '
                       f'systemctl show --no-pager -p Result,ActiveState,NAccepted {UNIT}')
    report.check('socket: 30 aborts later it still listens', _active(machine, UNIT) == 'active', text)
    machine.run('device fill /dev/fb0 0')
    machine.signal('USR1')
    expect(machine, report, 'socket: and the picture comes back', scene.picture, 32, text)


def stopped(machine, report, scene):
    machine.signal('STOP')
    machine.run('systemctl stop fbserver')
    expect(machine, report, 'socket: a stopped server leaves a black screen', pictures.black(*SIZE), 32)
    report.check('socket: it stays away until somebody connects', _active(machine, 'fbserver') == 'inactive')
    machine.signal('CONT')
    expect(machine, report, 'socket: clients that come back start it', scene.picture, 32)
    machine.signal('STOP')
    machine.run(f'systemctl stop {UNIT} fbserver')
    left = machine.run('ls /run/mc')
    report.check('socket: with both stopped there is no socket', left == '', left)
    machine.run(f'systemctl start {UNIT}')
    machine.signal('CONT')
    expect(machine, report, 'socket: started again, clients find it', scene.picture, 32)


def sysv(build, report):
    scene = Scene('whole', (*SIZE, 32), windows(*SIZE))
    with Machine(build, 'sysv', BOCHS, [scene], 'std', 'video=800x480', boot=boot.sysv) as machine:
        ended = life(machine, report, 'System V init', scene, 'kill -TERM {}')
        machine.wait_for_server(ended)
        machine.signal('CONT')
        expect(machine, report, 'System V init: ended and started again', scene.picture, 32)
