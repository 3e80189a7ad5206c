# SPDX-License-Identifier: Apache-2.0
"""Slots: `tessera confirm` and `tessera rollback`, and installations that depend on the slots' state."""

import json
import unittest

from bench_board import BoardCase, describe, error_of, images, slots


class SlotsTest(BoardCase):
    def test_confirm_and_rollback_with_unknown_states(self):
        good, trial, spent = slots.Slot(14, 1, True), slots.Slot(15, 2, False), slots.Slot(15, 0, False)
        cases = [  # the running slot, the other, states, reason against a rollback
            (good, trial, ["confirmed", "trial"], "on trial"),
            (spent, spent, ["unbootable", "unbootable"], "unbootable"),
            (good, slots.Slot(15, 3, True, corrupted=True), ["confirmed", "corrupted"], "corrupted"),
            (good, good, ["unknown", "unknown"], "unknown"),
            (trial, good, ["trial", "confirmed"], ""),
        ]
        self.new()
        self.pack("p.zip", images(1), describe(images(1), "emmc"))
        for running, other, states, reason in cases:
            with self.subTest(states=states):
                self.board().save_slot_block(slots.SlotBlock.of(running, other))
                if reason == "unknown":
                    self.damage_slot_block()
                    for line in ("install /userdata/p.zip", "slots mark-good b"):
                        self.expect_no_change(line, 1, "checksum")
                shown = json.loads(self.expect("slots --json", 0).stdout)["slots"]
                self.assertEqual([slot["state"] for slot in shown], states)
                run = self.expect_no_change if reason else self.expect
                run("rollback", 1 if reason else 0, reason)
                self.expect("confirm", 0)
                self.assertTrue(self.board().slot_block().slots[0].marked)
                self.assertFalse(reason == "unknown" and self.board().slot_block().slots[1].marked)
                self.expect_no_change("confirm", 0, "already")

    def test_confirm_with_an_unexpected_block_or_running_slot(self):
        count_at = slots.OFFSET + 9
        cases = [  # in place of slot a and of normal mode, byte of the number of slots, status, word of the message
            ("_a", "normal", 0, 0, ""), ("_b", "normal", 1, 0, ""),
            ("_c", "normal", 3, 1, "has the slots a and b only"),
            ("_a", "recovery", 2, 1, "recovery"), ("_a", "recovery", 3, 1, "recovery"),
        ]
        for suffix, mode, count, status, word in cases:
            with self.subTest(suffix=suffix, mode=mode, count=count):
                self.new()
                with open(self.board().backing(self.board().device("misc")), "r+b") as misc:
                    misc.seek(count_at)
                    misc.write(bytes([count]))
                cmdline = self.dir / "cmdline"
                text = cmdline.read_text().replace("mode=normal", f"mode={mode}")
                cmdline.write_text(text.replace("slot_suffix=_a", f"slot_suffix={suffix}"))
                if count < 2:
                    self.pack("p.zip", images(1), describe(images(1), "emmc"))
                    self.expect_no_change("install /userdata/p.zip", 1, "checksum")
                (self.expect_no_change if status else self.expect)("confirm", status, word)
                if status == 0:
                    running = "ab".index(suffix[1])
                    block = self.board().slot_block()
                    self.assertEqual((block.slots[running].marked, block.best()), (True, running))
                    self.assertFalse(block.slots[1 - running].marked)

    def test_an_update_needs_a_running_slot_and_another_one(self):
        self.new()
        self.pack("p.zip", images(1), describe(images(1), "emmc"))
        command_line = (self.dir / "cmdline").read_text()
        block = self.board().slot_block()
        cases = [("suffix=_a", 1, "has no slot b"), ("suffix=_c", 2, "has no slot c"), ("suffix=_c", 3, "has no slot d"),
                 ("", 2, "hint: tessera board --check")]
        for running, block.count, message in cases:
            with self.subTest(running=running, count=block.count):
                self.board().save_slot_block(block)
                (self.dir / "cmdline").write_text(command_line.replace("suffix=_a", running))
                self.expect_no_change("install /userdata/p.zip", 1, message)

    def test_a_slot_on_trial_and_one_that_was_given_up(self):
        trial, spent, good, first = (slots.Slot(15, 2, False), slots.Slot(15, 0, False), slots.Slot(14, 1, True),
                                     slots.Slot(15, 1, True))
        cases = [  # the running slot, the other, boots left to the running one on trial, is the other given up
            (trial, good, "2 boots", False), (slots.Slot(15, 1, False), good, "1 boot", False),
            (spent, good, "", False), (good, spent, None, True), (first, spent, None, False),
            (first, slots.Slot(14, 0, False), None, False), (good, trial, None, False)]
        self.new()
        for running, other, left, given_up in cases:
            with self.subTest(running=running, other=other):
                self.board().save_slot_block(slots.SlotBlock.of(running, other))
                for line in ("slots", "board --check"):
                    output = self.expect(line, 0).stdout
                    self.assertEqual("tessera confirm keeps it" in output, left is not None)
                    self.assertIn(f"slot a is on trial, with {left} left" if left else "", output)
                    self.assertEqual("slot a is running its last try" in output, left == "")
                self.assertEqual("slot b was given up or marked bad" in self.expect("status", 0).stdout, given_up)
                alone = running.bootable() and not (other.bootable() and other.marked)
                (self.expect_no_change if alone else self.expect)("slots mark-bad a", 1 if alone else 0)
                self.expect("slots mark-bad --yes a", 0)
        good = images(1)
        self.new()
        self.pack("p.zip", good, describe(good, "emmc"))
        self.expect("install /userdata/p.zip", 0)
        self.simulate("reboot", "--fail")
        self.assertEqual(json.loads(self.expect("status --json", 0).stdout)["given_up_slot"], 1)
        self.expect_no_change("slots mark-good b", 1, "it is unbootable")
        self.expect("slots mark-good --yes b", 0)

    def test_confirm_recreates_a_lost_block(self):
        def tear_the_page_of_the_block():
            with open(self.dir / "state" / "misc", "r+b") as state_of_misc:
                blocks = 9  # of 62 pages each; a byte for each, and one for each page
                self.assertEqual(state_of_misc.seek(0, 2), blocks * 63)
                state_of_misc.seek(blocks + slots.OFFSET // 2048)
                state_of_misc.write(b"\1")

        def forget_the_block():
            with open(self.board().backing(self.board().device("misc")), "r+b") as misc:
                misc.seek(slots.OFFSET + 4)
                misc.write(bytes(4))

        cases = [  # medium, what is lost; or a change that ends between the erase and the write
            ("emmc", forget_the_block, ""), ("nand", None, "raise pwrite 1 9"), ("nor", None, "fail pwrite 1"),
            ("nand", None, "lose pwrite 1"), ("ubi", None, "raise pwrite 1 9"), ("ubi", tear_the_page_of_the_block, "")]
        for medium, lose, fault in cases:
            with self.subTest(medium=medium, fault=fault):
                self.new(medium)
                good = images(1)
                self.pack("p.zip", good, describe(good, medium))
                self.expect("slots mark-good b", 137 if "raise" in fault else 4 if fault else 0,
                            "" if "raise" in fault or not fault else "hint: tessera confirm", fault=fault)
                if lose:
                    lose()
                self.expect("board --check", 1, "\nMISSING  slot block")
                for line in ("install /userdata/p.zip", "rollback", "slots set-next b"):
                    error = error_of(self.expect(f"{line} --json", 1))
                    self.assertEqual(error["hint"], "tessera confirm", line)
                self.assertFalse(self.holds(good, 1))
                self.expect("confirm", 0, "slot a is confirmed")
                block = self.board().slot_block()
                self.assertEqual((block.best(), [slot.marked for slot in block.slots]), (0, [True, False]))
                self.expect("install /userdata/p.zip", 0, "slot b boots next")
                self.assertTrue(self.holds(good, 1))

    def test_confirm_waits_for_a_command_that_writes_the_block(self):
        for medium in ("emmc", "nand"):  # where the block is erased meanwhile
            with self.subTest(medium=medium):
                self.new(medium)
                self.board().save_slot_block(slots.SlotBlock.of(slots.Slot(15, 1, False), slots.Slot(14, 1, False)))
                result = self.simulate("run", "--", "sh", "-c", """
                    TESSERA_FLASH_FAULT='raise pwrite 1 19' tessera slots mark-good b > /dev/null & first=$!
                    until grep -q '^State:.T' /proc/$first/status; do sleep 0.02; done
                    tessera confirm & second=$!
                    sleep 1; kill -CONT $first; wait $second""")
                self.assertIn("slot a is confirmed", result.stdout, result.stderr)
                self.assertIn("waiting for process", result.stderr)
                self.expect("slots mark-bad b", 0, fault="raise pwrite 1 15")  # not in the middle of the block
                self.assertEqual([slot.marked for slot in self.board().slot_block().slots], [True, False])

    def test_a_written_slot_that_does_not_come_up_is_given_up(self):
        good, contents = slots.Slot(15, 1, True), images(1)
        cases = [  # the running slot, the other, the boot mode, the slot that is written
            (good, slots.Slot(14, 1, True, corrupted=True), "normal", 1),
            (good, slots.Slot(14, 0, True), "normal", 1),
            (slots.Slot(15, 3, False), slots.Slot(14, 1, True), "recovery", 0),
            (slots.Slot(15, 0, False), slots.Slot(14, 0, False), "recovery", 1),
        ]
        for running, other, mode, written in cases:
            with self.subTest(other=other, mode=mode):
                self.new()
                self.pack("p.zip", contents, describe(contents, "emmc"))
                self.board().save_slot_block(slots.SlotBlock.of(running, other))
                cmdline = self.dir / "cmdline"
                cmdline.write_text(cmdline.read_text().replace("mode=normal", f"mode={mode}"))
                self.expect("install /userdata/p.zip", 0, f"slot {'ab'[written]} boots next")
                self.assertTrue(self.holds(contents, written))
                self.assertEqual(self.board().slot_block().best(), written)
                self.simulate("reboot", "--fail")
                boots = 1 - written if running.bootable() or other.bootable() else None
                self.assertEqual(self.board().slot_block().best(), boots)


unittest.main()
