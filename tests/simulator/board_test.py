# SPDX-License-Identifier: Apache-2.0
"""The simulated board: its creation, its box, its log, its faults, and what its bootloader does with the slots."""

import pathlib
import re
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "install"))

from bench_board import SIMULATOR, BoardCase, describe, images, slots, state  # noqa: E402


class BoardTest(BoardCase):
    def test_reboot(self):
        confirmed, trial, spent = slots.Slot(14, 1, True), slots.Slot(15, 2, False), slots.Slot(15, 0, False)
        broken = slots.Slot(15, 3, True, corrupted=True)
        cases = [  # slots before, does the first one fail, status, running slot, tries of both afterwards
            ((confirmed, trial), False, 0, 1, [1, 1]),
            ((confirmed, trial), True, 0, 0, [1, 0]),
            ((confirmed, spent), False, 0, 0, [1, 0]),
            ((confirmed, broken), False, 0, 0, [1, 3]),
            ((trial, trial), False, 0, 0, [1, 2]),
            ((confirmed, spent), True, 1, 0, [1, 0]),
            ((broken, spent), False, 1, 0, [3, 0]),
            (None, True, 0, 1, [6, 6]),  # a damaged block puts both slots on trial
        ]
        self.new()
        board = self.board()
        for before, fails, status, running, tries in cases:
            with self.subTest(before=before, fails=fails):
                board.come_up(0)
                if before:
                    board.save_slot_block(slots.SlotBlock.of(*before))
                else:
                    self.damage_slot_block()
                result = self.simulate("reboot", *["--fail"] * fails)
                self.assertEqual((result.returncode, "checksum" in result.stdout), (status, before is None))
                self.assertEqual(board.running_slot(), running)
                self.assertEqual([slot.tries for slot in board.slot_block().slots], tries)

    def test_a_lost_block(self):
        for medium, lost, tries in (("ubi", "write", [6, 7]), ("ubi", "leave", None), ("nand", "write", [6, 7])):
            with self.subTest(medium=medium, lost=lost):
                self.new(medium)
                misc = {"ubi": "ubi0_0", "nand": "mtd0"}[medium]
                self.lose_power("slots set-next b", misc, "pwrite", 0, "tear=2100")  # cuts the block's page, not its bytes
                output = self.simulate("reboot", "--lost-block", lost).stdout
                self.assertIn("the page at byte 2048 of misc cannot be read", output)
                self.assertEqual(self.board().running_slot(), 0)
                if tries:
                    self.assertEqual([slot.tries for slot in self.board().slot_block().slots], tries)
                    self.expect("slots mark-good a", 0)  # the flash block is complete again

    def test_what_is_refused(self):
        cases = [("--bad", "x", "'x' is not a list"), ("--bad", "3,,6", "not a list"), ("--bad", "-1", "not a list"),
                 ("--bad", "128", "no partition has a block 128"), ("--size-system", "0", "'0' is not a size"),
                 ("--size-system", "12Q", "not a size"), ("--size-system", "1M", "1024 KiB is too small")]
        for option, value, words in cases:
            with self.subTest(value=value):
                result = self.simulate("new", "--medium", "nand", f"{option}={value}")
                self.assertRegex(result.stderr, f"board.*: .*{words}")
                self.assertFalse(result.returncode == 0 or self.dir.exists())
        self.new()
        for fault in ("cut x", "cut -1", "cut 1 tear=", "tear 1", "fail pwrite", "lose pwrite 1 2", "fail open 1"):
            with self.subTest(fault=fault):
                self.expect("slots", 126, "flash simulator: ", fault=fault)

    def test_the_fault_of_the_help(self):
        output = subprocess.run([SIMULATOR / "board", "--help"], capture_output=True, text=True, check=True).stdout
        pattern = r'  TESSERA_FLASH_FAULT="(cut (\d+) kill)" board .* -- tessera (.*)'
        fault, number, line = re.search(pattern, output).groups()
        self.new()
        self.pack("new.zip", images(1), describe(images(1), "emmc"))
        self.expect(line.replace("new.zip", "/userdata/new.zip"), 137, f"after operation {number} and ends", fault)

    def test_the_version_comes_out_of_the_running_system(self):
        self.new("nand")
        self.assertEqual(self.board().version(), state.FACTORY_VERSION.strip())
        self.board().backing(self.board().device("system_a")).write_bytes(bytes(1 << 20))
        self.assertEqual(self.simulate("reboot").returncode, 0)
        self.assertEqual(self.board().version(), "")

    def test_the_box_shows_the_board_and_keeps_the_host(self):
        self.new()
        (self.place / "shown").touch()
        script = f"""set -e
            grep -q veloxboot.medium=MMC /proc/cmdline
            head -c 16896 /dev/block/platform/by-name/blk | tail -c +513 | head -c 8 | grep -q 'EFI PART'
            printf new > /dev/block/platform/by-name/boot_b
            for place in / /usr /etc /usr/velox "$PWD"; do ! touch "$place/tessera-was-here" 2>/dev/null; done
            test -e {self.place}/shown
            touch /tmp/kept /userdata/kept
            logger -p user.err 'last words'
            exit 7"""
        result = self.simulate("run", "--with", self.place / "shown", "--", "sh", "-c", script)
        self.assertEqual((result.returncode, result.stderr), (7, ""))
        self.assertEqual(self.board().backing(self.board().device("boot_b")).read_bytes()[:3], b"new")
        self.assertTrue((self.home / "kept").exists())
        self.assertRegex((self.dir / "log").read_text(), r"^err .*last words\n$")


unittest.main()
