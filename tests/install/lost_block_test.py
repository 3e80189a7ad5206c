# SPDX-License-Identifier: Apache-2.0
"""Power cuts that lose the slot block, and how the following commands handle it."""

import unittest

from bench_board import BoardCase, describe, images, slots

MEDIA = {  # where the block does not survive every cut: its device, its erase
    "nand": ("mtd0", "MEMERASE64"), "nor": ("mtd0", "MEMERASE64"), "ubi": ("ubi0_0", "UBI_IOCEBER")}
INSTALL = "install /userdata/new.zip"


class LostBlockTest(BoardCase):
    def on_each_medium(self, run):
        """Runs a scenario on a board whose slot b runs the old package, on trial; the new one is in /userdata."""
        self.old, self.contents = images(1), images(2)
        for medium, (misc, erase) in MEDIA.items():
            with self.subTest(medium=medium):
                self.new(medium)
                self.pack("old.zip", self.old, describe(self.old, medium, "V1.5.0"))
                self.pack("new.zip", self.contents, describe(self.contents, medium))
                self.expect("install /userdata/old.zip", 0)
                self.boots(1)
                run(misc, erase)

    def boots(self, slot, message=""):
        shown = self.simulate("reboot").stdout
        self.assertEqual(self.board().running_slot(), slot, shown)
        self.assertIn(message, shown)

    def test_an_update_is_called_installed_only_where_it_boots_next(self):
        def scenario(misc, erase):
            self.expect("rollback", 0)
            self.boots(0)
            self.lose_power(INSTALL, misc, erase, -1)  # in the switch to b
            self.boots(0, "both slots are on trial")
            self.expect_no_change(INSTALL, 1, "hint: tessera confirm")
            self.expect("confirm", 0)
            self.expect(INSTALL, 0, "slot b boots next")
            self.expect("confirm", 0)
            self.boots(1)
            self.assertTrue(self.holds(self.contents, 1))
        self.on_each_medium(scenario)

    def test_a_half_written_slot_never_boots(self):
        def scenario(misc, erase):
            self.expect("slots reset", 0)
            for line in (INSTALL, f"{INSTALL} --force"):
                self.expect_no_change(line, 1, "hint: tessera confirm")
            self.expect("confirm", 0)
            self.expect(INSTALL, 137, fault="raise pwrite 5 9")  # among the images for slot a
            self.boots(1)
            self.expect_no_change("confirm", 0, "already")  # nor does it erase the block
        self.on_each_medium(scenario)

    def test_the_last_good_system_is_kept(self):
        def scenario(misc, erase):
            self.expect("confirm", 0)
            self.lose_power(INSTALL, misc, erase, -1)
            self.boots(0, "both slots are on trial")  # the new one
            self.expect_no_change(INSTALL, 1, "hint: tessera confirm")
            self.assertTrue(self.holds(self.old, 1) and self.holds(self.contents, 0))
            for line in ("slots mark-good b", "rollback", "confirm"):  # b is next by its mark, then by its rank
                self.expect(line, 0)
            self.boots(1)
        self.on_each_medium(scenario)

    def test_the_recovery_system_keeps_what_may_boot(self):
        trial, spent = slots.Slot(15, 2, False), slots.Slot(15, 0, False)
        self.new()
        self.pack("new.zip", images(2), describe(images(2), "emmc"))
        cmdline = self.dir / "cmdline"
        cmdline.write_text(cmdline.read_text().replace("mode=normal", "mode=recovery"))
        for first, second, bootable in (trial, spent, "a"), (spent, trial, "b"), (trial, trial, "a"):
            with self.subTest(bootable=bootable):
                self.board().save_slot_block(slots.SlotBlock.of(first, second))
                self.expect_no_change(INSTALL, 1, f"hint: boot slot {bootable} and run tessera confirm there")


unittest.main()
