# SPDX-License-Identifier: Apache-2.0
"""A GPT of consecutive partitions, as on the eMMC of a board."""

import struct
import uuid
import zlib

SECTOR = 512
ENTRY_COUNT = 128
ENTRY_SIZE = 128
TABLE_SECTORS = ENTRY_COUNT * ENTRY_SIZE // SECTOR
FIRST_USABLE = 2 + TABLE_SECTORS
ALIGNMENT = 2048  # sectors
LINUX_DATA = uuid.UUID("0fc63daf-8483-4772-8e79-3d69d8477de4")
HEADER = struct.Struct("<8sIIII4Q16sQIII")


def offsets(partitions):
    """@return where write() puts each partition, in bytes, by its name"""
    found, start = {}, ALIGNMENT * SECTOR
    for name, size in partitions:
        found[name] = start
        start += -(-size // (ALIGNMENT * SECTOR)) * ALIGNMENT * SECTOR
    return found


def write(path, partitions):
    """Creates the file `path` as a disk with a GPT; `partitions` are pairs of a name and a size in bytes."""
    entries, start = b"", ALIGNMENT
    for name, size in partitions:
        sectors = -(-size // SECTOR)
        entries += entry(name, start, start + sectors - 1)
        start += -(-sectors // ALIGNMENT) * ALIGNMENT
    entries = entries.ljust(ENTRY_COUNT * ENTRY_SIZE, b"\0")
    last = start + TABLE_SECTORS  # the mirror of the table and its header end the disk
    disk = uuid.uuid4().bytes_le
    with open(path, "wb") as file:
        file.truncate((last + 1) * SECTOR)
        file.write(protective_mbr(last))
        file.write(header(1, last, 2, disk, entries))
        file.write(entries)
        file.seek((last - TABLE_SECTORS) * SECTOR)
        file.write(entries)
        file.write(header(last, 1, last - TABLE_SECTORS, disk, entries))


def entry(name, first, last):
    label = name.encode("utf-16-le").ljust(72, b"\0")
    return LINUX_DATA.bytes_le + uuid.uuid4().bytes_le + struct.pack("<QQQ", first, last, 0) + label


def header(own, other, table, disk, entries):
    """The header for sector `own`; the last usable sector is the one before the mirrored table."""
    last_usable = max(own, other) - TABLE_SECTORS - 1
    fields = [b"EFI PART", 0x10000, HEADER.size, 0, 0, own, other, FIRST_USABLE, last_usable, disk, table,
              ENTRY_COUNT, ENTRY_SIZE, zlib.crc32(entries)]
    fields[3] = zlib.crc32(HEADER.pack(*fields))
    return HEADER.pack(*fields).ljust(SECTOR, b"\0")


def protective_mbr(last):
    record = struct.pack("<B3sB3sII", 0, b"\0\2\0", 0xEE, b"\xff\xff\xff", 1, min(last, 0xFFFFFFFF))
    return bytes(446) + record + bytes(48) + b"\x55\xaa"
