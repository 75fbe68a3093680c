# SPDX-License-Identifier: MIT
"""What clients show: the requests that they send, and the same as a text for the composer of expected pictures."""
import os
import subprocess

import pictures

FORMATS = {'argb': (32, 1, 4), 'xrgb': (32, 0, 4), 'rgb565': (16, 0, 2), 'rgb666': (18, 0, 4)}  # depth, alpha, bytes


class Surface:
    def __init__(self, name, form, x, y, width, height, kind='random', plane=None, clip=None):
        self.name = name  # of the connection; what stands before its first dot chooses the output
        self.form = form
        self.area = (x, y, width, height)
        self.kind = kind
        self.plane = plane
        self.clip = clip

    def line(self, cut):
        clip = _intersection(self.clip or self.area, cut) if cut else self.clip
        words = ['surface', self.name, self.form, *self.area, self.kind]
        words += ['plane', self.plane] if self.plane is not None else []
        words += ['clip', *clip] if clip else []
        return ' '.join(map(str, words))

    def create(self, level, rotation):
        depth, alpha, size = FORMATS[self.form]
        x, y, width, height = self.area
        return f'create {alpha} {depth} {x} {y} {width} {height} {(width * size + 3) // 4 * 4} {level} {rotation}'

    def requests(self, level, rotation):
        requests = [self.create(level, rotation)]
        if self.clip:
            requests.append('set_clip ' + ' '.join(map(str, self.clip)))
        if self.plane is not None:
            requests.append(f'color_plane {self.plane}')
        return requests + ['show']


class Scene:
    """Surfaces from the bottom to the top on a panel. `cut`: the part of the panel that the server was given."""

    def __init__(self, name, panel, surfaces, rotation=0, cut=None, layer=False):
        self.name = name
        self.layer = layer  # it has alpha
        self.width, self.height, self.depth = panel
        self.surfaces = surfaces
        self.rotation = rotation
        self.cut = cut
        self.picture = None
        self.words = None  # of a layer of 32 bits, alpha included, as they lie in memory

    def compose(self, program, folder):
        """Writes what the clients draw below `folder` and composes the expected picture."""
        os.makedirs(folder, exist_ok=True)
        self.folder = folder
        self.picture = self._composed(program, [surface.line(self.cut) for surface in self.surfaces])
        if self.layer and self.depth == 32:
            with open(os.path.join(folder, 'picture.words'), 'rb') as file:
                self.words = file.read()

    def without(self, program, name):
        """The picture when the surfaces of that name are gone. The others draw what they drew."""
        lines = [surface.line(self.cut) + (' hidden' if surface.name == name else '') for surface in self.surfaces]
        return self._composed(program, lines)

    def _composed(self, program, lines):
        text = f'{"layer" if self.layer else "panel"} {self.width} {self.height} {self.depth} {self.rotation}\n' + '\n'.join(lines) + '\n'
        scene = os.path.join(self.folder, 'scene')
        with open(scene, 'w') as file:
            file.write(text)
        subprocess.run([program, scene, self.folder], check=True)
        return pictures.read_ppm(os.path.join(self.folder, 'picture.ppm'))

    def pixels(self):
        """(path in the machine, path here) of each surface's pixels."""
        return [(self.pixel_path(surface), os.path.join(self.folder, surface.name + '.pixels'))
                for surface in self.surfaces]

    def pixel_path(self, surface):
        return f'/pixels/{self.name}/{surface.name}'

    def client(self, surface):
        """The shell words that start a surface's client."""
        level = self.surfaces.index(surface)
        requests = ' '.join(f"'{request}'" for request in surface.requests(level, self.rotation))
        return f'client {surface.name} {self.pixel_path(surface)} {requests}'


def _intersection(a, b):
    x1, y1 = max(a[0], b[0]), max(a[1], b[1])
    x2, y2 = min(a[0] + a[2], b[0] + b[2]), min(a[1] + a[3], b[1] + b[3])
    return (x1, y1, max(0, x2 - x1), max(0, y2 - y1))
