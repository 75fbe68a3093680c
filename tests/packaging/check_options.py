#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""check_options.py SOURCE MESON - configures the sources with and without the options of packaging, and reads who may
connect in what is installed: the systemd units and the start-up script."""
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

NAMES = ("user", "group", "mode")


def fail(text):
    sys.exit(f"check_options: {text}")


def setup(meson, source, build, *options):
    """Configures it; returns why that cannot be, or nothing."""
    again = ["--reconfigure"] if os.path.exists(build) else []
    command = [*shlex.split(meson), "setup", *again, "-Dtests=false", "-Dtools=false", "-Dvnc=disabled",
               *(f"-D{option}" for option in options), build, source]
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    return done.stdout if done.returncode else ""


def value_of(text, pattern):
    found = re.findall(pattern, text, re.M)
    return found[0] if len(found) == 1 else f"{len(found)} lines"


def socket_unit(text):
    return [value_of(text, rf"^Socket{name.capitalize()}=(.*)$") for name in NAMES]


def service_unit(text):
    return [value_of(text, rf"^Environment=.*\bMC_SOCKET_{name.upper()}=(\S*)") for name in NAMES]


def script(path):
    """What the script hands to the server, without what this machine has in /etc/default."""
    text = path.read_text()
    head = text[:text.index("# shellcheck source=")] + text[text.index("export MC_RUNTIME_DIR"):text.index("\nrun()")]
    shown = subprocess.run(["sh", "-c", head + "\nenv"], env={"PATH": os.environ["PATH"]}, stdout=subprocess.PIPE, text=True, check=True)
    return [value_of(shown.stdout, rf"^MC_SOCKET_{name.upper()}=(.*)$") for name in NAMES]


def expect(build, wanted):
    folder = pathlib.Path(build, "packaging")
    found = {
        "fbserver.socket": socket_unit((folder / "fbserver.socket").read_text()),
        "fbserver.service": service_unit((folder / "fbserver.service").read_text()),
        "fbserver.init": script(folder / "fbserver.init"),
    }
    for name, values in found.items():
        if values != wanted:
            fail(f"{name} has {values} instead of {wanted}")


def main(source, meson):
    with tempfile.TemporaryDirectory() as folder:
        build = os.path.join(folder, "build")
        for options, wanted in (
            ([], ["", "", "0660"]),
            (["socket_user=show", "socket_group=display", "socket_mode=0600"], ["show", "display", "0600"]),
        ):
            fault = setup(meson, source, build, *options)
            if fault:
                fail(fault)
            expect(build, wanted)
        for mode in ("0680", "rw", "06 0", ""):
            if "socket_mode is no octal number" not in setup(meson, source, build, f"socket_mode={mode}"):
                fail(f"the mode {mode!r} is accepted")


if __name__ == "__main__":
    main(*sys.argv[1:])
