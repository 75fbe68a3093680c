# SPDX-License-Identifier: MIT
"""The server started at boot by other kinds of init, killed, and ended in order."""
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
    new = machine.wait_for_new_server(server)
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


def sysv(build, report):
    scene = Scene('whole', (*SIZE, 32), windows(*SIZE))
    with Machine(build, 'sysv', BOCHS, [scene], 'std', 'video=800x480', boot=boot.sysv) as machine:
        ended = life(machine, report, 'System V init', scene, 'kill -TERM {}')
        machine.wait_for_new_server(ended)
        machine.signal('CONT')
        expect(machine, report, 'System V init: ended and started again', scene.picture, 32)
