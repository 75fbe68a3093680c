#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""check_init.py SCRIPT INITTAB SERVER PANEL CTL - the start-up script and the lines for an inittab, with the built server on
a virtual panel, below a folder of their own: only the paths of the script's settings, its log and itself are other ones."""
import contextlib
import ctypes
import os
import pathlib
import re
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import time

PATIENCE = 60  # seconds
PR_SET_CHILD_SUBREAPER = 36


def expect(what, found, wanted):
    if found != wanted:
        raise AssertionError(f"{what}: {found!r} instead of {wanted!r}")


def wait_for(what, condition):
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"{what} does not come")
        time.sleep(0.02)


class Machine:
    """A panel, and what of a root file system the script touches."""

    def __init__(self, top, script, server, panel, ctl):
        self.panel_program, self.server, self.ctl = panel, server, ctl
        self.folders = {name: top / name for name in ("panels", "run", "log", "etc")}
        for folder in self.folders.values():
            folder.mkdir(mode=0o700)
        self.script = self.folders["etc"] / "fbserver"
        self.settings_file = self.folders["etc"] / "default"
        self.pid_file = self.folders["run"] / "fbserver.pid"
        self.log = self.folders["log"] / "fbserver.log"
        self.runtime = self.folders["run"] / "mc"
        text = pathlib.Path(script).read_text()
        expect("places of the settings", text.count("/etc/default/fbserver"), 3)
        self.script.write_text(text.replace("/etc/default/fbserver", str(self.settings_file)))
        self.script.chmod(0o755)
        self.settings()
        self.environment = dict(os.environ, XDG_RUNTIME_DIR=str(self.folders["panels"]), ASAN_OPTIONS="detect_leaks=0")
        for name in ("MC_RUNTIME_DIR", "PFBPANEL_DIR", "LD_PRELOAD", "MC_SOCKET_USER", "MC_SOCKET_GROUP", "MC_SOCKET_MODE"):
            self.environment.pop(name, None)
        self.screen = subprocess.Popen([panel, "--size", "64x48", "--name", "init", "--", "sleep", "infinity"],
                                       env=self.environment)
        self.device = self.folders["panels"] / "pfbpanel-init" / "dev" / "fb0"
        wait_for("the panel", self.device.exists)

    def close(self):
        self.screen.terminate()
        self.screen.wait(PATIENCE)

    def settings(self, **more):
        known = {"FBSERVER": self.server, "FBSERVER_LOG": self.log, "FBSERVER_PID": self.pid_file, "MC_RUNTIME_DIR": self.runtime}
        self.settings_file.write_text("".join(f"{name}='{value}'\n" for name, value in (known | more).items()))

    def on_panel(self, *words):
        """The command that runs something where the server finds the panel's devices."""
        return [self.panel_program, "run", "--panel", str(self.folders["panels"] / "pfbpanel-init"), "--", *words]

    def call(self, word, status, text):
        """`word` of the script: it ends with `status` and says `text`."""
        done = subprocess.run(self.on_panel(str(self.script), word), env=self.environment, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, timeout=PATIENCE)
        expect(f"what {word!r} says", done.stdout, text and text + "\n")
        expect(f"the status of {word!r}", done.returncode, status)

    def listens(self):
        return f" {self.runtime}/pfb.mc" in "".join(
            line for line in open("/proc/net/unix", encoding="utf-8") if " 00010000 " in line)

    def pid(self):
        return int(self.pid_file.read_text())

    def is_black(self):
        return not any(self.device.read_bytes())

    def erase(self):
        with self.device.open("r+b") as device:
            device.write(bytes(self.device.stat().st_size))

    @contextlib.contextmanager
    def picture(self):
        """Something is shown through the server."""
        command = self.on_panel("env", f"MC_RUNTIME_DIR={self.runtime}", self.ctl, "fill", "--size", "64x48", "--for", "600", "white")
        wait_for("the server", self.listens)
        with subprocess.Popen(command, env=self.environment) as client:
            try:
                wait_for("a picture", lambda: not self.is_black())
                yield
            finally:
                client.kill()


def program(pid):
    """Its path as it was started; nothing when it has ended."""
    with contextlib.suppress(OSError):
        return pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")[0].decode()
    return ""


def reap():
    """The servers that the script starts become this process's children, as they become those of an init."""
    with contextlib.suppress(ChildProcessError):
        while os.waitpid(-1, os.WNOHANG)[0]:
            continue


def end_all():
    """What a case that failed has left."""
    children = pathlib.Path(f"/proc/self/task/{os.getpid()}/children")
    while children.read_text():
        for pid in children.read_text().split():
            os.kill(int(pid), signal.SIGKILL)
        reap()


def ended(pid):
    try:
        return os.waitpid(pid, os.WNOHANG)[0] == pid
    except ChildProcessError:
        return not program(pid)


def life(machine):
    machine.call("status", 3, "fbserver is not running")
    machine.call("stop", 0, "")
    machine.call("start", 0, "")
    machine.call("status", 0, "fbserver is running")
    first = machine.pid()
    expect("the program of the number in the file", program(first), machine.server)
    with machine.picture():
        machine.call("start", 0, "fbserver is already running")
        expect("the number after a second start", machine.pid(), first)
        machine.call("restart", 0, "")
    second = machine.pid()
    expect("the first server after a restart", program(first), "")
    expect("the program after a restart", program(second), machine.server)
    with machine.picture():
        machine.call("stop", 0, "")
        expect("the screen is black at the end", machine.is_black(), True)
    expect("the second server after the stop", program(second), "")
    expect("files that are left", sorted(path.name for path in machine.folders["run"].iterdir()), ["mc"])
    expect("files in the runtime folder", list(machine.runtime.iterdir()), [])
    machine.call("status", 3, "fbserver is not running")
    machine.call("sing", 2, f"usage: {machine.script} {{start|stop|restart|status|run}}")
    reap()


def number_of_nobody():
    child = subprocess.Popen(["true"])
    child.wait()
    return child.pid


@contextlib.contextmanager
def bystanders(machine):
    """Processes that a number in a stale file could be those of: any program, a shell, and one of the server's name."""
    namesake = machine.folders["etc"] / "elsewhere" / "fbserver"
    namesake.parent.mkdir()
    shutil.copy(shutil.which("sleep"), namesake)
    processes = [subprocess.Popen(words, stdin=subprocess.PIPE)
                 for words in (["sleep", "infinity"], ["sh", "-c", "read -r line"], [str(namesake), "infinity"])]
    try:
        yield processes
    finally:
        for process in processes:
            process.kill()
            process.communicate()


def stale_files(machine):
    with bystanders(machine) as processes:
        for text in ("", "\n", "0\n", "-1\n", "1 2\n", "rubbish\n", f"{number_of_nobody()}\n",
                     *(f"{process.pid}\n" for process in processes)):
            for word, status, said in (("status", 3, "fbserver is not running"), ("stop", 0, "")):
                machine.pid_file.write_text(text)
                machine.call(word, status, said)
            expect(f"the file {text!r} after the stop", machine.pid_file.exists(), False)
            machine.pid_file.write_text(text)
            machine.call("start", 0, "")
            expect(f"the program after a start with the file {text!r}", program(machine.pid()), machine.server)
            machine.call("stop", 0, "")
            expect("processes of others that go on", [process.poll() for process in processes], [None] * len(processes))
            reap()
    # A server that was killed leaves its number, its socket and its lock.
    machine.call("start", 0, "")
    wait_for("the server", machine.listens)
    os.kill(machine.pid(), signal.SIGKILL)
    wait_for("its end", lambda: ended(machine.pid()))
    machine.call("status", 3, "fbserver is not running")
    machine.call("start", 0, "")
    with machine.picture():
        machine.call("stop", 0, "")
    reap()


def no_start(machine):
    machine.settings(FBSERVER=machine.folders["etc"] / "missing")
    machine.call("start", 1, f"fbserver does not start, see {machine.log}")
    machine.call("status", 3, "fbserver is not running")
    if "missing" not in machine.log.read_text():
        raise AssertionError("the log does not tell why")
    machine.settings()


def access(machine):
    """Who may connect is what the settings say; the folder and the files of others' are closed whatever the umask is."""
    group = 54321 if os.geteuid() == 0 else os.getegid()
    shutil.rmtree(machine.runtime)
    machine.log.unlink()
    machine.settings(MC_SOCKET_GROUP=group, MC_SOCKET_MODE="0620")
    before = os.umask(0)
    machine.call("start", 0, "")
    os.umask(before)
    wait_for("the server", machine.listens)
    socket = (machine.runtime / "pfb.mc").stat()
    expect("the socket's group", socket.st_gid, group)
    for path, mode in ((machine.runtime / "pfb.mc", 0o620), (machine.runtime, 0o755), (machine.pid_file, 0o644), (machine.log, 0o644)):
        expect(f"the mode of {path.name}", oct(stat.S_IMODE(path.stat().st_mode)), oct(mode))
    machine.call("stop", 0, "")
    machine.settings()
    reap()


def inittab_lines(text):
    """(id, levels, action, command) for BusyBox's init, and for System V's."""
    lines = [re.sub("^#(?=[a-z]+:)", "", line) for line in text.splitlines()]
    found = [line.split(":", 3) for line in lines if not line.startswith("#")]
    expect("lines in the inittab", len(found), 2)
    for fields in found:
        expect(f"fields of {fields}", len(fields), 4)
        expect(f"action of {fields}", fields[2], "respawn")
    (busybox_id, busybox_levels, _, _), (sysv_id, sysv_levels, _, command) = found
    # BusyBox takes the first field for a terminal and the second for nothing.
    expect("BusyBox's terminal and levels", (busybox_id, busybox_levels), ("", ""))
    expect("System V's id of up to 4 characters", bool(re.fullmatch("[a-z0-9]{1,4}", sysv_id)), True)
    expect("System V's levels", sysv_levels, "2345")
    expect("System V's limit of 127 characters", len(command) <= 127, True)
    return found


class Init:
    """What an init does with a line: both kinds have a shell run a command like these, and run it again at its end."""

    def __init__(self, machine, command):
        self.command, self.machine = command, machine
        self.process = None

    def respawn(self):
        self.process = subprocess.Popen(self.machine.on_panel("sh", "-c", "exec " + self.command),
                                        env=self.machine.environment, stdin=subprocess.DEVNULL)

    def end(self, number):
        self.process.send_signal(number)
        return self.process.wait(PATIENCE)


def inittab(machine, text):
    for kind, (_, _, _, command) in zip(("BusyBox", "System V"), inittab_lines(text)):
        expect(f"places in {kind}'s line", (command.count("/etc/init.d/fbserver"), command.count("/var/log")), (1, 1))
        machine.log.unlink(missing_ok=True)
        init = Init(machine, command.replace("/etc/init.d/fbserver", str(machine.script)).replace("/var/log", str(machine.folders["log"])))
        init.respawn()
        with machine.picture():
            expect(f"the program that {kind}'s line becomes", program(init.process.pid), machine.server)
            expect("its end", init.end(signal.SIGKILL), -signal.SIGKILL)
        machine.erase()
        init.respawn()
        with machine.picture():
            second = Init(machine, init.command)
            second.respawn()
            wait_for("an error in the log", lambda: "another server already listens" in machine.log.read_text())
            expect("the end of a second server", second.end(signal.SIGTERM), 0)
        expect("its end", init.end(signal.SIGTERM), 0)
        expect("the screen is black at the end", machine.is_black(), True)
        if "option is" not in machine.log.read_text():
            raise AssertionError(f"{kind}'s line does not keep what the server says")


def main(script, inittab_file, server, panel, ctl):
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    with tempfile.TemporaryDirectory(prefix="pfb-init-") as top:
        machine = Machine(pathlib.Path(top), script, server, panel, ctl)
        try:
            for case in (life, stale_files, no_start, access):
                case(machine)
            inittab(machine, pathlib.Path(inittab_file).read_text())
        finally:
            machine.close()
            end_all()


if __name__ == "__main__":
    main(*(os.path.abspath(path) for path in sys.argv[1:]))
