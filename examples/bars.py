#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""bars.py [FRAMES] - coloured bars that wander: a client over nothing but a socket, as docs/protocol.md describes it."""
import mmap, os, socket, struct, sys, time

WIDTH, HEIGHT, STRIDE = 96, 64, 96 * 4
COLOURS = [0xFFFFFFFF, 0xFFFFFF00, 0xFF00FFFF, 0xFF00FF00, 0xFFFF00FF, 0xFFFF0000, 0xFF0000FF, 0xFF000000]


def padded(data):
    return data + bytes(-len(data) % 4)


class Server:
    def __init__(self, name):
        folder = os.environ.get("MC_RUNTIME_DIR") or os.environ.get("XDG_RUNTIME_DIR") or "/run/mc"
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.socket.settimeout(10)
        self.socket.connect(folder + "/pfb.mc")
        self.serial = 0
        self.send("connect", 1, name)

    def send(self, command, *arguments):
        self.serial += 1
        signature = "".join("i" if isinstance(a, int) else "s" for a in arguments)
        packet = padded(struct.pack("=I", self.serial) + command.encode() + b"\0" + signature.encode() + b"\0")
        for a in arguments:
            packet += struct.pack("=i", a) if isinstance(a, int) else padded(a.encode() + b"\0")
        self.socket.send(packet)

    def call(self, command, *arguments):
        self.send(command, *arguments)
        while reply := self.socket.recv(4096):
            if struct.unpack_from("=I", reply)[0] == self.serial:
                return reply
        raise ConnectionError("the server has closed the connection")


def main(frames):
    server = Server("bars")
    name = f"/pfb-bars-{os.getpid()}"
    fd = os.open("/dev/shm" + name, os.O_RDWR | os.O_CREAT | os.O_EXCL, 0o660)
    os.ftruncate(fd, STRIDE * HEIGHT)
    pixels = mmap.mmap(fd, STRIDE * HEIGHT)
    server.send("create", 0, 32, 200, 20, WIDTH, HEIGHT, STRIDE, 1, 0, name)
    server.call("get_native_color_depth")  # the server has the memory now
    server.send("show")
    for frame in range(frames):
        server.call("lock_area", 0, 0, WIDTH, HEIGHT)  # nothing is drawn until "unlock"
        row = b"".join(struct.pack("=I", COLOURS[(x + frame) // 12 % 8]) for x in range(WIDTH))
        pixels[:] = row * HEIGHT
        server.send("unlock")
        time.sleep(0.02)


if __name__ == "__main__":
    main(int(sys.argv[1]) if len(sys.argv) > 1 else 500)
