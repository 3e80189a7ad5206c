# SPDX-License-Identifier: Apache-2.0
"""
A machine's flash - NAND, UBI on NAND, NOR - and cuts of its power after and within the operations of a command.

The kernel's simulation of flash forgets the chip when the machine ends. So a command is ended at the cut
(power_cut.cpp), the chip is saved to the disk (chip_copy.cpp), what was in progress is spoiled there, and the next
start restores it.
"""

import pathlib
import struct
from dataclasses import dataclass

from simboard import gpt

KIB = 1 << 10
PAGE, SPARE, BLOCK = 2 * KIB, 64, 128 * KIB
RECORD = PAGE + SPARE  # a page as chip_copy stores it
PAGES = BLOCK // PAGE
CHIP_ID = "id_bytes=0x20,0xa1,0x00,0x15"  # blocks and pages as above
VOLUME_HEADER = 512  # bytes into the block: UBI's header for the LEB
RECORDS = {"misc": [(2048, 2080)], "ubootenv": [(0x30000, 0x3054C), (0x30880, 0x30890)]}  # first byte, end
KILLED = 128 + 9


@dataclass(frozen=True)
class Operation:
    partition: str
    kind: str
    offset: int  # bytes, or the number of a LEB
    length: int


@dataclass(frozen=True)
class Cut:
    """After an operation, or within it if `stored` is given: after these bytes of a write, halfway through an erase."""

    number: int  # counted from 1
    operation: Operation
    stored: int | None = None

    def __str__(self):
        place = "after" if self.stored is None else f"at byte {self.stored} of" if self.stored else "within"
        return (f"{place} operation {self.number}, {self.operation.kind} of {self.operation.partition} at "
                f"{self.operation.offset:#x}")


class Flash:
    """What the kinds of flash have in common. `image` is the chip, or the disk that replaces it, between two starts."""

    cut_status = KILLED  # of a command that a cut has ended

    def __init__(self, place, draw):
        self.place, self.draw = pathlib.Path(place), draw
        self.guest = None

    def start(self, saved, commands=()):
        """@return a machine with this flash, after these commands and with its partitions"""
        path = self.place / "chip"
        path.write_bytes(self.image)
        self.guest = saved.start({"driver": "file", "filename": str(path)})
        links = [f"partition {name} {self.NODE}{number}" for number, name in enumerate(self.PARTITIONS)]
        status, text = self.guest.run(" && ".join(["attach_disk", *self.attach(), *commands, *links]))
        if status != 0:
            raise RuntimeError(f"the flash cannot be attached: {text}")
        return self.guest

    def arm(self, cut):
        """@return what to put before the next command, which the cut is to end. It needs libpower_cut."""
        return f"POWER_CUT={cut.number}{'' if cut.stored is None else f':{self.bytes_to_store(cut)}'}" if cut else ""

    def operations(self):
        """Those of the last command, which libpower_cut has listed in /tmp/log."""
        listed = []
        for line in self.guest.run("cat /tmp/log")[1].splitlines():
            device, kind, offset, length = line.split()
            if "sync" not in kind:
                name = list(self.PARTITIONS)[int(device.removeprefix(self.NODE))]
                listed.append(Operation(name, kind, int(offset), int(length)))
        return listed

    def cuts(self, _seconds):
        """After each operation of the command that ended just now, and within each write and erase."""
        cuts = []
        for number, operation in enumerate(self.operations(), 1):
            cuts.append(Cut(number, operation))
            if operation.kind != "property":
                cuts += [Cut(number, operation, stored) for stored in self.tears(operation)]
        return cuts

    def tears(self, operation):
        """How many bytes may be stored: half of them, or up to the beginning, the middle and the end of a record."""
        if operation.kind != "write":
            return [0]
        records = [at for first, end in RECORDS.get(operation.partition, []) for at in (first, (first + end) // 2, end)]
        within = {at - operation.offset for at in records} | {operation.length // 2}
        return sorted({self.whole_pages(at) for at in within if 0 < at < operation.length})

    def stop(self, cut=None):
        """The power fails at once. What was in progress at the cut is spoiled: it may be in the other slot."""
        operations = self.operations() if cut else []
        status, text = self.guest.run(self.SAVE)
        self.guest.kill()
        if status != 0:
            raise RuntimeError(f"the flash cannot be saved: {text}")
        self.image = bytearray((self.place / "chip").read_bytes())
        if cut and cut.stored is not None and len(operations) == cut.number:
            self.spoil(operations[-1], cut.stored)

    def noise(self, data):
        """@return data of which a random part of the zero bits has become ones, as in the middle of an operation"""
        mask = self.draw.randbytes(len(data))
        return bytes(byte | random for byte, random in zip(data, mask))

    @staticmethod
    def fragile(cuts):
        """Of the cuts of a command, those that a lost change of a record makes dangerous: within an image."""
        return [cut for cut in cuts if cut.operation.partition not in RECORDS and cut.stored is not None]

    def sample(self, cuts):
        """Of the cuts of a command: in an image, the first erase of misc, the switch torn at the block, its end."""
        image = [cut for cut in cuts if cut.operation.partition not in RECORDS and cut.stored]
        misc = [cut for cut in cuts if cut.operation.partition == "misc" and cut.operation.kind != "property"]
        torn = [cut for cut in misc if cut.stored and cut.stored - self.whole_pages(2064) + cut.operation.offset == 0]
        return [image[-1], misc[0], torn[-1], [cut for cut in misc if cut.stored is None][-1]]


class Nor(Flash):
    """Partitions of a disk that the kernel's block2mtd presents as flash without pages."""

    WORD, NODE, SAVE = "nor", "/dev/mtd", "sync"
    ERASE = 64 * KIB
    PARTITIONS = {"misc": 128 * KIB, "ubootenv": 256 * KIB, "boot_a": 128 * KIB, "boot_b": 128 * KIB,
                  "system_a": 384 * KIB, "system_b": 384 * KIB}

    def __init__(self, place, draw, _saved):
        super().__init__(place, draw)
        gpt.write(self.place / "chip", self.PARTITIONS.items())
        self.image = bytearray((self.place / "chip").read_bytes())
        for name, size in self.PARTITIONS.items():
            self.write(name, 0, b"\xff" * size)

    def attach(self):
        driver = "/sys/module/block2mtd/parameters/block2mtd"
        return [f"echo /dev/vda{number},{self.ERASE} >{driver}" for number in range(1, len(self.PARTITIONS) + 1)]

    def at(self, name, offset):
        return gpt.ALIGNMENT * gpt.SECTOR * (list(self.PARTITIONS).index(name) + 1) + offset

    def read(self, name, offset, length):
        return bytes(self.image[self.at(name, offset) :][:length])

    def write(self, name, offset, data):
        self.image[self.at(name, offset) : self.at(name, offset) + len(data)] = data

    def erase(self, name, offset):
        self.write(name, offset // self.ERASE * self.ERASE, b"\xff" * self.ERASE)

    @staticmethod
    def whole_pages(length):
        return length

    @staticmethod
    def bytes_to_store(cut):
        return cut.stored

    def spoil(self, operation, _stored):
        """An erase has reached the middle of the block."""
        if operation.kind == "erase":
            half, start = self.ERASE // 2, operation.offset
            old = self.read(operation.partition, start + half, half)
            self.write(operation.partition, start, b"\xff" * half + self.noise(old))


class Chip(Flash):
    """A NAND chip with bad blocks. A page whose spare area is erased gets its ECC when the chip is restored."""

    def page(self, number):
        return self.image[number * RECORD : number * RECORD + PAGE]

    def set_page(self, number, data, spare=b"\xff" * SPARE):
        self.image[number * RECORD : (number + 1) * RECORD] = data + spare

    def spoil_page(self, number):
        """A page whose programming was interrupted, with an ECC that does not match and the mark of a good block."""
        record = self.noise(self.image[number * RECORD : (number + 1) * RECORD])
        self.set_page(number, record[:PAGE], b"\xff\xff" + self.draw.randbytes(SPARE - 2))

    def read(self, name, offset, length):
        """Without checking the ECC."""
        data, first = bytearray(), offset // PAGE * PAGE
        for start in range(first, offset + length, PAGE):
            number = self.page_of(name, start)
            data += b"\xff" * PAGE if number is None else self.page(number)
        return bytes(data[offset - first :][:length])

    def write(self, name, offset, data):
        """As the kernel reads it afterwards; the pages around keep their state."""
        first = offset // PAGE * PAGE
        pages = bytearray(self.read(name, first, -(-(offset - first + len(data)) // PAGE) * PAGE))
        pages[offset - first : offset - first + len(data)] = data
        for start in range(0, len(pages), PAGE):
            self.set_page(self.page_of(name, first + start), pages[start : start + PAGE])

    @staticmethod
    def whole_pages(length):
        return length // PAGE * PAGE

    @staticmethod
    def bytes_to_store(cut):
        """The page in progress is written, and then spoiled."""
        return cut.stored + PAGE if cut.operation.kind == "write" else 0

    def spoil(self, operation, stored):
        if operation.kind == "write":
            self.spoil_page(self.page_at(operation.partition, operation.offset + stored))
            return
        first = self.first_page(operation)
        if first is not None:
            for number in range(first, first + PAGES // 2):
                self.set_page(number, b"\xff" * PAGE)
            self.spoil_page(first + PAGES // 2)


class Nand(Chip):
    WORD, NODE = "nand", "/dev/mtd"
    PARTITIONS = {"misc": 2, "ubootenv": 3, "boot_a": 4, "boot_b": 4, "system_a": 6, "system_b": 6}  # blocks
    BAD = (5, 14, 20)  # the first block of boot_a, the second one of each system
    SAVE = "chip_copy save /dev/vda /dev/mtd[0-5]"

    def __init__(self, place, draw, _saved):
        super().__init__(place, draw)
        self.image = bytearray(b"\xff" * (sum(self.PARTITIONS.values()) * PAGES * RECORD))

    def attach(self):
        parts, bad = (",".join(map(str, numbers)) for numbers in (self.PARTITIONS.values(), self.BAD))
        return [f"modprobe nandsim {CHIP_ID} overridesize=5 parts={parts} badblocks={bad}",
                "chip_copy restore /dev/vda /dev/mtd[0-5]"]

    def first_block(self, name):
        names = list(self.PARTITIONS)
        return sum(self.PARTITIONS[other] for other in names[: names.index(name)])

    def page_at(self, name, offset):
        """The page at an offset on the device."""
        return self.first_block(name) * PAGES + offset // PAGE

    def page_of(self, name, offset):
        """The page at an offset of what the partition holds, without the bad blocks."""
        first = self.first_block(name)
        good = [block for block in range(first, first + self.PARTITIONS[name]) if block not in self.BAD]
        return good[offset // BLOCK] * PAGES + offset % BLOCK // PAGE

    def first_page(self, operation):
        return self.page_at(operation.partition, operation.offset)

    def erase(self, name, offset):
        first = self.page_of(name, offset // BLOCK * BLOCK)
        for number in range(first, first + PAGES):
            self.set_page(number, b"\xff" * PAGE)


class Ubi(Chip):
    """Volumes on a NAND chip with bad blocks. The bootloader only reads misc when it has lost the slot block."""

    WORD, NODE = "nand", "/dev/ubi0_"
    LEB = BLOCK - PAGE
    PARTITIONS = {"misc": 2, "ubootenv": 3, "boot_a": 2, "boot_b": 2, "system_a": 4, "system_b": 4}  # LEBs
    BAD = (6, 17)
    SAVE = "chip_copy save /dev/vda /dev/mtd0"
    erase = None

    def __init__(self, place, draw, saved):
        super().__init__(place, draw)
        self.image = bytearray(b"\xff" * (64 * PAGES * RECORD))
        self.start(saved, self.make_volumes())
        self.stop()

    def attach(self):
        bad = ",".join(map(str, self.BAD))
        return [f"modprobe nandsim {CHIP_ID} overridesize=6 badblocks={bad}",
                "chip_copy restore /dev/vda /dev/mtd0", "ubiattach -m 0"]

    def make_volumes(self):
        """Fills them, so that every LEB is mapped and can be written from outside."""
        commands = []
        for number, (name, lebs) in enumerate(self.PARTITIONS.items()):
            size = lebs * self.LEB
            commands += [f"ubimkvol /dev/ubi0 -N {name} -S {lebs}",
                         f"head -c {size} /dev/zero | ubiupdatevol -s {size} {self.NODE}{number} -"]
        return commands

    def block_of(self, name, leb):
        """The block that holds a LEB, by the headers in its first page; None if the LEB is not mapped."""
        found = {}
        for block in range(len(self.image) // (PAGES * RECORD)):
            page = self.page(block * PAGES)
            magic, volume, number = struct.unpack_from(">4s4xII", page, VOLUME_HEADER)
            wanted = (b"UBI#", b"UBI!", list(self.PARTITIONS).index(name), leb)
            if (page[:4], magic, volume, number) == wanted:
                found[struct.unpack_from(">Q", page, VOLUME_HEADER + 40)[0]] = block
        return found[max(found)] if found else None

    def page_of(self, name, offset):
        block = self.block_of(name, offset // self.LEB)
        return None if block is None else block * PAGES + 1 + offset % self.LEB // PAGE

    page_at = page_of

    def first_page(self, operation):
        block = self.block_of(operation.partition, operation.offset)
        return None if block is None else block * PAGES


MEDIA = {"nand": Nand, "ubi": Ubi, "nor": Nor}
