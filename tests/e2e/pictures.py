# SPDX-License-Identifier: MIT
"""Pictures of 8 bits a channel: read, compared, written."""
import base64
import struct
import zlib

# The bits of each channel that a panel of that depth shows; the emulator fills the ones below as it likes.
MASKS = {16: bytes([0xF8, 0xFC, 0xF8]), 18: bytes([0xFC] * 3), 32: bytes([0xFF] * 3)}


class Picture:
    def __init__(self, width, height, rgb):
        assert len(rgb) == width * height * 3
        self.width = width
        self.height = height
        self.rgb = bytes(rgb)

    def masked(self, depth):
        mask = MASKS[depth] * (self.width * self.height)
        both = int.from_bytes(self.rgb, 'big') & int.from_bytes(mask, 'big')
        return Picture(self.width, self.height, both.to_bytes(len(mask), 'big'))

    def __eq__(self, other):
        return (self.width, self.height, self.rgb) == (other.width, other.height, other.rgb)

    def png(self):
        rows = b''.join(b'\0' + self.rgb[y * self.width * 3:(y + 1) * self.width * 3] for y in range(self.height))
        header = struct.pack('>IIBBBBB', self.width, self.height, 8, 2, 0, 0, 0)
        return (b'\x89PNG\r\n\x1a\n' + _chunk(b'IHDR', header) + _chunk(b'IDAT', zlib.compress(rows, 6)) +
                _chunk(b'IEND', b''))

    def data_url(self):
        return 'data:image/png;base64,' + base64.b64encode(self.png()).decode()


def _chunk(kind, data):
    return struct.pack('>I', len(data)) + kind + data + struct.pack('>I', zlib.crc32(kind + data))


def black(width, height):
    return Picture(width, height, bytes(width * height * 3))


def read_ppm(path):
    with open(path, 'rb') as file:
        magic, width, height, largest, rgb = _ppm_parts(file.read())
    assert (magic, largest) == (b'P6', b'255'), path
    return Picture(int(width), int(height), rgb)


def _ppm_parts(data):
    magic, size, largest, rgb = data.split(b'\n', 3)
    width, height = size.split()
    return magic, width, height, largest, rgb


def from_memory(memory, width, height, depth, stride):
    """What a framebuffer shows whose memory was dumped."""
    rgb = bytearray()
    for y in range(height):
        row = memory[y * stride:(y + 1) * stride]
        words = struct.unpack('<%d%s' % (width, 'H' if depth == 16 else 'I'), row[:width * (2 if depth == 16 else 4)])
        for word in words:
            rgb += _channels(word, depth)
    return Picture(width, height, rgb)


def _channels(word, depth):
    if depth == 16:
        return bytes([word >> 8 & 0xF8, word >> 3 & 0xFC, word << 3 & 0xF8])
    if depth == 18:
        return bytes([word >> 10 & 0xFC, word >> 4 & 0xFC, word << 2 & 0xFC])
    return bytes([word >> 16 & 0xFF, word >> 8 & 0xFF, word & 0xFF])


def difference(actual, expected):
    """The differing pixels in white, and how many there are; None where the sizes differ."""
    if (actual.width, actual.height) != (expected.width, expected.height):
        return None, None
    rgb = bytearray(len(actual.rgb))
    count = 0
    if actual == expected:
        return Picture(actual.width, actual.height, rgb), 0
    for i in range(0, len(rgb), 3):
        if actual.rgb[i:i + 3] != expected.rgb[i:i + 3]:
            rgb[i:i + 3] = b'\xff\xff\xff'
            count += 1
    return Picture(actual.width, actual.height, rgb), count
