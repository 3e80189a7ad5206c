# SPDX-License-Identifier: Apache-2.0
"""
A partition as the drivers of a bootloader read and write it: a flash page whose ECC fails cannot be read, and a
block is read, erased and written as a whole. A LEB is accessed through its volume.
"""

from . import BoardError


def read(board, name, offset, size):
    """Reads bytes of the partition `name`. Raises BoardError when a page of them cannot be read."""
    with open(board.backing(board.device(name)), "rb") as backing:
        backing.seek(offset)
        data = backing.read(size)
    page_size = board.medium.write_size
    pages = unreadable_pages(board, name)
    if any(pages[offset // page_size : (offset + size - 1) // page_size + 1]):
        raise BoardError(f"the page at byte {offset // page_size * page_size} of {name} cannot be read")
    return data


def write(board, name, offset, data):
    """Writes bytes within one block of the partition. The rest of the block is kept as far as it can be read."""
    size, page_size = board.medium.erase_size, board.medium.write_size
    start = offset // size * size if board.medium.is_flash() else offset
    with open(board.backing(board.device(name)), "r+b") as backing:
        backing.seek(start)
        block = bytearray(backing.read(max(size, len(data))))
        pages = unreadable_pages(board, name)
        for page, unreadable in enumerate(pages[start // page_size : (start + size) // page_size]):
            if unreadable:
                block[page * page_size : (page + 1) * page_size] = b"\xff" * page_size
        block[offset - start : offset - start + len(data)] = data
        backing.seek(start)
        backing.write(block)
    if any(pages):
        make_readable(board, name, start // page_size, size // page_size)


def unreadable_pages(board, name):
    """A byte for each page, 1 where the device simulator has marked it; nothing on a medium without ECC."""
    path = state_path(board, name)
    if board.medium.write_size == 1 or not path.exists():
        return b""
    return path.read_bytes()[block_count(board, name) :]


def make_readable(board, name, first, count):
    with open(state_path(board, name), "r+b") as state:
        state.seek(block_count(board, name) + first)
        state.write(bytes(count))


def state_path(board, name):
    return board.dir / "state" / name


def block_count(board, name):
    """The bytes of the state before those of its pages, one for each block."""
    return board.backing(board.device(name)).stat().st_size // board.medium.erase_size
