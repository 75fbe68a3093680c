#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""check_init.py SCRIPT INITTAB SERVER PANEL CTL - the start-up script, under each shell that is there, and the lines for an
inittab, with the built server on a virtual panel, below a folder of their own: only the paths of the script's settings, its
log and itself are other ones."""
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
        self.shell = []  # the words before the script's name; none: the system's sh
        self.folders = {name: top / name for name in ("panels", "run", "log", "etc")}
        for folder in self.folders.values():
            folder.mkdir(mode=0o700)
        self.script = self.folders["etc"] / "fbserver"
        self.settings_file = self.folders["etc"] / "default"
        self.pid_file = self.folders["run"] / "fbserver.pid"
        self.watch_file = self.folders["run"] / "fbserver.pid.watch"
        self.log = self.folders["log"] / "fbserver.log"
        self.pauses = self.folders["log"] / "pauses"
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

    def settings(self, sleep="", **more):
        """`sleep` is what the script's shell then does for it, with $1, in a process of its own."""
        known = {"FBSERVER": self.server, "FBSERVER_LOG": self.log, "FBSERVER_PID": self.pid_file, "MC_RUNTIME_DIR": self.runtime}
        text = "".join(f"{name}='{value}'\n" for name, value in (known | more).items())
        self.settings_file.write_text(text + (sleep and f"sleep() {{ echo $1 >> {self.pauses}; {sleep}; }}\n"))
        self.pauses.write_text("")

    def on_panel(self, *words):
        """The command that runs something where the server finds the panel's devices."""
        return [self.panel_program, "run", "--panel", str(self.folders["panels"] / "pfbpanel-init"), "--", *words]

    def run(self, word):
        return subprocess.run(self.on_panel(*self.shell, str(self.script), word), env=self.environment, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, timeout=PATIENCE)

    def call(self, word, status, text):
        """`word` of the script: it ends with `status` and says `text`."""
        done = self.run(word)
        expect(f"what {word!r} says", done.stdout, text and text + "\n")
        expect(f"the status of {word!r}", done.returncode, status)

    def listens(self):
        return f" {self.runtime}/pfb.mc" in "".join(
            line for line in open("/proc/net/unix", encoding="utf-8") if " 00010000 " in line)

    def pid(self):
        return int(self.pid_file.read_text())

    def watcher(self):
        """The shell that starts the server again."""
        return int(self.watch_file.read_text().split()[0])

    def next_server(self, last):
        """The number of the one after `last`, once it is there."""
        wait_for("another server", lambda: program(self.number()) == self.server and self.number() != last)
        return self.number()

    def number(self):
        with contextlib.suppress(OSError, ValueError):
            return self.pid()
        return 0

    def paused(self):
        """How long the shell has waited each time before it started the server again; what the script waits for is 0.1."""
        return [text for text in self.pauses.read_text().split() if text != "0.1"]

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


def processes():
    """All children of this process and of theirs."""
    found = []
    for pid in pathlib.Path(f"/proc/self/task/{os.getpid()}/children").read_text().split():
        found.append(int(pid))
        with contextlib.suppress(OSError):
            found.extend(int(text) for text in pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split())
    return sorted(found)


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
        before = processes()
        machine.call("start", 0, "fbserver is already running")
        expect("the number after a second start", machine.pid(), first)
        expect("processes after a second start", processes(), before)
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
    expect("the log has no other start", "started again" in machine.log.read_text(), False)
    machine.call("status", 3, "fbserver is not running")
    machine.call("stop", 0, "")
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
    namesake.parent.mkdir(exist_ok=True)
    shutil.copy(shutil.which("sleep"), namesake)
    processes = [subprocess.Popen(words, stdin=subprocess.PIPE)
                 for words in (["sleep", "infinity"], ["sh", "-c", "read -r line"], [str(namesake), "infinity"])]
    try:
        yield processes
    finally:
        for process in processes:
            process.kill()
            process.communicate()


def identity(pid):
    """What the script knows a process by: its number, the moment in which it was started, and the boot that this was in."""
    start = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(") ")[2].split()[19]
    return pid, start, pathlib.Path("/proc/sys/kernel/random/boot_id").read_text().strip()


def stale_watch_files(machine, others):
    pid, start, boot = identity(others[0].pid)
    for text in ("", "\n", "0\n", "-1\n", "rubbish\n", f"{number_of_nobody()}\n", f"self {start} {boot}\n", f"{pid}\n",
                 f"{pid} {int(start) - 1} {boot}\n", f"{pid} {start} {boot[::-1]}\n"):
        machine.watch_file.write_text(text)
        machine.call("status", 3, "fbserver is not running")
        machine.call("stop", 0, "")
        expect(f"the file {text!r} after the stop", machine.watch_file.exists(), False)
        machine.watch_file.write_text(text)
        machine.call("start", 0, "")
        expect(f"the new file after {text!r}", machine.watch_file.read_text(), "{} {} {}\n".format(*identity(machine.watcher())))
        machine.call("stop", 0, "")
        expect("processes of others that go on", [process.poll() for process in others], [None] * len(others))
        reap()


def stale_files(machine):
    quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
    with bystanders(machine) as others, subprocess.Popen([machine.server, "1", "2", "3", "4"], **quiet) as zombie:
        wait_for("a zombie", lambda: not program(zombie.pid))
        for text in ("", "\n", "0\n", "-1\n", "1 2\n", "rubbish\n", f"{number_of_nobody()}\n", f"{zombie.pid}\n",
                     *(f"{process.pid}\n" for process in others)):
            for word, status, said in (("status", 3, "fbserver is not running"), ("stop", 0, "")):
                machine.pid_file.write_text(text)
                machine.call(word, status, said)
            expect(f"the file {text!r} after the stop", machine.pid_file.exists(), False)
            machine.pid_file.write_text(text)
            machine.call("start", 0, "")
            expect(f"the program after a start with the file {text!r}", program(machine.pid()), machine.server)
            machine.call("stop", 0, "")
            expect("processes of others that go on", [process.poll() for process in others], [None] * len(others))
        stale_watch_files(machine, others)
    reap()


def killed(machine):
    """It is back each time, and the picture with it, until it is stopped."""
    machine.log.unlink()
    machine.call("start", 0, "")
    watcher, pid = machine.watcher(), machine.pid()
    pids = {pid}
    with machine.picture():
        for times in range(1, 4):
            machine.erase()
            os.kill(pid, signal.SIGKILL)
            pid = machine.next_server(pid)
            pids.add(pid)
            wait_for("the picture", lambda: not machine.is_black())
            machine.call("status", 0, "fbserver is running")
            expect("who starts it again", machine.watcher(), watcher)
            expect("starts that the log tells of",
                   machine.log.read_text().count(f"started again, after an end with status {128 + 9}"), times)
        machine.call("restart", 0, "")
        pids.add(machine.pid())
        machine.call("stop", 0, "")
        expect("the screen is black at the end", machine.is_black(), True)
    expect("different servers", len(pids), 5)
    expect("servers that are left", [pid for pid in pids if program(pid)], [])
    machine.call("status", 3, "fbserver is not running")
    machine.call("stop", 0, "")
    reap()


def orderly_end(machine):
    """It is not started again after status 0."""
    machine.log.unlink()
    machine.call("start", 0, "")
    wait_for("the server", machine.listens)
    watcher = machine.watcher()
    os.kill(machine.pid(), signal.SIGTERM)
    wait_for("the end of the shell", lambda: ended(watcher))
    machine.call("status", 3, "fbserver is not running")
    expect("the log has no other start", "started again" in machine.log.read_text(), False)
    machine.call("start", 0, "")
    machine.call("stop", 0, "")
    reap()


def stop_in_the_pause(machine):
    """Nothing is started any more, and nothing is left of the pause."""
    machine.log.unlink()
    real = shutil.which("sleep")
    for word in ("stop", "restart"):
        before = processes()
        machine.settings(sleep=f"[ $1 = 0.1 ] || exec {real} 600; exec {real} 0.1")
        machine.call("start", 0, "")
        pid, watcher = machine.pid(), machine.watcher()
        os.kill(pid, signal.SIGKILL)
        wait_for("the pause", lambda: machine.paused() == ["0.05"])
        machine.call("status", 3, "fbserver is being started again")
        machine.call("start", 0, "fbserver is already being started again")
        expect("the number in the pause", machine.pid(), pid)
        machine.call(word, 0, "")
        expect("the shell has ended", ended(watcher), True)
        expect("the log has no other start", "started again" in machine.log.read_text(), False)
        if word == "stop":
            machine.call("status", 3, "fbserver is not running")
            reap()
            expect("processes after a stop", processes(), before)
    expect("another server after the restart", machine.pid() != pid, True)
    machine.call("stop", 0, "")
    machine.settings()
    reap()


def nobody_watches(machine):
    """The shell that starts the server again was killed."""
    machine.call("start", 0, "")
    with machine.picture():
        server, watcher = machine.pid(), machine.watcher()
        os.kill(watcher, signal.SIGKILL)
        wait_for("its end", lambda: not program(watcher))  # nobody has asked for its status
        machine.call("status", 0, "fbserver is running, but nothing starts it again")
        machine.call("start", 0, "fbserver is already running, but nothing starts it again: restart it")
        expect("the server goes on", (machine.pid(), program(server)), (server, machine.server))
        reap()
        machine.call("restart", 0, "")
        expect("another server after a restart", machine.pid() != server, True)
        machine.call("status", 0, "fbserver is running")
        os.kill(machine.watcher(), signal.SIGKILL)
        machine.call("stop", 0, "")
        expect("the screen is black at the end", machine.is_black(), True)
    machine.call("status", 3, "fbserver is not running")
    expect("files that are left", sorted(path.name for path in machine.folders["run"].iterdir()), ["mc"])
    reap()
    # Both were killed: numbers, socket and lock are left.
    machine.call("start", 0, "")
    wait_for("the server", machine.listens)
    server, watcher = machine.pid(), machine.watcher()
    for pid in (watcher, server):
        os.kill(pid, signal.SIGKILL)
        wait_for("its end", lambda number=pid: not program(number))
    machine.call("status", 3, "fbserver is not running")
    machine.call("start", 0, "")
    with machine.picture():
        machine.call("stop", 0, "")
    reap()


def pauses(machine):
    """Servers that end at once are started less and less often; one that has lived is started at once again."""
    real = shutil.which("sleep")
    machine.settings(sleep=f"exec {real} 0.02", FBSERVER_ARGS="1 2 3 4")
    done = machine.run("start")
    if done.returncode != 0:  # it was not there whenever the script looked
        expect("what the start says", done.stdout, f"fbserver does not stay, see {machine.log}; it is started again until it does\n")
    wait_for("several pauses", lambda: len(machine.paused()) >= 7)
    expect("the first pauses", machine.paused()[:7], ["0.05", "0.2", "0.5", "1", "2", "5", "5"])
    machine.call("stop", 0, "")
    machine.settings(sleep=f"exec {real} 0.02")
    machine.call("start", 0, "")
    pid = machine.pid()
    while machine.paused()[-1:] in ([], ["0.05"]):
        os.kill(pid, signal.SIGKILL)
        pid = machine.next_server(pid)
    time.sleep(3)  # is long enough
    os.kill(pid, signal.SIGKILL)
    machine.next_server(pid)
    expect("the pause after a server that has lived", machine.paused()[-1], "0.05")
    machine.call("stop", 0, "")
    machine.settings()
    reap()


def whole_seconds(machine):
    """Where sleep takes no fractions, a second is waited instead."""
    machine.settings(sleep=f"[ $1 = 1 ] && exec {shutil.which('sleep')} 1; echo invalid number >&2; exit 1")
    machine.call("start", 0, "")
    os.kill(machine.pid(), signal.SIGKILL)
    machine.next_server(machine.pid())
    machine.call("stop", 0, "")
    tried = machine.pauses.read_text().split()
    expect("pauses", (tried[::2], tried[1::2]), ([text for text in tried if text != "1"], ["1"] * (len(tried) // 2)))
    machine.settings()
    reap()


def no_start(machine):
    machine.settings(FBSERVER=machine.folders["etc"] / "missing")
    machine.call("start", 1, f"fbserver does not start, see {machine.log}")
    machine.call("status", 3, "fbserver is not running")
    expect("the shell has not stayed", program(machine.watcher()), "")
    reap()
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


def shells():
    """The system's sh, as the script's first line has it, and those that are there beside it."""
    found = [[]]
    if shutil.which("dash") and os.path.realpath("/bin/sh") != os.path.realpath(shutil.which("dash")):
        found.append(["dash"])
    if shutil.which("busybox"):
        found.append(["busybox", "sh"])
    return found


def main(script, inittab_file, server, panel, ctl):
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    with tempfile.TemporaryDirectory(prefix="pfb-init-") as top:
        machine = Machine(pathlib.Path(top), script, server, panel, ctl)
        try:
            for machine.shell in shells():
                for case in (life, stale_files, killed, orderly_end, stop_in_the_pause, nobody_watches, pauses, whole_seconds,
                             no_start, access):
                    case(machine)
            inittab(machine, pathlib.Path(inittab_file).read_text())
        finally:
            machine.close()
            end_all()


if __name__ == "__main__":
    main(*(os.path.abspath(path) for path in sys.argv[1:]))
