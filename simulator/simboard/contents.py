# SPDX-License-Identifier: Apache-2.0
"""
What the partitions of a board hold, compared with copies of the board from before and after a command.

A slot is whole if all its partitions are as before the command, or all are as after it. On flash a block is erased
and written as a whole, so a cut in the block where an image ends may erase what follows the image. That is no
damage: after the last byte that the command changes, the rest of its erase block may be erased.
"""

from . import driver, slots

CHUNK = 1 << 20
RECORDS = ("misc", "ubootenv")  # they hold no images, and each step of a command may change them


def slot_partitions(board, slot):
    return [device.name for device in board.devices if device.name.endswith(f"_{slots.letter(slot)}")]


def chunks(board, name):
    """The stored bytes, by erase block or MiB. A bad block counts: a program may not write to one."""
    size = board.medium.erase_size if board.medium.is_flash() else CHUNK
    with open(board.backing(board.device(name)), "rb") as file:
        while chunk := file.read(size):
            yield chunk


def last_difference(board, other, name):
    """@return the end of the last byte that differs between two boards; 0 without a difference"""
    offset, last = 0, None
    for here, there in zip(chunks(board, name), chunks(other, name)):
        if here != there:
            last = offset, here, there
        offset += len(here)
    if last is None:
        return 0
    start, here, there = last
    return start + max(at for at in range(len(here)) if here[at] != there[at]) + 1


def is_equal(board, reference, name, end=None):
    """
    Whether a partition holds what it holds in the reference, and all of it can be read.
    @param end  of what the command changed: the rest of its erase block may be erased. None: everything has to agree.
    """
    offset = 0
    for here, there in zip(chunks(board, name), chunks(reference, name)):
        ends_here = end is not None and offset < end < offset + len(here)
        length = end - offset if ends_here and board.medium.is_flash() else len(here)
        if here[:length] != there[:length] or not is_readable(board, reference, name, offset, length):
            return False
        if here[length:] != there[length:] and not may_follow(here[length:], there[length:]):
            return False
        offset += len(here)
    return True


def may_follow(found, expected):
    return all(byte in (0xFF, wanted) for byte, wanted in zip(found, expected))


def is_readable(board, reference, name, offset, length):
    """Whether each page of a range can be read that can be read in the reference."""
    size = board.medium.write_size
    pages = slice(offset // size, (offset + length - 1) // size + 1)
    unreadable = driver.unreadable_pages(board, name)[pages]
    known = driver.unreadable_pages(reference, name)[pages].ljust(len(unreadable), b"\0")
    return all(page <= before for page, before in zip(unreadable, known))


class Change:
    """What a command changes: boards from before and after it, and for each partition where the change ends."""

    def __init__(self, before, after):
        self.before, self.after = before, after
        names = [device.name for device in before.devices if device.name not in RECORDS]
        self.ends = {name: last_difference(before, after, name) for name in names}

    def changed(self):
        return [name for name, end in self.ends.items() if end]

    def is_after(self, board, names):
        return all(is_equal(board, self.after, name, self.ends[name]) for name in names)

    def is_before(self, board, names):
        return all(is_equal(board, self.before, name) for name in names)

    def is_whole(self, board, slot):
        names = slot_partitions(board, slot)
        return self.is_before(board, names) or self.is_after(board, names)

    def damaged(self, board, slot):
        """@return the partitions of a slot that are neither as before nor as after"""
        return [name for name in slot_partitions(board, slot)
                if not self.is_before(board, [name]) and not self.is_after(board, [name])]

    def is_complete(self, board):
        """
        Whether the running slot, and what belongs to no slot, are as after the command. If another slot runs than
        after the command, then what the command changes has to be in that one, or all that the slot holds if it
        changes nothing.
        """
        running, goal = board.running_slot(), self.after.running_slot()
        shared = [name for name in self.changed() if name[-2:] not in ("_a", "_b", "_c")]
        if running == goal:
            return self.is_after(board, slot_partitions(board, goal) + shared)
        images = slot_partitions(board, goal)
        changed = [name for name in images if self.ends[name]]
        return self.is_after(board, shared) and all(
            self.holds_image(board, name[:-1] + slots.letter(running), name) for name in changed or images)

    def holds_image(self, board, name, source):
        """Whether a partition begins with what the command has changed in the other slot, bad blocks left out."""
        end = self.ends[source] or self.after.backing(self.after.device(source)).stat().st_size
        end -= bad_bytes_before(self.after, source, end)
        with board.logical_file(board.device(name)) as found, self.after.logical_file(
                self.after.device(source)) as wanted:
            return found.read(end) == wanted.read(end)


def bad_bytes_before(board, name, end):
    size = board.medium.erase_size
    return sum(size for block in board.device(name).bad if (block + 1) * size <= end)
