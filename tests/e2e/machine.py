# SPDX-License-Identifier: MIT
"""A machine as a board has it: BusyBox, the installed server with its start-up script, and clients."""
import os
import subprocess
import time

import boot
import pictures
from guest import WAIT_SECONDS, Guest
from initramfs import Initramfs


class Build:
    """Where the parts are that a machine is put together from."""

    def __init__(self, folder, tree, prefix, source):
        self.folder = folder
        self.prefix = prefix
        self.root = os.path.join(folder, 'root')  # what was installed
        self.kernel = os.path.join(folder, 'kernel')
        self.programs = os.path.join(tree, 'tests', 'e2e')
        self.source = source
        self.expected = os.path.join(self.programs, 'e2e-expected')

    def installed(self, path):
        return self.root + os.path.join(self.prefix, path)


def root_file_system(build, modules, scenes, boot):
    root = Initramfs()
    for folder in ('/proc', '/sys', '/dev', '/run', '/tmp', '/var/log', '/etc/default'):
        root.folder(folder)
    root.copy('/bin/busybox', '/bin/busybox', 0o755)
    for applet in subprocess.check_output(['/bin/busybox', '--list'], text=True).split():
        if applet != 'busybox':
            root.link('/bin/' + applet, 'busybox')
    root.link('/sbin', 'bin')
    for name in ('rcS', 'agent', 'drivers'):
        root.copy(os.path.join(build.source, 'root', name), '/etc/init.d/' + name, 0o755)
    root.file('/etc/modules', ''.join(module + '\n' for module in modules).encode())
    for module in [*modules, 'pfb_layers']:
        root.copy(os.path.join(build.kernel, module + '.ko'), f'/lib/modules/{module}.ko')
    root.program(build.installed('bin/fbserver'), os.path.join(build.prefix, 'bin/fbserver'))
    root.copy(build.installed('share/pfb/fbserver.init'), '/etc/init.d/fbserver', 0o755)
    boot(root, build)
    root.program(os.path.join(build.programs, 'e2e-client'), '/bin/client')
    root.program(os.path.join(build.programs, 'e2e-device'), '/bin/device')
    for scene in scenes:
        for there, here in scene.pixels():
            root.copy(here, there)
    return root


# Prints the server's process id. Others have its name: the shell of the start-up script, and one that has ended, until
# init takes notice (a second later with BusyBox's); that one has no program any more.
RUNNING = 'for p in $(pidof fbserver); do case $(readlink /proc/$p/exe) in */fbserver) echo $p;; esac; done | grep .'


class Machine(Guest):
    def __init__(self, build, name, modules, scenes, vga, words='', boot_image=False,
                 boot=boot.busybox_respawns):
        folder = os.path.join(build.folder, 'machines', name)
        os.makedirs(folder, exist_ok=True)
        for scene in scenes:
            scene.compose(build.expected, os.path.join(folder, scene.name))
        archive = os.path.join(folder, 'root.cpio')
        root_file_system(build, modules, scenes, boot).write(archive)
        kernel = os.path.join(build.kernel, 'vmlinuz' if boot_image else 'vmlinux')
        super().__init__(folder, kernel, words, archive, vga)
        self.clients = {}

    def wait_for_server(self, old=0):
        """The process id of a server other than `old`, once it listens. (The socket is there when it binds it; clients
        try again by themselves.)"""
        return int(self.wait_for(f'p=$({RUNNING}) && test "$p" != {old} && test -S /run/mc/pfb.mc && echo $p'))

    def server(self):
        return int(self.run(RUNNING))

    def start(self, scene, surface):
        command = scene.client(surface)
        self.clients[surface.name] = int(self.run(f'{command} > /var/log/{surface.name} & echo $!'))

    def show(self, scene):
        for surface in scene.surfaces:
            self.start(scene, surface)

    def signal(self, name, *clients):
        self.run(f'kill -{name} ' + ' '.join(str(self.clients[client]) for client in clients or self.clients))

    def end_clients(self):
        if self.clients:
            self.signal('KILL')
        self.clients = {}

    def settings(self, arguments):
        self.run(f"echo 'FBSERVER_ARGS=\"{arguments}\"' > /etc/default/fbserver")

    def wait_for_picture(self, look, expected, depth):
        """What `look` returns, as soon as it is the expected picture, or after a long time."""
        end = time.monotonic() + WAIT_SECONDS
        while True:
            actual = look()
            if actual.masked(depth) == expected.masked(depth) or time.monotonic() > end:
                return actual
            time.sleep(0.05)

    def screen_after_damage(self, client):
        self.status(f'grep -q ready /var/log/{client} && kill -USR1 {self.clients[client]}')
        return self.screen()

    def framebuffer(self, device):
        """(picture, memory, stride) of a device that the emulator's screen does not show."""
        width, height, depth, stride, _ = map(int, self.run(f'device info {device}').split())
        memory = self.memory(device)
        return pictures.from_memory(memory, width, height, depth, stride), memory, stride
