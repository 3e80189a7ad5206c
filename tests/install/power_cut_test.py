# SPDX-License-Identifier: Apache-2.0
"""
The power fails at an operation of a whole installation, or of the confirmation after it, on every medium. After
each cut the board boots a whole system; then another installation succeeds, and the slot that it reports boots
next.

usage: power_cut_test.py MEDIUM [every [JOBS]]

Without `every` only some of the cuts are made.
"""

import os
import subprocess
import sys
import unittest

from bench_board import SIMULATOR, BoardCase, describe, images

MEDIUM, *ASKED = sys.argv[1:]
sys.argv[1:] = []
JOBS = ASKED[1] if ASKED[1:] else str(os.cpu_count())
SOME = {"emmc": (8, 3), "nand": (40, 8), "nor": (40, 8), "ubi": (40, 8)}  # one of so many installations, confirmations
THINNED = 3 if os.environ.get("SANITIZE") else 1  # the command does the same under the sanitizers, only slower
EVERY = (1, 1) if ASKED else [THINNED * every for every in SOME[MEDIUM]]
INSTALL = "install /userdata/new.zip"


class PowerCutTest(BoardCase):
    def setUp(self):
        super().setUp()
        old, self.contents = images(1, vbmeta=70_000, uboot=150_000), images(2, vbmeta=70_000, uboot=300_000)
        self.new(MEDIUM)
        self.pack("old.zip", old, describe(old, MEDIUM, "V1.5.0"))
        self.pack("new.zip", self.contents, describe(self.contents, MEDIUM))
        self.expect("install /userdata/old.zip", 0)
        self.simulate("reboot")
        self.expect("confirm", 0)

    def cut_everywhere(self, every, *words):
        jobs = JOBS if ASKED else "1"
        command = [SIMULATOR / "board", "cut", self.dir, "--every", str(every), "--jobs", jobs, *words]
        result = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=False)
        print(f"{MEDIUM}: {result.stdout}")
        self.assertEqual(result.returncode, 0)

    def test_installation(self):
        self.cut_everywhere(EVERY[0], "--", "tessera", *INSTALL.split())

    def test_confirmation(self):
        self.expect(INSTALL, 0)
        self.assertTrue(self.holds(self.contents, 0))
        self.simulate("reboot")
        self.cut_everywhere(EVERY[1], "--then", f"tessera {INSTALL}", "--", "tessera", "confirm")


unittest.main()
