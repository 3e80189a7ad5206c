# SPDX-License-Identifier: Apache-2.0
"""A machine in QEMU that waits for commands, is saved once, and continues from there in about a second."""

import atexit
import json
import pathlib
import socket
import subprocess
import tempfile
import time

QEMU = "qemu-system-x86_64"
MEMORY = 160  # MiB
CONTENTS = "contents"  # the disk's block device, for -blockdev
COMMAND_TIMEOUT = 300  # s
COMMAND_LINE = "console=ttyS0 quiet panic=-1 no_timer_check"  # the emulator's timer is late on a busy host


class MachineError(Exception):
    pass


class Machine:
    """
    A running guest. It executes shell commands that arrive on its second serial port (guest_init). The first one is the
    console, in the file `console`. `backing` describes the disk's contents as for -blockdev.
    """

    def __init__(self, kernel, initrd, backing, saved=None):
        self.directory = tempfile.TemporaryDirectory(prefix="machine.")
        place = pathlib.Path(self.directory.name)
        self.console = place / "console"
        listener = listen(place / "commands")
        control = listen(place / "control")
        command = [QEMU, "-M", "q35", "-accel", "tcg", "-cpu", "max", "-m", str(MEMORY), "-smp", "1", "-nodefaults",
                   "-no-user-config", "-display", "none", "-no-reboot",
                   "-serial", f"file:{self.console}", "-serial", f"unix:{place / 'commands'}",
                   "-qmp", f"unix:{place / 'control'}",
                   "-blockdev", json.dumps(backing | {"node-name": CONTENTS}),
                   "-device", f"virtio-blk-pci,drive={CONTENTS},addr=4",
                   "-kernel", str(kernel), "-initrd", str(initrd), "-append", COMMAND_LINE]
        command += ["-incoming", f"exec:cat {saved}"] if saved else []
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL)
        atexit.register(self.process.kill)
        self.commands, self.control = self.accept(listener), self.accept(control).makefile("rw")
        self.control.readline()
        self.pending = b""
        self.ask("qmp_capabilities")
        while self.ask("query-status")["status"] == "inmigrate":  # what is sent to it now would be lost
            time.sleep(0.005)

    def accept(self, listener):
        listener.settimeout(COMMAND_TIMEOUT)
        with listener:
            connection = listener.accept()[0]
        connection.settimeout(COMMAND_TIMEOUT)
        return connection

    def read_line(self):
        while b"\n" not in self.pending:
            part = self.commands.recv(65536)
            if not part:
                raise MachineError("the machine ended: " + self.console.read_text(errors="replace")[-2000:])
            self.pending += part
        line, _, self.pending = self.pending.partition(b"\n")
        return line.decode(errors="replace").rstrip("\r")

    def wait_ready(self):
        while self.read_line() != "ready":
            pass

    def send(self, command):
        """Starts a command, one line of shell, without waiting for its end."""
        self.commands.sendall(command.encode() + b"\n")

    def result(self):
        """@return the exit status and the output of the command that was sent last"""
        lines = []
        while not (line := self.read_line()).startswith("= "):
            lines.append(line)
        return int(line[2:]), "\n".join(lines)

    def run(self, command):
        self.send(command)
        return self.result()

    def save(self, path):
        """Saves the machine's memory and devices to a file. Only kill() is of use afterwards."""
        self.ask("migrate-set-parameters", **{"max-bandwidth": 1 << 34})
        self.ask("migrate", uri=f"exec:cat >{path}")
        while (status := self.ask("query-migrate")["status"]) != "completed":
            if status == "failed":
                raise MachineError("the machine cannot be saved")
            time.sleep(0.02)

    def ask(self, command, **arguments):
        self.control.write(json.dumps({"execute": command, "arguments": arguments}) + "\n")
        self.control.flush()
        while "return" not in (answer := json.loads(self.control.readline())):
            if "error" in answer:
                raise MachineError(f"{command}: {answer['error']['desc']}")
        return answer["return"]

    def kill(self):
        """The power fails."""
        self.process.kill()
        self.process.wait()
        atexit.unregister(self.process.kill)
        for end in (self.commands, self.control):
            end.close()
        self.directory.cleanup()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.kill()


def listen(path):
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(str(path))
    listener.listen(1)
    return listener


class SavedMachine:
    """A machine that has started its kernel and waits for commands; any number of machines continue from there."""

    def __init__(self, kernel, initrd, path):
        self.kernel, self.initrd, self.path = kernel, initrd, path
        with Machine(kernel, initrd, {"driver": "null-co", "size": 1 << 20}) as machine:
            machine.wait_ready()
            machine.save(path)

    def start(self, backing):
        return Machine(self.kernel, self.initrd, backing, self.path)
