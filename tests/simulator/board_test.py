"""The simulated board: its box, its log, and the bootloader's way with the slots."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

SIMULATOR = pathlib.Path(__file__).resolve().parents[2] / "simulator"
sys.path.insert(0, str(SIMULATOR))

from simboard import slots, state  # noqa: E402


class BoardTest(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.dir = pathlib.Path(scratch.name) / "board"

    def board(self, verb, *words):
        return subprocess.run([SIMULATOR / "board", verb, self.dir, *words], capture_output=True, text=True, check=False)

    def new(self, *words):
        result = self.board("new", *words)
        self.assertEqual(result.returncode, 0, result.stderr)
        return state.Board(self.dir)

    def test_a_fresh_block_has_the_bytes_that_bootloaders_know(self):
        known = "6100000042434142010200009f007f00000000000000000000000000"
        self.assertEqual(slots.SlotBlock.factory().pack()[:28].hex(), known)
        words = bytes.fromhex("610000004243414201020000" "7e009f00") + bytes(12)
        self.assertEqual(slots.seal(words)[28:].hex(), "556cecc6")

    def test_reboot(self):
        confirmed, trial, spent = slots.Slot(14, 1, True), slots.Slot(15, 2, False), slots.Slot(15, 0, False)
        broken = slots.Slot(15, 3, True, corrupted=True)
        cases = [  # slots before, does the first one fail, status, running slot, tries of both afterwards
            ((confirmed, trial), False, 0, 1, (1, 1)),
            ((confirmed, trial), True, 0, 0, (1, 0)),
            ((confirmed, spent), False, 0, 0, (1, 0)),
            ((confirmed, broken), False, 0, 0, (1, 3)),
            ((trial, trial), False, 0, 0, (1, 2)),
            ((confirmed, spent), True, 1, 0, (1, 0)),
            ((broken, spent), False, 1, 0, (3, 0)),
        ]
        board = self.new()
        for before, fails, status, running, tries in cases:
            with self.subTest(before=before, fails=fails):
                board.come_up(0)
                block = board.slot_block()
                for slot, fields in zip(block.slots, before):
                    vars(slot).update(vars(fields))
                board.save_slot_block(block)
                self.assertEqual(self.board("reboot", *["--fail"] * fails).returncode, status)
                self.assertEqual(board.running_slot(), running)
                self.assertEqual(tuple(slot.tries for slot in board.slot_block().slots), tries)

    def test_a_damaged_block_puts_both_slots_on_trial(self):
        board = self.new()
        with open(board.backing(board.device("misc")), "r+b") as misc:
            misc.seek(slots.OFFSET + 12)
            misc.write(b"\x7e")
        result = self.board("reboot", "--fail")
        self.assertEqual(result.returncode, 0)
        self.assertIn("checksum", result.stdout)
        self.assertEqual([slot.tries for slot in board.slot_block().slots], [6, 6])

    def test_the_version_comes_out_of_the_running_system(self):
        board = self.new("--medium", "nand", "--bad", "0,3")
        self.assertEqual(board.version(), state.FACTORY_VERSION.strip())
        board.backing(board.device("system_a")).write_bytes(bytes(1 << 20))
        self.assertEqual(self.board("reboot").returncode, 0)
        self.assertEqual(board.version(), "")

    def test_the_box_shows_the_board_and_keeps_the_host(self):
        board = self.new()
        script = """set -e
            grep -q veloxboot.medium=MMC /proc/cmdline
            head -c 16896 /dev/block/platform/by-name/blk | tail -c +513 | head -c 8 | grep -q 'EFI PART'
            printf new > /dev/block/platform/by-name/boot_b
            for place in / /usr /etc /usr/velox "$PWD"; do ! touch "$place/tessera-was-here" 2>/dev/null; done
            touch /tmp/kept /userdata/kept
            logger -p user.err 'last words'
            exit 7"""
        result = self.board("run", "--", "sh", "-c", script)
        self.assertEqual((result.returncode, result.stderr), (7, ""))
        self.assertEqual(board.backing(board.device("boot_b")).read_bytes()[:3], b"new")
        self.assertTrue((self.dir / "userdata" / "kept").exists())
        self.assertRegex((self.dir / "log").read_text(), r"^err .*last words\n$")


if __name__ == "__main__":
    unittest.main()
