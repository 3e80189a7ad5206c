# SPDX-License-Identifier: Apache-2.0
"""A small board with a package for it, for the tests that drive the command as a user would."""

import hashlib
import json
import os
import pathlib
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import traceback
import types
import unittest
import zipfile
from importlib.machinery import SourceFileLoader

SIMULATOR = pathlib.Path(__file__).resolve().parents[2] / "simulator"
sys.path.insert(0, str(SIMULATOR))

from simboard import slots, state  # noqa: E402
from simboard.cuts import CHANGES  # noqa: E402

BOARD = types.ModuleType("board")
SourceFileLoader("board", str(SIMULATOR / "board")).exec_module(BOARD)

MEDIA = {"emmc": "emmc", "nand": "nand", "nor": "nor", "ubi": "nand"}  # board: word in a description


def images(seed, **sizes):
    """@return a dict of name: random bytes"""
    source = random.Random(seed)
    return {name: source.randbytes(size) for name, size in (sizes or {"boot": 70_000, "system": 300_000}).items()}


def describe(contents, medium, version="V2.0.0_20240101", **further):
    """@return the description of a package of these images; `further` are fields that all of them have"""
    parts = [{"name": name, "file": f"{name}.img", "medium": MEDIA[medium], "type": "ab", "method": "image",
              "md5": hashlib.md5(data).hexdigest(), "sha256": hashlib.sha256(data).hexdigest(), "size": len(data),
              **further} for name, data in contents.items()]
    return {"version": version, "partitions": parts}


def error_of(result):
    """The error object that a command printed with --json."""
    return json.loads(result.stderr.splitlines()[-1])["error"]


def be_board(words, environment, *streams):
    """Turns this forked process into the command `board`, since starting Python takes longer than most commands."""
    status = 125
    try:
        signal.alarm(120)
        for descriptor, stream in enumerate(streams):
            os.dup2(stream.fileno(), descriptor)
        _, sys.stdout, sys.stderr = streams
        os.environ.update(environment)
        sys.argv = ["board", *words]
        status = BOARD.main()
    except SystemExit as end:
        status = end.code
    except BaseException:
        traceback.print_exc()
    finally:
        sys.stdout.flush()
        sys.stderr.flush()
        os._exit(status)


class BoardCase(unittest.TestCase):
    refused = 0  # installations that expect_no_change() saw refused

    def setUp(self):
        self.place = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.dir = self.place / "board"
        self.home = self.dir / "userdata"  # what programs on the board see as /userdata

    @classmethod
    def tearDownClass(cls):
        if cls.refused:
            print(f"{cls.refused} installations were refused, and none of them changed a device")

    def new(self, medium="emmc", system_size=2 << 20):
        """A board as it leaves the factory, in place of the previous one."""
        shutil.rmtree(self.dir, ignore_errors=True)
        bad = [2, 4] if medium == "nand" else []  # after the records, which are read at a fixed place
        state.create(self.dir, state.MEDIA[medium], bad, system_size + len(bad) * state.MEDIA[medium].erase_size)

    def pack(self, name, contents, description, extra=()):
        """Packs images, their description - a dict, a text or None - and further entries into /userdata/NAME."""
        with zipfile.ZipFile(self.home / name, "w", zipfile.ZIP_DEFLATED) as package:
            if description is not None:
                text = description if isinstance(description, str) else json.dumps(description)
                package.writestr("update.json", text)
            for entry, data in [*((f"{part}.img", data) for part, data in contents.items()), *extra]:
                package.writestr(entry, data)

    def simulate(self, verb, *words, env=None):
        with (open(os.devnull) as nothing, tempfile.TemporaryFile("w+") as out, tempfile.TemporaryFile("w+") as err):
            child = os.fork()
            if child == 0:
                be_board([verb, str(self.dir), *map(str, words)], env or {}, nothing, out, err)
            status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
            for file in (out, err):
                file.seek(0)
            return subprocess.CompletedProcess(words, status, out.read(), err.read())

    def expect(self, line, status, message="", fault="", feed=""):
        """Runs the command, with the output of `feed` as its standard input. @return its result"""
        (self.home / "journal").unlink(missing_ok=True)
        words = ["sh", "-c", f"({feed}) | exec tessera {line}"] if feed else ["tessera", *line.split()]
        result = self.simulate("run", "--", *words,
                               env={"TESSERA_FLASH_FAULT": fault, "TESSERA_FLASH_JOURNAL": "/userdata/journal"})
        self.assertEqual(result.returncode, status, (line, result.stdout, result.stderr))
        self.assertIn(message, result.stdout + result.stderr)
        return result

    def operations(self):
        """The device operations of the last command, [device, kind, ...] each."""
        return [line.split() for line in (self.home / "journal").read_text().splitlines()]

    def lose_power(self, line, device, kind, number, tear=""):
        """
        Runs the command. The power fails after an operation of this kind on the device, or within it if `tear` is
        given. `number` counts these operations from 0, or backwards from -1; a run on a copy of the board determines
        its number among all operations.
        """
        kept = self.place / "rehearsed"
        shutil.copytree(self.dir, kept)
        self.expect(line, 0)
        matches = [at for at, operation in enumerate(self.operations(), 1) if operation[:2] == [device, kind]]
        shutil.rmtree(self.dir)
        kept.rename(self.dir)
        self.expect(line, 128 + signal.SIGKILL, "the power fails", f"cut {matches[number]} {tear} kill")

    def expect_no_change(self, line, status, message=""):
        """Runs the command, and fails if it changes a device. @return its result"""
        result = self.expect(line, status, message)
        type(self).refused += line.startswith("install ") and status != 0
        self.assertEqual([op for op in self.operations() if op[1] in CHANGES and op[1] != "fsync"], [])
        return result

    def firmware(self, version):
        """@return firmware images that show this version, by partition"""
        place = self.place / f"firmware{version}"
        subprocess.run([SIMULATOR / "make_firmware", place, "--version", str(version)], check=True)
        return {path.stem: path.read_bytes() for path in place.iterdir()}

    def rename_partition(self, name, other):
        devices = self.dir / "devices"
        devices.write_text(devices.read_text().replace(f"{name} ", f"{other} ", 1))
        (self.dir / "partitions" / name).rename(self.dir / "partitions" / other)

    def board(self):
        return state.Board(self.dir)

    def damage_slot_block(self):
        with open(self.board().backing(self.board().device("misc")), "r+b") as misc:
            misc.seek(slots.OFFSET + slots.SIZE - 1)
            misc.write(b"!")

    def holds(self, contents, slot):
        board = self.board()
        for name, data in contents.items():
            with board.logical_file(board.device(f"{name}_{slots.letter(slot)}")) as file:
                if file.read(len(data)) != data:
                    return False
        return True
