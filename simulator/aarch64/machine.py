# SPDX-License-Identifier: Apache-2.0
"""The board under power: QEMU with the disk, a console, and a server of packages that only the board can reach."""

import os
import re
import select
import subprocess
import time

from . import MachineError
from .parts import FIRMWARE

PROMPT = r"slot ([ab]) # $"
UNWANTED = "\r|\x1b\\[6n"  # the shell asks the terminal for the position of its cursor
PACKAGES_URL = "http://10.0.2.100"  # for programs on the board


def command(disk, packages, *console):
    """The emulator. `packages` is a directory: for each request of the board one server is started, without a port on
    this machine."""
    server = f"cmd:busybox httpd -i -h {packages}".replace(",", ",,")
    return ["qemu-system-aarch64", "-M", "virt", "-cpu", "cortex-a53", "-m", "512", "-nodefaults", "-display", "none",
            "-bios", str(FIRMWARE), "-drive", f"file={disk},if=none,format=raw,id=disk",
            "-device", "virtio-blk-device,drive=disk", "-device", "virtio-net-device,netdev=net",
            "-netdev", f"user,id=net,restrict=on,guestfwd=tcp:10.0.2.100:80-{server}", *console]


class Machine:
    """A board that is switched on, with its console in the hands of a program."""

    def __init__(self, disk, packages, limit=180):
        """@param limit  seconds that the board may take for one step"""
        self.limit = limit
        self.seen = ""  # what the console showed since the last step
        self.process = subprocess.Popen(command(disk, packages, "-serial", "stdio"), stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.cut()

    def cut(self):
        """Takes the power away."""
        self.process.kill()
        self.process.wait()

    def wait_for(self, pattern):
        """@return the match. What the console has shown up to its end is removed from `seen`."""
        deadline = time.monotonic() + self.limit
        while not (match := re.search(pattern, self.seen)):
            ready, _, _ = select.select([self.process.stdout], [], [], max(0, deadline - time.monotonic()))
            data = os.read(self.process.stdout.fileno(), 65536) if ready else b""
            if not data:
                raise MachineError(f"no {pattern!r} on the console of the board:\n{self.seen[-3000:]}")
            self.seen = re.sub(UNWANTED, "", self.seen + data.decode(errors="replace"))
        self.seen = self.seen[match.end():]
        return match

    def wait_for_boot(self):
        """@return the slots that U-Boot tried, such as "ba"; the last one has come up and shows its prompt"""
        match = self.wait_for(rf"(?s)^(.*\ntessera: slot [ab]\n.*){PROMPT}")
        tried = "".join(re.findall("^tessera: slot ([ab])$", match[1], re.M))
        if tried[-1:] != match[2]:
            raise MachineError(f"U-Boot tried {tried}, and slot {match[2]} came up")
        return tried

    def run(self, line):
        """Types a line. @return its status, and what it printed"""
        self.type(f"echo $((0))begin; {line}; echo $((0))end $?")
        self.wait_for("0begin\n")
        match = self.wait_for(r"(?s)^(.*)0end (\d+)\n")
        self.wait_for(PROMPT)
        return int(match[2]), match[1]

    def reboot(self):
        """@return as wait_for_boot()"""
        self.type("reboot")
        return self.wait_for_boot()

    def type(self, line):
        self.process.stdin.write(f"{line}\n".encode())
        self.process.stdin.flush()
