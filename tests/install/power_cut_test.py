# SPDX-License-Identifier: Apache-2.0
"""
The power fails at an operation of a whole installation, or of the confirmation after it, on every medium. After
each cut the board boots a whole system; then another installation succeeds, and the slot that it reports boots
next.

usage: power_cut_test.py MEDIUM [every [PART/PARTS]]

Without `every` only some of the cuts are made. PART, from 1, selects one of PARTS shares, which can run in parallel.
"""

import collections
import shutil
import signal
import sys
import unittest

from bench_board import MUTATIONS, BoardCase, describe, images

from simboard import BoardError

MEDIUM, *ASKED = sys.argv[1:]
sys.argv[1:] = []
EVERY = ASKED[:1] == ["every"]
PART, PARTS = (int(number) for number in (ASKED[1] if ASKED[1:] else "1/1").split("/"))
SOME = 10  # number of cuts if not every one is made
PAGE = 2048
RECORDS = {"misc": [(2048, 2080)], "ubootenv": [(0x30000, 0x3054C), (0x30880, 0x30890)]}  # first byte, end
INSTALL, CONFIRM = "install /userdata/new.zip", "confirm"


class PowerCutTest(BoardCase):
    def setUp(self):
        super().setUp()
        self.old, self.contents = images(1, vbmeta=70_000, uboot=150_000), images(2, vbmeta=70_000, uboot=300_000)
        self.seen = collections.Counter()
        self.new(MEDIUM)
        self.pack("old.zip", self.old, describe(self.old, MEDIUM, "V1.5.0"))
        self.pack("new.zip", self.contents, describe(self.contents, MEDIUM))
        self.expect("install /userdata/old.zip", 0)
        self.simulate("reboot")
        self.expect("confirm", 0)
        self.before = self.keep("before")

    def keep(self, name):
        shutil.rmtree(self.place / name, ignore_errors=True)
        return shutil.copytree(self.dir, self.place / name)

    def restore(self, kept):
        shutil.rmtree(self.dir)
        shutil.copytree(kept, self.dir)

    def cuts(self, line):
        """The faults for each operation of a command: after it and, where it changes something, within it."""
        self.expect(line, 0)
        changing, pages, reading = [], [], []
        for number, operation in enumerate(self.operations(), 1):
            if operation[1] not in MUTATIONS:
                reading.append(f"cut {number} kill")
                continue
            ways = ["", "tear"] + (["seed=1", "tear seed=2"] if MEDIUM == "emmc" else [])
            changing += [f"cut {number} {way} kill" for way in ways]
            pages += [f"cut {number} tear={place} kill" for place in self.tears(*operation[:3])]
        if EVERY:
            return changing + pages + reading
        return changing[:: len(changing) // SOME | 1] + pages[:: len(pages) // SOME | 1]  # odd: each way of a cut

    def tears(self, device, kind, place):
        """The number of bytes stored of a write that is torn: one for every page and within every record."""
        if kind != "pwrite" or MEDIUM == "emmc":  # a disk stores whole sectors
            return []
        start, length = (int(number) for number in place.split("+"))
        name = next(each.name for each in self.board().devices if each.node.endswith(f"/{device}"))
        records = [at for first, end in RECORDS.get(name, []) for at in (first, (first + end) // 2, end)]
        within = {at - start for at in records if start <= at < start + length}
        return sorted(within | set(range(0, length, PAGE))) if EVERY or not records else sorted(within)

    def is_whole(self, slot):
        """Whether a slot holds the new images, or still what it held before."""
        names = [f"partitions/{name}_{'ab'[slot]}" for name in self.old]
        return self.holds(self.contents, slot) or all(
            (self.dir / name).read_bytes() == (self.before / name).read_bytes() for name in names)

    def block_is_lost(self):
        try:
            return not self.board().slot_block()
        except BoardError:
            return True

    def boot(self, lost_block):
        """Boots the board after the cut. @return the running slot"""
        result = self.simulate("reboot", "--lost-block", lost_block)
        self.assertEqual(result.returncode, 0, result.stdout)
        running = self.board().running_slot()
        self.assertTrue(self.is_whole(running), f"slot {running} is not whole")
        self.seen["new" if self.holds(self.contents, running) else ("older", "old")[running]] += 1
        return running

    def check_status(self):
        status = self.simulate("run", "--", "tessera", "status").stdout
        self.seen["status unknown"] += "are unknown; the next" in status or not status
        if "no update is under way" in status:
            self.assertTrue(self.is_whole(0) and self.is_whole(1))

    def install_again(self):
        """The power fails right after the command has ended; the running system is confirmed. What boots then?"""
        result = self.simulate("run", "--", "tessera", *INSTALL.split())
        if result.returncode != 0:
            self.assertRegex(result.stderr, "hint: tessera confirm$")
            self.assertTrue(self.is_whole(0) and self.is_whole(1))
            self.seen["confirm first"] += 1
            self.expect("confirm", 0)
            result = self.expect(INSTALL, 0)
        self.seen["records repaired"] += "could not be read after a power cut" in result.stderr
        self.simulate("run", "--", "true", env={"TESSERA_FLASH_FAULT": "cut 0"})
        self.expect("status", 0, "no update is under way")
        self.expect("confirm", 0)
        self.simulate("reboot")
        self.assertTrue(self.holds(self.contents, self.board().running_slot()))

    def cut(self, line, fault):
        """Makes one cut, and continues from there with each relevant kind of bootloader and boot script."""
        self.expect(line, 128 + signal.SIGKILL, fault=fault)
        is_lost = self.block_is_lost()
        self.seen["within" if "tear" in fault else "after"] += 1
        self.seen["block lost"] += is_lost
        kept = self.keep("cut")
        for lost_block in ("write", "leave") if is_lost else ("write",):
            self.restore(kept)
            running = self.boot(lost_block)
            self.check_status()
            is_confirmed = not self.block_is_lost() and self.board().slot_block().slots[running].marked
            booted = self.keep("booted")
            self.install_again()
            if not is_confirmed:
                self.restore(booted)
                self.expect("confirm", 0)
                self.install_again()

    def cut_everywhere(self, line):
        kept = self.keep("kept")
        for fault in self.cuts(line)[PART - 1 :: PARTS]:
            with self.subTest(line=line, fault=fault):
                self.restore(kept)
                self.cut(line, fault)
        print(f"{MEDIUM} {line.split()[0]}: {dict(self.seen)}")

    def test_installation(self):
        self.cut_everywhere(INSTALL)

    def test_confirmation(self):
        self.expect(INSTALL, 0)
        self.simulate("reboot")
        self.cut_everywhere(CONFIRM)


unittest.main()
