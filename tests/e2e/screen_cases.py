# SPDX-License-Identifier: MIT
"""What the emulated screen shows: every kind of /dev/fb0, and the life of the server on one of them."""
import re

import pictures
from machine import Machine
from scenes import Scene, Surface

BOCHS = ['drm', 'drm_kms_helper', 'ttm', 'drm_ttm_helper', 'drm_vram_helper', 'bochs']
CIRRUS = ['drm', 'drm_kms_helper', 'drm_shmem_helper', 'cirrus']


def windows(width, height):
    """A background with narrow, wide and translucent surfaces over it, one clipped, two beyond the edges."""
    return [
        Surface('fb.background', 'xrgb', 0, 0, width, height, 'photograph'),
        Surface('fb.window', 'rgb565', 60, 40, 311, 201, 'photograph'),
        Surface('fb.wide', 'rgb666', 250, 130, 200, 150, 'photograph', clip=(260, 140, 150, 200)),
        Surface('fb.glass', 'argb', 200, 100, 255, 163),
        Surface('fb.left', 'argb', -31, height - 90, 120, 120),
        Surface('fb.right', 'rgb565', width - 50, 17, 120, 99),
    ]


def expect(machine, report, name, expected, depth, text=''):
    actual = machine.wait_for_picture(machine.screen, expected, depth)
    report.picture(name, actual, expected, depth, text)


def bochs(build, report):
    whole = Scene('whole', (800, 480, 32), windows(800, 480))
    part = Scene('part', (800, 480, 32), windows(800, 480), cut=(0, 0, 640, 400))
    with Machine(build, 'bochs', BOCHS, [whole, part], 'std', 'video=800x480') as machine:
        server = machine.wait_for_server()
        report.check('bochs: the console shows text before the first surface', machine.run('device console') == 'text')
        machine.show(whole)
        expect(machine, report, 'bochs: 32 bits, size from the device', whole.picture, 32,
               machine.run('head -5 /var/log/fbserver.log; device info /dev/fb0'))
        report.check('bochs: the console is in graphics mode', machine.run('device console') == 'graphics')
        machine.run('echo "a line of text on the console" > /dev/tty0')
        expect(machine, report, 'bochs: text on the console does not reach the screen', whole.picture, 32)
        client_killed(machine, report, build, whole)
        server = server_aborted(machine, report, whole, server)
        server = server_ended(machine, report, whole, server)
        size_from_command_line(machine, report, part, server)


def client_killed(machine, report, build, scene):
    machine.signal('KILL', 'fb.glass')
    expect(machine, report, 'bochs: a client killed', scene.without(build.expected, 'fb.glass'), 32)
    machine.start(scene, scene.surfaces[3])
    expect(machine, report, 'bochs: and started again', scene.picture, 32)


def server_aborted(machine, report, scene, server):
    machine.signal('STOP')  # until the screen, which an abort leaves as it is, has been made black
    machine.run("client fb.bad - 'create 0 32 0 0 10 10 40 0 0'")
    new = machine.wait_for_server(server)
    log = machine.run('tail -40 /var/log/fbserver.log')
    report.check('bochs: a missing shared-memory object aborts the server',
                 re.search(r"shm_open: No such file or directory\n[^\n]*create: Assertion `0' failed", log), log)
    machine.run('device fill /dev/fb0 0')
    expect(machine, report, 'bochs: black before the clients are back', pictures.black(800, 480), 32)
    machine.signal('CONT')
    expect(machine, report, 'bochs: respawned by init, the picture comes back', scene.picture, 32,
           f'process {server}, then {new}')
    return new


def server_ended(machine, report, scene, server):
    machine.signal('STOP')  # so that they do not come back at once
    machine.run(f'kill -TERM {server}')
    machine.wait_for_server(server)
    expect(machine, report, 'bochs: SIGTERM leaves a black screen', pictures.black(800, 480), 32)
    console = machine.run('device console')
    report.check('bochs: SIGTERM leaves the console in graphics mode', console == 'graphics', console)
    machine.run('device text')
    console = machine.run('device console')
    report.check('bochs: the console can be set back to text then', console == 'text', console)
    machine.signal('CONT')
    expect(machine, report, 'bochs: clients that waited come back', scene.picture, 32)
    console = machine.run('device console')
    report.check('bochs: and is in graphics mode again', console == 'graphics', console)
    return machine.wait_for_server()


def size_from_command_line(machine, report, scene, server):
    machine.settings('640 400')
    machine.end_clients()
    machine.run(f'kill -TERM {server}')
    machine.wait_for_server(server)
    machine.show(scene)
    expect(machine, report, 'bochs: size 640 x 400 from the command line', scene.picture, 32,
           machine.run('tail -5 /var/log/fbserver.log'))


def vesa(build, report):
    scene = Scene('whole', (800, 600, 32), windows(800, 600))
    with Machine(build, 'vesa', [], [scene], 'std', 'vga=0x343', boot_image=True) as machine:
        machine.wait_for_server()
        machine.show(scene)
        expect(machine, report, 'vesafb: 32 bits, size from the device', scene.picture, 32,
               machine.run('cat /sys/class/graphics/fb0/name; device info /dev/fb0'))


def cirrus(build, report):
    upright = Scene('upright', (800, 600, 16), windows(800, 600))
    # Surfaces of 18 bits are not turned on a panel of 16, and so have no place in this picture.
    turned = Scene('turned', (800, 600, 16), [s for s in windows(600, 800) if s.form != 'rgb666'], rotation=90)
    with Machine(build, 'cirrus', CIRRUS, [upright, turned], 'cirrus', 'video=800x600-16') as machine:
        server = machine.wait_for_server()
        machine.show(upright)
        expect(machine, report, 'cirrus: 16 bits, size from the device', upright.picture, 16,
               machine.run('device info /dev/fb0'))
        machine.end_clients()
        machine.run(f'kill -TERM {server}')
        machine.wait_for_server(server)
        machine.show(turned)
        # Turned surfaces are right when at least two are drawn in a pass: the background reports itself dirty.
        actual = machine.wait_for_picture(lambda: machine.screen_after_damage('fb.background'), turned.picture, 16)
        report.picture('cirrus: 16 bits, turned by 90 degrees', actual, turned.picture, 16)
