# SPDX-License-Identifier: Apache-2.0
"""Campaigns of power cuts: commands that do not survive them are found, and what cannot be cut is refused."""

import hashlib
import os
import pathlib
import shlex
import signal
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "install"))

from bench_board import SIMULATOR, BoardCase, describe, images  # noqa: E402

WRITE = "tessera slots mark-bad b; dd if=/userdata/system.img of=$AT/system_b bs=64k status=none"
SCRIPTS = {
    "install": "tessera install /userdata/new.zip",
    "synced": f"{WRITE}; sync; tessera slots set-next b --yes",
    "unsynced": f"{WRITE}; tessera slots set-next b --yes",
    "switched_first": "tessera slots set-next b && dd if=/userdata/system.img of=$AT/system_b bs=64k conv=fsync",
    "in_place": "dd if=/userdata/system.img of=$AT/system_a bs=64k conv=fsync",
    "mapped": """tessera slots mark-bad b; /usr/bin/python3 -c 'import mmap, sys
with open(sys.argv[1], "r+b") as file, mmap.mmap(file.fileno(), 0) as disk: disk[0] ^= 1' $AT/boot_b""",
    "reading": "tessera slots; sync $AT/boot_b",
    "failing": "echo reason >&2; exit 3",
    "begun": "tessera status set update burn",
}


class CutTest(BoardCase):
    def new(self):
        super().new()
        image = images(3, system=300_000)
        self.pack("new.zip", image, describe(image, "emmc"))
        (self.home / "system.img").write_bytes(image["system"])
        self.expect("status set owner none", 0)  # a valid status: no update is under way
        for name, text in SCRIPTS.items():
            (self.home / name).write_text(f"AT=/dev/block/platform/by-name\n{text}\n")

    def cut(self, script, *words):
        return self.simulate("cut", *words, "--", "sh", f"/userdata/{script}")

    def digest(self):
        files = sorted(path for path in self.dir.rglob("*") if path.is_file())
        return [(path, hashlib.md5(path.read_bytes()).digest()) for path in files]

    def test_verdicts(self):
        cases = [  # command, options, status, what is reported
            ("install", ["--every", "20"], 0, r"passed: after each of \d+ of \d+ power cuts"),
            ("synced", ["--every", "9", "--no-status"], 0, "passed"),
            ("synced", ["--every", "3"], 1, "slot b has no update under way according to tessera status"),
            ("unsynced", ["--every", "20", "--no-status"], 1, "boots without what the undisturbed command installs"),
            ("switched_first", ["--every", "3", "--no-status"], 1, "slot b boots, .* not whole: system_b damaged"),
            ("in_place", ["--every", "9", "--no-status"], 1, "slot a boots, but it is not whole: system_a damaged"),
            ("mapped", [], 1, "board: the command changes boot_b in a way that the simulator cannot see"),
            ("reading", [], 1, "board: the command changes no device"),
            ("failing", [], 1, "board: the command fails without a power cut, with status 3\nreason"),
            ("begun", [], 1, "board: after the command, tessera status does not report: .*\nhint: --no-status"),
            ("install", ["--only", "9999"], 1, "board: the command has no power cut '9999'"),
            ("install", ["--keep", "/"], 1, "board: / exists already"),
            ("install", ["--keep", "/no/board"], 1, "board: there is no directory /no"),
        ]
        self.new()
        before = self.digest()
        for script, options, status, words in cases:
            with self.subTest(script=script, options=options):
                result = self.cut(script, *options)
                self.assertRegex(result.stdout + result.stderr, words)
                self.assertEqual(result.returncode, status)
                self.assertEqual(result.stdout.count("FAILED: "), not words.startswith(("board: ", "passed")))
        self.assertEqual(self.digest(), before)

    def test_an_unconfirmed_board(self):
        self.new()
        self.expect("install /userdata/new.zip", 0)
        self.simulate("reboot")
        self.pack("next.zip", images(4), describe(images(4), "emmc", "V3.0"))
        result = self.simulate("cut", "--", "tessera", "install", "/userdata/next.zip")
        self.assertRegex(result.stderr, "(?s)fails without a power cut.*hint: tessera confirm")

    def test_a_failing_board_is_kept(self):
        self.new()
        kept = self.place / "kept"
        output = self.cut("in_place", "--every", "9", "--no-status", "--keep", kept).stdout
        system = "partitions/system_a"
        self.assertNotEqual((kept / system).read_bytes(), (self.dir / system).read_bytes())
        words = shlex.split(output.rpartition("again: ")[2])
        path = f"PATH={SIMULATOR}:{os.environ['PATH']}"
        again = subprocess.run(["env", path, *words], capture_output=True, text=True, check=False)
        self.assertEqual(again.returncode, 1, again.stderr)
        self.assertRegex(again.stdout, "(?s)board# sh /userdata/in_place.*slot a boots.*FAILED: 1 of 1")

    def test_an_interrupted_campaign(self):
        signal.signal(signal.SIGINT, signal.default_int_handler)  # ignored where a shell runs the test with "&"
        self.new()
        command = [SIMULATOR / "board", "cut", self.dir, "--", "sh", "/userdata/install"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as campaign:
            self.assertIn("0 of ", campaign.stderr.readline())
            campaign.send_signal(signal.SIGINT)
            self.assertRegex(campaign.stdout.read(), r"interrupted after \d+ power cuts, 0 failed: no verdict\n$")
        self.assertEqual(campaign.returncode, 130)


unittest.main()
