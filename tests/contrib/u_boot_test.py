# SPDX-License-Identifier: Apache-2.0
"""The boot script in Debian's own U-Boot, in an emulator: which slot it boots, and the slot block that it leaves."""

import os
import pathlib
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest
import zlib

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "simulator"))
from simboard import gpt, slots  # noqa: E402

BUILD = pathlib.Path(os.environ["TESSERA_BUILD"])
FIRMWARE = pathlib.Path("/usr/lib/u-boot/qemu_arm64/u-boot.bin")
MIB = 1 << 20
PARTITIONS = [("script", 2 * MIB), ("misc", MIB), ("boot_a", MIB), ("boot_b", MIB)]
STARTS = gpt.offsets(PARTITIONS)
BLOCK = STARTS["misc"] + slots.OFFSET
# An arm64 kernel image that prints the bytes at its end and the words of its command line from "veloxboot" on, which
# it looks for in the device tree ("ve", two bytes, "x"), and switches the machine off.
KERNEL = struct.pack("<43I", *(int(word, 16) for word in """
    14000010 0 0 0 10000 0 0 0 0 0 0 0 0 0 644d5241 0 aa0003e3 d2a12001 10000324 38401482 34000062 b9000022 17fffffd
    38401462 7101d85f 54ffffc1 39400062 7101945f 54ffff61 39400c62 7101e05f 54ffff01 d1000463 38401462 34000062
    b9000022 17fffffd 52800142 b9000022 52b08000 72800100 d4000002 14000000""".split()))
KEYS = "veloxboot.medium=MMC veloxboot.mode=normal veloxboot.slot_suffix="
GOOD, TRIAL, GIVEN_UP = slots.Slot(15, 1, True), slots.Slot(15, 7, False), slots.Slot(15, 0, False)
CORRUPTED, LOWER, LAST_TRY = slots.Slot(15, 7, True, True), slots.Slot(14, 1, True), slots.Slot(15, 1, False)


def block(first, second):
    return slots.SlotBlock.of(first, second).pack()


class UBootTest(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.dir = pathlib.Path(scratch.name)
        self.disk = self.dir / "disk"
        gpt.write(self.disk, PARTITIONS)
        root = self.dir / "root"
        root.mkdir()
        for command in (["mkimage", "-A", "arm64", "-T", "script", "-d", TOP / "contrib/u-boot/boot.cmd",
                         root / "boot.scr"],
                        ["/usr/sbin/mkfs.ext4", "-q", "-O", "^metadata_csum,^64bit", "-d", root, self.dir / "fs", "2M"]):
            subprocess.run(command, check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        self.put(STARTS["script"], (self.dir / "fs").read_bytes())
        for slot in "ab":
            self.put(STARTS[f"boot_{slot}"], KERNEL + f"kernel {slot}: \0".encode())

    def put(self, offset, data):
        with open(self.disk, "r+b") as disk:
            disk.seek(offset)
            disk.write(data)

    def get(self, offset, size):
        with open(self.disk, "rb") as disk:
            disk.seek(offset)
            return disk.read(size)

    def boot(self, until=("veloxboot.slot_suffix=_a\n", "veloxboot.slot_suffix=_b\n", "waiting for a command\n")):
        """Starts the board until it has said one of these, and returns what it said since the script began."""
        machine = subprocess.Popen(
            ["qemu-system-aarch64", "-M", "virt", "-cpu", "cortex-a53", "-m", "256", "-nographic", "-nodefaults",
             "-serial", "stdio", "-bios", FIRMWARE, "-no-reboot", "-drive", f"file={self.disk},if=none,format=raw,id=d",
             "-device", "virtio-blk-device,drive=d"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
            errors="replace")
        said = ""
        try:
            for line in machine.stdout:
                said += line.replace("\r", "")
                if said.endswith(until):
                    break
        finally:
            machine.kill()
            machine.wait()
            machine.stdout.close()
        return said

    def expect(self, said, slot):
        if slot:
            self.assertTrue(said.endswith(f"kernel {slot}: {KEYS}_{slot}\n"), said)
        else:
            self.assertIn("tessera: waiting for a command", said)

    def test_each_block_boots_the_slot_that_the_simulated_board_boots(self):
        damaged = bytearray(block(GOOD, TRIAL))
        damaged[12] ^= 1
        for name, stored in {
                "factory": block(GOOD, TRIAL), "an update": block(LOWER, LAST_TRY), "given up": block(LOWER, GIVEN_UP),
                "two on trial": block(TRIAL, TRIAL), "corrupted": block(CORRUPTED, LOWER),
                "none to boot": block(CORRUPTED, GIVEN_UP), "lowest priority": block(GIVEN_UP, slots.Slot(0, 1, True)),
                "erased": b"\xff" * slots.SIZE, "wrong checksum": bytes(damaged)}.items():
            with self.subTest(name):
                self.put(BLOCK, stored + b"neighbour")
                valid = stored[4:8] == slots.MAGIC and zlib.crc32(stored[:28]).to_bytes(4, "little") == stored[28:]
                wanted = slots.SlotBlock(stored) if valid else slots.SlotBlock.fresh()
                best = wanted.best()
                if best is not None and not wanted.slots[best].marked:
                    wanted.slots[best].tries -= 1
                self.expect(self.boot(), None if best is None else slots.letter(best))
                left = self.get(BLOCK, slots.SIZE + 9)
                self.assertEqual((left[:slots.SIZE].hex(), left[slots.SIZE:]), (wanted.pack().hex(), b"neighbour"))

    def test_a_slot_without_a_kernel(self):
        self.put(STARTS["boot_b"], bytes(64))
        for second, slot in (LAST_TRY, "a"), (slots.Slot(15, 1, True), None):
            with self.subTest(second):
                self.put(BLOCK, block(LOWER, second))
                said = self.boot()
                self.assertIn("tessera: slot b does not boot", said)
                self.expect(said if slot is None else self.boot(), slot)

    def test_an_update_by_the_command_on_its_way_through_the_boots(self):
        board = self.dir / "board"

        def simulated(*words):
            return subprocess.run([TOP / "simulator/board", *words], check=True, stdin=subprocess.DEVNULL, text=True,
                                  stdout=subprocess.PIPE, env=os.environ | {"TESSERA_BUILD": str(BUILD)}).stdout

        simulated("new", board, "--medium", "emmc")
        misc = next(board.rglob("misc"))
        for command, slot, row in (None, "a", "1  b +trial +15 +7 +no"), (["set-next", "1"], "b", "1  b .* 15 +0 +no"), \
                (None, "a", "1  b .* 15 +0 +no"):
            if command:
                simulated("run", board, "--", "tessera", "slots", *command)
            self.put(STARTS["misc"], misc.read_bytes()[:MIB])
            self.expect(self.boot(), slot)
            with open(misc, "r+b") as file:
                file.write(self.get(STARTS["misc"], min(MIB, misc.stat().st_size)))
            self.assertRegex(simulated("run", board, "--", "tessera", "slots"), row)


if __name__ == "__main__":
    if not FIRMWARE.exists() or not shutil.which("qemu-system-aarch64") or not shutil.which("mkimage"):
        print("left out: u-boot-qemu, u-boot-tools or qemu-system-arm is not installed")
        sys.exit(77)
    unittest.main()
