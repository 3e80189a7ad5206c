"""
The power fails at an operation of a whole installation, on every medium. After each cut the board boots, and
what it boots is whole; a second installation then simply works.

usage: power_cut_test.py MEDIUM [every]     without `every` only some of the cuts are made
"""

import sys

import bench_board
from bench_board import MUTATIONS, BoardCase, describe, images, write_package

MEDIUM = sys.argv.pop(1)
EVERY = "every" in sys.argv and not sys.argv.remove("every")
CUTS_WANTED = 24  # where not every cut is made


class PowerCutTest(BoardCase):
    def setUp(self):
        super().setUp()
        self.old, self.new_images = images(1, boot=70_000, system=150_000), images(2, boot=70_000, system=300_000)
        self.package = str(write_package(self.packages / "p.zip", describe(self.new_images, MEDIUM), self.new_images))
        self.new(MEDIUM)
        first = write_package(self.packages / "first.zip", describe(self.old, MEDIUM, "V1.5.0"), self.old)
        self.assertEqual(self.tessera("install", str(first)).returncode, 0)
        self.simulate("reboot")
        self.assertEqual(self.tessera("slots", "mark-good", "b").returncode, 0)
        self.keep_copy()

    def scripts(self):
        """The cuts worth making: behind each operation that changes something, clean and torn."""
        result, operations = self.journal("install", self.package)
        self.assertEqual(result.returncode, 0, result.stderr)
        scripts = []
        for number, operation in enumerate(operations, 1):
            if operation[1] in MUTATIONS:
                ways = ["", "tear"] + (["seed=1", "tear seed=2"] if MEDIUM == "emmc" else [])
                scripts += [f"cut {number} {way} kill" for way in ways]
        return scripts if EVERY else scripts[:: max(1, len(scripts) // CUTS_WANTED)]

    def slot_is_whole(self, slot):
        return self.holds(self.new_images, slot) or self.is_as_before(slot)

    def is_as_before(self, slot):
        names = [f"partitions/{name}_{'ab'[slot]}" for name in self.old]
        return all((self.dir / name).read_bytes() == (self.place / "kept" / name).read_bytes() for name in names)

    def test_cuts(self):
        outcomes = {"old": 0, "new": 0}
        scripts = self.scripts()
        for script in scripts:
            with self.subTest(script=script):
                self.back_to_copy()
                cut = self.tessera("install", self.package, env={"TESSERA_FLASH_FAULT": script})
                self.assertNotEqual(cut.returncode, 0)
                self.assertEqual(self.simulate("reboot").returncode, 0)
                running = self.board().running_slot()
                self.assertTrue(self.slot_is_whole(running), f"slot {running} is not whole")
                is_new = self.holds(self.new_images, running)
                outcomes["new" if is_new else "old"] += 1
                again = self.tessera("install", self.package)
                self.assertEqual(again.returncode, 0, again.stderr)
                if is_new:
                    self.assertEqual(self.tessera("slots", "mark-good", "ab"[running]).returncode, 0)
                self.simulate("reboot")
                self.assertTrue(self.holds(self.new_images, self.board().running_slot()))
        print(f"{MEDIUM}: {len(scripts)} cuts, booted old {outcomes['old']}, new {outcomes['new']}")


bench_board.main()
