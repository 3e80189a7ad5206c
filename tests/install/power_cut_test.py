"""
The power fails at an operation of a whole installation, on every medium. After each cut the board boots, and
what it boots is whole; a second installation then simply works.

usage: power_cut_test.py MEDIUM [every [PART/PARTS]]

Without `every` only some of the cuts are made; PART, from 1 on, makes those of the share, for several at a time.
"""

import collections
import shutil
import signal
import sys
import unittest

from bench_board import MUTATIONS, BoardCase, describe, images

MEDIUM, *ASKED = sys.argv[1:]
sys.argv[1:] = []
EVERY = ASKED[:1] == ["every"]
PART, PARTS = (int(number) for number in (ASKED[1] if ASKED[1:] else "1/1").split("/"))
CUTS_WANTED = 24  # where not every cut is made


class PowerCutTest(BoardCase):
    def setUp(self):
        super().setUp()
        self.old, self.new_images = images(1, vbmeta=70_000, uboot=150_000), images(2, vbmeta=70_000, uboot=300_000)
        self.new(MEDIUM)
        self.pack("old.zip", self.old, describe(self.old, MEDIUM, "V1.5.0"))
        self.pack("new.zip", self.new_images, describe(self.new_images, MEDIUM))
        self.expect("install /userdata/old.zip", 0)
        self.simulate("reboot")
        self.expect("slots mark-good b", 0)
        self.kept = self.place / "kept"
        shutil.copytree(self.dir, self.kept)

    def scripts(self):
        """The cuts: behind each operation and, where it changes something, in its middle."""
        self.expect("install /userdata/new.zip", 0)
        changing, reading = [], []
        for number, operation in enumerate(self.operations(), 1):
            if operation[1] in MUTATIONS:
                ways = ["", "tear"] + (["seed=1", "tear seed=2"] if MEDIUM == "emmc" else [])
                changing += [f"cut {number} {way} kill" for way in ways]
            else:
                reading.append(f"cut {number} kill")
        return (changing + reading)[PART - 1 :: PARTS] if EVERY else changing[:: max(1, len(changing) // CUTS_WANTED)]

    def slot_is_whole(self, slot):
        """Whether a slot holds the new images, or still what it held before."""
        names = [f"partitions/{name}_{'ab'[slot]}" for name in self.old]
        return self.holds(self.new_images, slot) or all(
            (self.dir / name).read_bytes() == (self.kept / name).read_bytes() for name in names)

    def cut(self, script, seen):
        """Makes one cut and goes on from there. `seen` counts what was seen."""
        shutil.rmtree(self.dir)
        shutil.copytree(self.kept, self.dir)
        self.expect("install /userdata/new.zip", 128 + signal.SIGKILL, fault=script)
        boot = self.simulate("reboot")
        self.assertEqual(boot.returncode, 0, boot.stdout)
        running = self.board().running_slot()
        self.assertTrue(self.slot_is_whole(running), f"slot {running} is not whole")
        is_new = self.holds(self.new_images, running)
        seen["new" if is_new else "old"] += 1
        seen["slot block lost"] += "both slots are on trial" in boot.stdout
        status = self.simulate("run", "--", "tessera", "status").stdout
        seen["status unknown"] += "is unknown; the next" in status or not status
        seen["status tells"] += "has not ended" in status or "was about to end" in status
        if "no update is under way" in status:
            self.assertTrue(self.slot_is_whole(0) and self.slot_is_whole(1))
        again = self.expect("install /userdata/new.zip", 0)
        self.expect("status", 0, "no update is under way")
        seen["records mended"] += "could not be read after a power cut" in again.stderr
        if is_new:
            self.expect("confirm", 0)
        self.simulate("reboot")
        self.assertTrue(self.holds(self.new_images, self.board().running_slot()))
        seen["installed again"] += 1

    def test_cuts(self):
        seen = collections.Counter()
        for script in self.scripts():
            seen["torn" if "tear" in script else "clean"] += 1
            with self.subTest(script=script):
                self.cut(script, seen)
        print(f"{MEDIUM}: {dict(seen)}")


unittest.main()
