#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""client_page.py SOURCE BUILD MESON COMPILER... - docs/client.md, done as it says, on what "meson install" installs.

The programs that the page names are written to files, and its commands run in their order, in an empty folder with the
installed programs and libraries before all others. Waits where a reader would wait: for the server to listen, and for
something to be on the panel before a picture of it is taken.
"""
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile
import time

PATIENCE = 60  # seconds


def blocks_of(page):
    return re.findall(r"^```(c|sh)\n(.*?)^```$", page, re.M | re.S)


def fail(text):
    sys.exit(f"client_page: {text}")


def wait_for(what, condition):
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            fail(f"{what} does not come")
        time.sleep(0.02)


def install(build, meson, root):
    subprocess.run([*shlex.split(meson), "install", "-C", build, "--no-rebuild", "--quiet", "--destdir", root], check=True)
    found = list(pathlib.Path(root).rglob("pfb.pc"))
    if len(found) != 1:
        fail(f"{len(found)} files pfb.pc are installed")
    return found[0]


def environment_of(root, pc, run_folder, compiler):
    prefix = re.search(r"^prefix=(.*)$", pc.read_text(), re.M).group(1)
    environment = dict(os.environ)
    for name in ("MC_RUNTIME_DIR", "PFBPANEL_DIR", "LD_PRELOAD"):
        environment.pop(name, None)
    environment.update(
        PATH=f"{root}{prefix}/bin:" + environment["PATH"],
        PKG_CONFIG_PATH=str(pc.parent),
        PKG_CONFIG_SYSROOT_DIR=root,
        LD_LIBRARY_PATH=str(pc.parent.parent),
        XDG_RUNTIME_DIR=run_folder,
        CC=shlex.join(compiler),
        # A client ends by a signal here, and a sanitized library asks for the sanitizer in programs that have none.
        ASAN_OPTIONS="detect_leaks=0:verify_asan_link_order=0",
    )
    return environment


class Reader:
    """Types the page's commands, one line after the other."""

    def __init__(self, folder, environment):
        self.folder, self.environment, self.children = folder, environment, []

    def run(self, line):
        print("$", line, flush=True)
        if line.endswith("&"):
            child = subprocess.Popen(["bash", "-c", "exec " + line.rstrip("& ")], cwd=self.folder, env=self.environment)
            self.children.append(child)
            if "fbserver" in line:
                wait_for("the server", self.is_listening)
            return ""
        if line.startswith("pfbpanel shot"):
            wait_for("a picture", lambda: any(self.look()))
        if line.startswith("pfbpanel watch"):
            first = self.look()
            wait_for("movement", lambda: self.look() != first)
        # "cc" is the compiler that this build was made with, and its options.
        line = re.sub(r"^cc ", self.environment["CC"] + " -std=c11 -Wall -Wextra -Werror ", line)
        done = subprocess.run(
            ["bash", "-euc", line], cwd=self.folder, env=self.environment, stdout=subprocess.PIPE, text=True
        )
        print(done.stdout, end="", flush=True)
        if done.returncode != 0:
            fail(f"status {done.returncode}")
        return done.stdout

    def is_listening(self):
        lines = pathlib.Path("/proc/net/unix").read_text().splitlines()
        return any(self.environment["XDG_RUNTIME_DIR"] in line and " 00010000 " in line for line in lines)

    def look(self):
        file = pathlib.Path(self.folder, "raw")
        command = ["pfbpanel", "shot", "--name", "desk", "--raw", str(file)]
        subprocess.run(command, env=self.environment, check=True)
        return file.read_bytes()

    def close(self):
        for child in reversed(self.children):
            if child.poll() is None:
                child.terminate()
        return [child.wait(PATIENCE) for child in self.children]


def main(source, build, meson, *compiler):
    page = pathlib.Path(source, "docs", "client.md").read_text()
    with tempfile.TemporaryDirectory() as top:
        root, work, run_folder = (os.path.join(top, name) for name in ("root", "work", "run"))
        for folder in (root, work, run_folder):
            os.mkdir(folder, 0o700)
        pc = install(build, meson, root)
        reader = Reader(work, environment_of(root, pc, run_folder, compiler))
        printed, pictures = "", 0
        try:
            for kind, text in blocks_of(page):
                name = re.match(r"/\* (\S+\.c) \*/", text)
                if kind == "c" and name:
                    pathlib.Path(work, name.group(1)).write_text(text)
                elif kind == "sh":
                    for line in text.splitlines():
                        printed += reader.run(line)
            pictures = len(list(pathlib.Path(work).glob("*.png")))
        finally:
            statuses = reader.close()
    changed = re.search(r"(\d+) changed", printed)
    if not changed or int(changed.group(1)) == 0:
        fail(f"nothing moves: {printed}")
    if pictures != 2:
        fail(f"{pictures} pictures were taken")
    if statuses[0] != 0:
        fail(f"the server has ended with status {statuses[0]}")


if __name__ == "__main__":
    main(*sys.argv[1:])
