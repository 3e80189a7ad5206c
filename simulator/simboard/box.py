# SPDX-License-Identifier: Apache-2.0
"""Runs a program in a sandbox that looks like the board and reaches nothing else (bubblewrap)."""

import os
import pathlib
import selectors
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time

from . import BoardError

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
BY_NAME = "/dev/block/platform/by-name"
FLASH_CONF = "/board/flash.conf"
POWER = "/board/power"
POWER_STATE = struct.Struct("=QQ")  # number of device operations; whether the power has failed and ended the programs
COMPATIBLE = "/sys/firmware/devicetree/base/compatible"
# Directories that the board replaces with its own, so that it sees nothing of the host's.
OWN_DIRECTORIES = {"board", "dev", "proc", "run", "sys", "tmp", "userdata", "usr"}
SYSLOG_LEVELS = ("emerg", "alert", "crit", "err", "warning", "notice", "info", "debug")


def run(board, command, build, extra):
    """Runs a command in the foreground: Ctrl-C is for it alone. @return its exit status, as execute() does"""
    before = signal.signal(signal.SIGINT, signal.SIG_IGN)
    try:
        return execute(board, command, build, extra)
    finally:
        signal.signal(signal.SIGINT, before)


def execute(board, command, build=None, extra=(), variables=None, files=(), limit=None, **options):
    """
    Runs a command on the board.
    @param variables  further environment variables
    @param files  (file of the host, its name on the board) pairs that the command may write to
    @param limit  seconds after which it is killed, and BoardError is raised; None: no limit
    @param options  of subprocess.Popen, such as stdout
    @return the exit status of the command; 128 plus the signal number if a signal or the failing power ended it
    """
    if shutil.which("bwrap") is None:
        raise BoardError("bwrap is missing: install bubblewrap")
    build = (build or pathlib.Path(os.environ.get("TESSERA_BUILD", REPOSITORY / "build" / "release"))).resolve()
    with tempfile.TemporaryDirectory() as scratch, socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as syslog:
        log_socket, power = pathlib.Path(scratch) / "log", pathlib.Path(scratch) / "power"
        syslog.bind(str(log_socket))
        power.write_bytes(bytes(POWER_STATE.size))
        box = ["bwrap", "--unshare-all", "--unshare-user", "--uid", "0", "--gid", "0", "--hostname", "board"]
        box += ["--die-with-parent", *host_view(), *board_view(board), *shown_paths([build, *extra])]
        for file, name in [(log_socket, "/dev/log"), (power, POWER), *files]:
            box += ["--bind", file, name]
        box += ["--remount-ro", "/", *environment(build, variables or {})]
        # The sandbox must outlive the program that Ctrl-C ends, to report its exit status.
        box += ["--", "/usr/bin/env", "--default-signal=INT", "--", *command]
        with open(board.dir / "log", "a") as log:
            with subprocess.Popen(box, **options) as process:
                try:
                    status = wait(process, syslog, log, limit)
                finally:
                    process.kill()  # if an exception ends the wait
        # A script can outlive its programs that the failing power ended, and even succeed.
        return 128 + signal.SIGKILL if POWER_STATE.unpack(power.read_bytes())[1] else status


def host_view():
    """The host's programs and libraries, read-only. /usr is bound entry by entry, because /usr/velox is the board's."""
    own = OWN_DIRECTORIES | {"velox"}
    entries = [entry for top in ("/", "/usr") for entry in os.scandir(top) if entry.name not in own]
    return [word for entry in sorted(entries, key=lambda entry: entry.path) for word in mirrored(entry)]


def mirrored(entry):
    if entry.is_symlink():
        return ["--symlink", os.readlink(entry.path), entry.path]
    return ["--ro-bind-try", entry.path, entry.path] if entry.is_dir() else []


def board_view(board):
    own = {"/board/efuse": "efuse", "/board/state": "state", "/run": "run", "/tmp": "tmp",
           "/userdata": "userdata"}
    view = ["--proc", "/proc", "--ro-bind", board.dir / "cmdline", "/proc/cmdline", "--dev", "/dev"]
    view += ["--dir", "/sys"]
    view += ["--ro-bind-try", board.dir / "compatible", COMPATIBLE]
    view += ["--ro-bind", board.dir / "velox", "/usr/velox", "--ro-bind", board.dir / "flash.conf", FLASH_CONF]
    view += [word for path, directory in own.items() for word in ("--bind", board.dir / directory, path)]
    for device in board.devices:
        view += ["--dev-bind", board.backing(device), device.node, "--symlink", device.node, f"{BY_NAME}/{device.name}"]
    return view


def shown_paths(paths):
    """Those of the current directory and `paths` that a directory of the board would hide."""
    here = pathlib.Path.cwd()
    hidden = [path for path in (here, REPOSITORY, *(path.resolve() for path in paths)) if is_hidden(path)]
    view = [word for path in hidden if len(path.parts) > 2 for word in ("--ro-bind-try", path, path)]
    return [*view, "--chdir", "/" if is_hidden(here) and len(here.parts) == 2 else here]


def is_hidden(path):
    return path.parts[1:2] and path.parts[1] in OWN_DIRECTORIES - {"usr"}


def environment(build, further):
    libraries = ":".join(str(build / part) for part in ("src", "platform/liblog", "platform/efuse"))
    variables = {
        "PATH": f"{build}/tool:{os.environ.get('PATH', '/usr/bin:/bin')}",
        "LD_LIBRARY_PATH": joined(libraries, os.environ.get("LD_LIBRARY_PATH")),
        "LD_PRELOAD": joined(device_simulator(build), os.environ.get("LD_PRELOAD")),
        # The device simulator comes before the sanitizer runtime, which only has to precede the C library.
        "ASAN_OPTIONS": joined("verify_asan_link_order=0", os.environ.get("ASAN_OPTIONS")),
        "TESSERA_EFUSE_FILE": "/board/efuse/counters",
        "TESSERA_FLASH_CONF": FLASH_CONF,
        "TMPDIR": "/tmp",  # the host's may be a directory that the board does not have
        "TESSERA_FLASH_POWER": POWER,
        **further,
    }
    return [word for name, value in variables.items() for word in ("--setenv", name, value)]


def joined(first, second):
    return f"{first}:{second}" if second else str(first)


def device_simulator(build):
    library = pathlib.Path(os.environ.get("TESSERA_FLASH_LIBRARY", build / "simulator" / "libtessera_flash.so"))
    if not library.exists():
        raise BoardError(f"there is no {library} to simulate the devices: build the project first")
    return library.resolve()


def wait(box, syslog, log, limit):
    """Stores the system log until the sandbox has ended, then the entries still queued. @return the exit status"""
    ended = os.pidfd_open(box.pid)
    end, expired = limit and time.monotonic() + limit, False
    with selectors.DefaultSelector() as ready:
        ready.register(ended, selectors.EVENT_READ)
        ready.register(syslog, selectors.EVENT_READ)
        while ended not in [key.fd for key, _ in ready.select(end and max(0.1, end - time.monotonic()))]:
            keep_entries(syslog, log)
            if end and time.monotonic() >= end and not expired:
                expired = True
                box.kill()  # whatever runs in the sandbox dies with it
    os.close(ended)
    keep_entries(syslog, log)
    status = box.wait()
    if expired:
        raise BoardError(f"a command has not ended after {limit} s")
    return status if status >= 0 else 128 - status


def keep_entries(syslog, log):
    """Moves the queued entries, "<priority>text", to the log, one line each."""
    while True:
        try:
            entry = syslog.recv(65536, socket.MSG_DONTWAIT).decode(errors="replace")
        except BlockingIOError:
            break
        priority, _, text = entry.partition(">")
        log.write(f"{SYSLOG_LEVELS[int(priority[1:]) & 7]:7} {text.rstrip()}\n")
    log.flush()
