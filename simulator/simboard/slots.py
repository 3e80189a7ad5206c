# SPDX-License-Identifier: Apache-2.0
"""The slot block in the partition misc, read and written as a bootloader does: with its checksum."""

import struct
import zlib
from dataclasses import dataclass

from . import BoardError

OFFSET = 2048  # bytes into misc
SIZE = 32
MAGIC = b"BCAB"
LAYOUT = struct.Struct("<4s4sBB2s4H8s")  # suffix, magic, version, slot count, -, slots, -; then the CRC-32


def letter(slot):
    return "abcd"[slot]


@dataclass
class Slot:
    priority: int
    tries: int
    marked: bool
    corrupted: bool = False
    reserved: int = 0

    @classmethod
    def from_word(cls, word):
        return cls(word & 15, word >> 4 & 7, bool(word >> 7 & 1), bool(word >> 8 & 1), word >> 9)

    def to_word(self):
        return self.priority | self.tries << 4 | self.marked << 7 | self.corrupted << 8 | self.reserved << 9

    def bootable(self):
        return self.tries > 0 and not self.corrupted

    def state(self):
        if self.corrupted:
            return "corrupted"
        if self.tries == 0:
            return "unbootable"
        return "confirmed" if self.marked else "trial"

    def rank(self):
        return (self.priority, self.marked, self.tries)


class SlotBlock:
    def __init__(self, raw):
        if len(raw) != SIZE or raw[4:8] != MAGIC:
            raise BoardError("misc holds no slot block")
        if zlib.crc32(raw[:28]) != int.from_bytes(raw[28:], "little"):
            raise BoardError("the slot block in misc has a wrong checksum")
        *self._head, self.count, self._rest, s0, s1, s2, s3, self._tail = LAYOUT.unpack(raw[:28])
        self._entries = [Slot.from_word(word) for word in (s0, s1, s2, s3)]
        self.slots = self._entries[: self.count & 7]

    @classmethod
    def factory(cls):
        """Two fresh slots, of which the first is known to be good."""
        return cls.of(Slot(15, 1, True), Slot(15, 7, False))

    @classmethod
    def fresh(cls):
        """Two slots on trial: what is written when no block can be read."""
        return cls.of(Slot(15, 7, False), Slot(15, 7, False))

    @classmethod
    def of(cls, first, second):
        body = LAYOUT.pack(b"a", MAGIC, 1, 2, bytes(2), first.to_word(), second.to_word(), 0, 0, bytes(8))
        return cls(seal(body))

    def pack(self):
        words = [slot.to_word() for slot in self._entries]
        return seal(LAYOUT.pack(*self._head, self.count, self._rest, *words, self._tail))

    def best(self):
        """The number of the slot to boot, None without a candidate. On a tie the lower number wins."""
        candidates = [number for number, slot in enumerate(self.slots) if slot.bootable()]
        return max(candidates, key=lambda number: self.slots[number].rank(), default=None)

    def table(self):
        lines = ["slot  state       priority  tries  marked good"]
        for number, slot in enumerate(self.slots):
            marked = "yes" if slot.marked else "no"
            lines.append(f"{letter(number):5} {slot.state():11} {slot.priority:8}  {slot.tries:5}  {marked}")
        return "\n".join(lines)


def seal(body):
    return body + zlib.crc32(body).to_bytes(4, "little")
