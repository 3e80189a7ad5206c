"""A small board with a package for it, for the tests that drive the command as a user would."""

import hashlib
import json
import os
import pathlib
import random
import shutil
import subprocess
import sys
import tempfile
import unittest
import warnings
import zipfile

TOP = pathlib.Path(__file__).resolve().parents[2]
SIMULATOR = TOP / "simulator"
sys.path.insert(0, str(SIMULATOR))

from simboard import slots, state  # noqa: E402

MEDIA = {"emmc": "emmc", "nand": "nand", "nor": "nor", "ubi": "nand"}  # board: word in a description
MUTATIONS = ("pwrite", "fsync", "MEMERASE64", "UBI_IOCEBER", "UBI_IOCSETVOLPROP")


def images(seed, **sizes):
    """@return a dict of name: random bytes"""
    source = random.Random(seed)
    return {name: source.randbytes(size) for name, size in (sizes or {"boot": 70_000, "system": 300_000}).items()}


def describe(contents, medium, version="V2.0.0_20240101"):
    parts = [{"name": name, "file": f"{name}.img", "medium": MEDIA[medium], "type": "ab", "method": "image",
              "md5": hashlib.md5(data).hexdigest(), "sha256": hashlib.sha256(data).hexdigest(), "size": len(data)}
             for name, data in contents.items()]
    return {"version": version, "partitions": parts}


def write_package(path, description, contents, extra=()):
    with warnings.catch_warnings(), zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as package:
        warnings.simplefilter("ignore")  # two entries of a name
        if description is not None:
            text = description if isinstance(description, str) else json.dumps(description)
            package.writestr("update.json", text)
        for name, data in [*((f"{name}.img", data) for name, data in contents.items()), *extra]:
            package.writestr(name, data)
    return path


class BoardCase(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.place = pathlib.Path(scratch.name)
        self.packages = self.place / "packages"
        self.packages.mkdir()
        self.dir = self.place / "board"

    def new(self, medium, system_size="2M"):
        bad = ["--bad", "2,4"] if medium == "nand" else []  # behind the records, which are read at a fixed place
        self.simulate("new", "--medium", medium, "--size-system", system_size, *bad)

    def pack(self, name, contents, medium, *version):
        """@return the path of a package of images, as a word of a command line"""
        return str(write_package(self.packages / name, describe(contents, medium, *version), contents))

    def expect(self, words, status, told=""):
        """Runs the command, a line or a list of words. @return what it gave"""
        result = self.tessera(*(words.split() if isinstance(words, str) else words))
        self.assertEqual(result.returncode, status, (words, result.stdout, result.stderr))
        self.assertIn(told, result.stdout + result.stderr)
        return result

    def changes_nothing(self, *words):
        """Runs the command, and fails when it changes a device. @return what it gave"""
        result, operations = self.journal(*words)
        self.assertEqual([op for op in operations if op[1] in MUTATIONS], [])
        return result

    def simulate(self, verb, *words, env=None):
        result = subprocess.run([SIMULATOR / "board", verb, self.dir, *words], capture_output=True, text=True,
                                check=False, env={**os.environ, **(env or {})}, timeout=120)
        if verb == "new":
            self.assertEqual(result.returncode, 0, result.stderr)
        return result

    def run_on_board(self, *command, env=None):
        return self.simulate("run", "--with", self.packages, "--", *command, env=env)

    def tessera(self, *words, env=None):
        return self.run_on_board("tessera", *words, env=env)

    def journal(self, *words, env=None):
        """Runs a command. @return what it gave, and its device operations, [device, kind, ...] each"""
        path = self.dir / "userdata" / "journal"
        path.unlink(missing_ok=True)
        result = self.tessera(*words, env={"TESSERA_FLASH_JOURNAL": "/userdata/journal", **(env or {})})
        return result, [line.split() for line in path.read_text().splitlines()] if path.exists() else []

    def board(self):
        return state.Board(self.dir)

    def holds(self, contents, slot):
        board = self.board()
        for name, data in contents.items():
            with board.logical_file(board.device(f"{name}_{slots.letter(slot)}")) as file:
                if file.read(len(data)) != data:
                    return False
        return True

    def keep_copy(self):
        shutil.copytree(self.dir, self.place / "kept", symlinks=True)

    def back_to_copy(self):
        shutil.rmtree(self.dir)
        subprocess.run(["cp", "-a", "--sparse=always", self.place / "kept", self.dir], check=True)


def main():
    unittest.main(verbosity=1)
