# SPDX-License-Identifier: Apache-2.0
"""The directory that holds a board's state, and the creation of a new one."""

import pathlib
import re
import shutil
import struct
import subprocess
import tempfile
from dataclasses import dataclass

from . import BoardError, driver, gpt, slots

KIB, MIB = 1 << 10, 1 << 20
VERSION_FILE = "/usr/velox/version"
FACTORY_VERSION = "tessera_board_V1.0.0_20230101\n"
FACTORY_SYSTEM_SIZE = 2 * MIB


@dataclass(frozen=True)
class Medium:
    name: str
    word: str  # on the kernel command line
    node: str  # of a partition, with its number
    first: int  # number of the first partition
    system_size: int
    kind: str  # to the device simulator
    erase_size: int = 1
    write_size: int = 1

    def is_flash(self):
        return self.erase_size > 1


MEDIA = {
    medium.name: medium
    for medium in (
        Medium("emmc", "MMC", "/dev/block/mmcblk0p{}", 1, 64 * MIB, "block"),
        Medium("nand", "nand", "/dev/mtd{}", 0, 16 * MIB, "mtd", 128 * KIB, 2 * KIB),
        Medium("nor", "nor", "/dev/mtd{}", 0, 4 * MIB, "nor", 64 * KIB, 1),
        Medium("ubi", "nand", "/dev/ubi0_{}", 0, 16 * MIB, "ubi", 124 * KIB, 2 * KIB),
    )
}

PARTITIONS = {
    "misc": MIB,
    "ubootenv": MIB,
    "flashcmd": MIB,
    "miniboot_a": 4 * MIB,
    "miniboot_b": 4 * MIB,
    "uboot_a": 2 * MIB,
    "uboot_b": 2 * MIB,
    "vbmeta_a": MIB,
    "vbmeta_b": MIB,
    "boot_a": 4 * MIB,
    "boot_b": 4 * MIB,
    "system_a": None,
    "system_b": None,
}


@dataclass(frozen=True)
class Device:
    name: str
    node: str
    bad: tuple = ()


class Board:
    """An existing board. Every access reads its files again, so that a user or a test may edit them."""

    def __init__(self, directory):
        self.dir = directory.resolve()
        try:
            lines = (self.dir / "devices").read_text().splitlines()
        except OSError as error:
            raise BoardError(f"{directory} is not a board: {error.strerror}: devices") from error
        self.medium = MEDIA[lines[0].split()[1]]
        self.devices = [parse_device(line) for line in lines[1:]]

    def backing(self, device):
        return self.dir / "partitions" / device.name

    def device(self, name):
        for device in self.devices:
            if device.name == name:
                return device
        raise BoardError(f"the board has no partition {name}")

    def cmdline(self):
        return (self.dir / "cmdline").read_text().strip()

    def running_slot(self):
        return "abc".index(re.search(r"veloxboot\.slot_suffix=_([abc])", self.cmdline())[1])

    def come_up(self, slot):
        """Applies the effects of a boot: command line and system version change, /run and /tmp become empty."""
        suffix = f"veloxboot.slot_suffix=_{slots.letter(slot)}"
        (self.dir / "cmdline").write_text(re.sub(r"veloxboot\.slot_suffix=_\w", suffix, self.cmdline()) + "\n")
        version = self.version_in_slot(slot)
        path = self.dir / "velox" / "version"
        path.unlink(missing_ok=True)
        if version:
            path.write_text(version)
        for place in ("run", "tmp"):
            shutil.rmtree(self.dir / place)
            (self.dir / place).mkdir()

    def sync(self):
        """The first step of an orderly reboot. The state of a disk holds only what is not synced."""
        if not self.medium.is_flash():
            for path in (self.dir / "state").iterdir():
                path.unlink()

    def slot_block(self):
        return slots.SlotBlock(driver.read(self, "misc", slots.OFFSET, slots.SIZE))

    def save_slot_block(self, block):
        driver.write(self, "misc", slots.OFFSET, block.pack())

    def version(self):
        path = self.dir / "velox" / "version"
        return path.read_text().strip() if path.exists() else ""

    def fuses(self):
        path = self.dir / "efuse" / "counters"
        return ", ".join(path.read_text().splitlines()) if path.exists() else "sec 0, nosec 0"

    def names(self):
        """The names in the device tree, stored as the kernel presents them: NUL-terminated."""
        path = self.dir / "compatible"
        return path.read_text().split("\0")[:-1] if path.exists() else []

    def version_in_slot(self, slot):
        """The version file in the slot's system image; empty without an ext4 image that has one."""
        device = self.device(f"system_{slots.letter(slot)}")
        with self.logical_file(device) as image:
            command = ["/usr/sbin/debugfs", "-R", f"cat {VERSION_FILE}", image.name]
            return subprocess.run(command, capture_output=True, text=True, errors="replace", check=False).stdout

    def logical_file(self, device):
        """The partition as its driver presents it to a file system: without the bad blocks."""
        backing = open(self.backing(device), "rb")
        if not device.bad:
            return backing
        good = tempfile.NamedTemporaryFile()
        with backing:
            for number in range(self.backing(device).stat().st_size // self.medium.erase_size):
                block = backing.read(self.medium.erase_size)
                if number not in device.bad:
                    good.write(block)
        good.flush()
        good.seek(0)
        return good

    def write_logical(self, device, data):
        chunk = self.medium.erase_size if device.bad else len(data)
        number = 0
        with open(self.backing(device), "r+b") as backing:
            while data:
                if number not in device.bad:
                    backing.seek(number * chunk)
                    backing.write(data[:chunk])
                    data = data[chunk:]
                number += 1


def parse_device(line):
    name, node, *bad = line.split()
    return Device(name, node, tuple(int(number) for number in bad[0].split("=")[1].split(",")) if bad else ())


def create(directory, medium, bad, system_size, names=()):
    if directory.exists() and any(directory.iterdir()):
        raise BoardError(f"{directory} is not empty")
    if bad and medium.name != "nand":
        raise BoardError("only a NAND board has bad blocks")
    sizes = {name: whole_blocks(size or system_size or medium.system_size, medium) for name, size in PARTITIONS.items()}
    check_bad_blocks(medium, bad, sizes)
    check_room(medium, bad, sizes["system_a"])
    for part in ("partitions", "velox/share/ota", "efuse", "state", "userdata/ota", "run", "tmp"):
        (directory / part).mkdir(parents=True)
    (directory / "log").touch()
    (directory / "cmdline").write_text(
        f"console=ttyS0,115200 veloxboot.medium={medium.word} veloxboot.mode=normal veloxboot.slot_suffix=_a\n"
    )
    if names:
        (directory / "compatible").write_text("".join(f"{name}\0" for name in names))
    write_devices(directory, medium, bad, sizes)
    write_flash_commands(directory / "velox" / "share" / "ota")
    fill(Board(directory))


def whole_blocks(size, medium):
    return -(-size // medium.erase_size) * medium.erase_size


def check_bad_blocks(medium, bad, sizes):
    largest = max(sizes, key=sizes.get)
    blocks = sizes[largest] // medium.erase_size
    beyond = [number for number in bad if number >= blocks]
    if beyond:
        raise BoardError(f"no partition has a block {beyond[0]}: the largest, {largest}, has blocks 0 to {blocks - 1}")


def check_room(medium, bad, size):
    room = size - sum(number < size // medium.erase_size for number in bad) * medium.erase_size
    if room < FACTORY_SYSTEM_SIZE:
        raise BoardError(f"a system partition with room for {room // KIB} KiB is too small: the factory's system "
                         f"needs {FACTORY_SYSTEM_SIZE // KIB} KiB")


def write_devices(directory, medium, bad, sizes):
    """Creates the partition files, the list of devices for `run`, and the one for the device simulator."""
    lines, registry = [f"medium {medium.name}"], []
    for number, (name, size) in enumerate(sizes.items(), medium.first):
        node = medium.node.format(number)
        own_bad = ",".join(str(block) for block in bad if block < size // medium.erase_size)
        marks = f" bad={own_bad}" if own_bad else ""
        geometry = f" erasesize={medium.erase_size} writesize={medium.write_size}" if medium.is_flash() else ""
        lines.append(f"{name} {node}{marks}")
        registry.append(f"{node} {medium.kind} state=/board/state/{name}{geometry}{marks}")
        make_partition(directory / "partitions" / name, size, erased=medium.is_flash())
    if not medium.is_flash():
        lines.append("blk /dev/block/mmcblk0")
        gpt.write(directory / "partitions" / "blk", sizes.items())
    (directory / "flash.conf").write_text("\n".join(registry) + "\n")
    (directory / "devices").write_text("\n".join(lines) + "\n")


def make_partition(path, size, erased):
    with open(path, "wb") as file:
        if not erased:
            file.truncate(size)
            return
        for start in range(0, size, MIB):
            file.write(b"\xff" * min(MIB, size - start))


def write_flash_commands(directory):
    """Writes one command record: 4096 bytes for misc, unsigned."""
    magic, command_type, offset, length = 0x46434D44, 1, 0, 4096
    record = struct.pack("<4I", magic, command_type, offset, length)
    (directory / "misc_write_cmd").write_bytes(record.ljust(2272, b"\0"))


def fill(board):
    """Stores what the factory flashes: the slot block, and a system image with its version in both slots."""
    board.save_slot_block(slots.SlotBlock.factory())
    image = factory_system()
    for slot in (0, 1):
        board.write_logical(board.device(f"system_{slots.letter(slot)}"), image)
    board.come_up(0)


def factory_system():
    with tempfile.TemporaryDirectory() as scratch:
        root = pathlib.Path(scratch) / "root"
        file = pathlib.Path(f"{root}{VERSION_FILE}")
        file.parent.mkdir(parents=True)
        file.write_text(FACTORY_VERSION)
        image = pathlib.Path(scratch) / "image"
        mkfs = shutil.which("mkfs.ext4", path="/usr/sbin:/sbin")
        if mkfs is None:
            raise BoardError("mkfs.ext4 is missing: install e2fsprogs")
        command = [mkfs, "-q", "-O", "^has_journal", "-d", root, image, str(FACTORY_SYSTEM_SIZE // KIB)]
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
        return image.read_bytes()
