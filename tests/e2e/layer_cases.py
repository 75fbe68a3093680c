# SPDX-License-Identifier: MIT
"""Framebuffers that no emulator shows, read back inside the machine: odd depths, padded rows, and the second layer."""
import boot
from machine import Machine
from scenes import Scene, Surface
from screen_cases import BOCHS

WIDTH, HEIGHT = 160, 96
GARBAGE = 0xA5

# The layer-control block: 48 words of 32 bits. The six that mean something, by their place.
COMMAND, FLAGS, WORD_132, WORD_136, WORD_140, ENABLE = 0, 29, 33, 34, 35, 46
APPLY, READ = 3, 4
START = {COMMAND: APPLY, FLAGS: 0x201C, WORD_132: 0, WORD_136: 2, WORD_140: 1, ENABLE: 1}


def primary_scene(depth):
    return Scene(f'primary{depth}', (WIDTH, HEIGHT, depth), [
        Surface('fb.background', 'xrgb', 0, 0, WIDTH, HEIGHT, 'photograph'),
        Surface('fb.narrow', 'rgb565', 20, 11, 61, 40),
        Surface('fb.wide', 'rgb666', 70, 30, 50, 51),
        Surface('fb.edge', 'rgb565', 140, 80, 40, 40),
    ])


def layer_scene(depth):
    """On 32 bits nothing lies behind some places, and every strength of alpha occurs. Other layers have none. The first
    surface is never shown; on a layer it is drawn all the same, where others are."""
    background = Surface('fb2.background', 'argb', 12, 8, WIDTH - 20, HEIGHT - 11) if depth == 32 else \
        Surface('fb2.background', 'argb', 0, 0, WIDTH, HEIGHT, 'photograph')
    return Scene(f'layer{depth}', (WIDTH, HEIGHT, depth), [
        Surface('fb2.first', 'argb', 40, 14, 70, 61),
        background,
        Surface('fb2.glass', 'argb', 31, 17, 80, 55),
        Surface('fb2.narrow', 'rgb565', 90, 5, 40, 33),
    ], layer=True)


def layers(build, report):
    primary = {depth: primary_scene(depth) for depth in (16, 18, 32)}
    layer = {depth: layer_scene(depth) for depth in (16, 18, 32)}
    scenes = [*primary.values(), *layer.values()]
    with Machine(build, 'layers', BOCHS, scenes, 'std', 'video=800x480', boot=boot.busybox) as machine:
        start_up_script(machine, report)
        for depth in (18, 16, 32):
            primary_device(machine, report, primary[depth], pad=24)
        for depth in (32, 18, 16):
            second_layer(machine, report, layer[depth], primary[18], pad=8)
        first_picture(machine, report)


def start_up_script(machine, report):
    script = '/etc/init.d/fbserver'
    lines = [machine.run(f'{script} {word}; echo "$?"') for word in
             ('status', 'start', 'status', 'restart', 'status', 'stop', 'status')]
    expected = ['fbserver is not running\n3', '0', 'fbserver is running\n0', '0', 'fbserver is running\n0', '0',
                'fbserver is not running\n3']
    report.check('the start-up script starts, restarts and stops', lines == expected, '\n'.join(lines))
    machine.run(f'{script} start')
    killed = machine.wait_for_server()
    machine.run(f'kill -KILL {killed}')
    new = machine.wait_for_server(killed)
    status = machine.run(f'{script} status; {script} stop; {script} status; echo "$?"')
    report.check('the start-up script starts a killed server again, and stops that one',
                 status == 'fbserver is running\nfbserver is not running\n3', f'{killed} then {new}\n{status}')
    usage = machine.status(script)
    report.check('the start-up script tells its usage', usage[0] == 2 and usage[1].startswith('usage:'), usage[1])


def load_module(machine, depths, pad):
    machine.run('test ! -e /proc/layer-control || rmmod pfb_layers')
    many = len(depths)
    machine.run('insmod /lib/modules/pfb_layers.ko bpp=' + ','.join(map(str, depths)) +
                f' width={",".join([str(WIDTH)] * many)} height={",".join([str(HEIGHT)] * many)}'
                f' pad={",".join([str(pad)] * many)}')


def start_server(machine, arguments):
    machine.settings(arguments)
    machine.run('/etc/init.d/fbserver start')
    machine.wait_for_server()


def stop_server(machine):
    machine.end_clients()
    machine.run('/etc/init.d/fbserver stop')


def shown_on(machine, report, name, device, scene):
    look = lambda: machine.framebuffer(device)[0]
    actual = machine.wait_for_picture(look, scene.picture, scene.depth)
    report.picture(name, actual, scene.picture, scene.depth, machine.run(f'device info {device}'))


def primary_device(machine, report, scene, pad):
    name = f'{scene.depth} bits, {pad} bytes behind each row'
    load_module(machine, [scene.depth, 32], pad)
    machine.run(f'device fill /dev/fb1 {GARBAGE}')
    start_server(machine, '-fb /dev/fb1')
    machine.show(scene)
    shown_on(machine, report, name, '/dev/fb1', scene)
    _, memory, stride = machine.framebuffer('/dev/fb1')
    behind = b''.join(memory[(y + 1) * stride - pad:(y + 1) * stride] for y in range(HEIGHT)) + memory[HEIGHT * stride:]
    report.check(f'{name}: nothing is written behind rows and picture', set(behind) == {GARBAGE})
    machine.run('/etc/init.d/fbserver stop')
    black = machine.status('device black /dev/fb1')[1].strip()
    report.check(f'{name}: all of the memory is black after the end', black == 'black', black)
    machine.end_clients()


def records(machine):
    return [[int(word, 16) for word in line.split()] for line in machine.run('cat /proc/layer-control').splitlines()]


def describe(blocks):
    return '\n'.join(' '.join(f'{word}={block[word]:#x}' for word in START) for block in blocks)


def second_layer(machine, report, scene, primary, pad):
    """Its whole life (that of 32 bits twice: devices are opened again), while the primary output shows something else."""
    name = f'second layer, {scene.depth} bits'
    load_module(machine, [primary.depth, scene.depth], pad)
    start_server(machine, '-fb /dev/fb1')
    machine.show(primary)
    for life in ('', ', again') if scene.depth == 32 else ('',):
        layer_life(machine, report, name, life, scene)
        shown_on(machine, report, f'{name}: the primary output is as it was{life}', '/dev/fb1', primary)
        machine.run('echo > /proc/layer-control')
    machine.end_clients()
    machine.run('/etc/init.d/fbserver stop')


def layer_life(machine, report, name, life, scene):
    machine.run(f'device fill /dev/fb2 {GARBAGE}')
    first, *others = scene.surfaces
    machine.clients[first.name] = int(machine.run(
        f"client {first.name} {scene.pixel_path(first)} '{first.create(0, 0)}' get_native_color_depth"
        f' > /var/log/{first.name} & echo $!'))
    machine.wait_for('grep -q . /proc/layer-control')
    blocks = records(machine)
    report.check(f'{name}: the start block{life}',
                 len(blocks) == 1 and {word: blocks[0][word] for word in START} == START, describe(blocks))
    black = machine.wait_for('device black /dev/fb2')
    report.check(f'{name}: black at the start{life}', black == 'black', black)
    for surface in others:
        machine.start(scene, surface)
    shown_on(machine, report, f'{name}: the picture{life}', '/dev/fb2', scene)
    if scene.words is not None:
        alpha(machine, report, f'{name}: the alpha of every pixel{life}', scene)

    machine.signal('KILL', *(surface.name for surface in scene.surfaces))
    machine.wait_for('test $(wc -l < /proc/layer-control) -ge 3')
    blocks = records(machine)
    # What the driver holds: the words of the start, its own everywhere else; its commit bit ends with the request.
    held = [START.get(word, 0xD0000000 + word) for word in range(48)]
    held[FLAGS] &= ~0x2000
    shut = [*held]
    shut[COMMAND], shut[FLAGS], shut[ENABLE] = APPLY, held[FLAGS] | 0x2000, 0
    report.check(f'{name}: the shut-down block is the driver\'s own but for three words{life}',
                 len(blocks) == 3 and blocks[1][COMMAND] == READ and blocks[2] == shut, describe(blocks))
    black = machine.status('device black /dev/fb2')[1].strip()
    report.check(f'{name}: all of the memory is black after the end{life}', black == 'black', black)
    for surface in scene.surfaces:
        del machine.clients[surface.name]


def alpha(machine, report, name, scene):
    """The whole words. What the picture compares is the colours."""
    _, memory, stride = machine.framebuffer('/dev/fb2')
    rows = b''.join(memory[y * stride:y * stride + WIDTH * 4] for y in range(HEIGHT))
    wrong = sum(a != b for a, b in zip(rows[3::4], scene.words[3::4]))
    strengths = len(set(scene.words[3::4]))
    report.check(name, rows == scene.words and strengths > 200,
                 f'{wrong} of {WIDTH * HEIGHT} differ; {strengths} strengths are expected')


def first_picture(machine, report):
    """Measured on /dev/fb0, with a client that waits for the server already."""
    scene = primary_scene(32)
    machine.settings('')
    machine.start(scene, scene.surfaces[0])
    machine.run('device first /dev/fb0 /etc/init.d/fbserver run > /var/log/first & true')
    milliseconds = float(machine.wait_for('grep -m1 "^[0-9.]*$" /var/log/first'))
    resident = int(machine.run(f"sed -n 's/^VmRSS:[^0-9]*\\([0-9]*\\) kB/\\1/p' /proc/{machine.server()}/status"))
    report.measured.append(f'From the server\'s start to the first picture {milliseconds:.0f} ms, {resident} kB resident '
                           'then (emulated processor)')
