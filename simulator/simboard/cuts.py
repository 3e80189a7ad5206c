# SPDX-License-Identifier: Apache-2.0
"""The power cuts of a campaign: after every device operation of a command, and within those that change something."""

from dataclasses import dataclass

from . import slots

CHANGES = ("pwrite", "fsync", "MEMERASE", "MEMERASE64", "UBI_IOCEBER", "UBI_IOCEBUNMAP", "UBI_IOCSETVOLPROP",
           "MEMSETBADBLOCK")
PAGE = 2048  # bytes between the places where a write to flash is torn
RECORDS = {  # by partition: first byte and end of each
    "misc": [(slots.OFFSET, slots.OFFSET + slots.SIZE)],
    "ubootenv": [(0x30000, 0x3054C), (0x30880, 0x30890)],  # update status, anti-rollback record
}

READ = "after a read or query"
CHANGE = "after a change"
CHANGE_CACHED = "after a change, cache half lost"
WITHIN = "within a change"
WITHIN_CACHED = "within a change, cache half lost"
AT_RECORD = "within a write, at a record"
AT_PAGE = "within a write, at a page"
KINDS = (READ, CHANGE, CHANGE_CACHED, WITHIN, WITHIN_CACHED, AT_RECORD, AT_PAGE)


@dataclass(frozen=True)
class Operation:
    device: str  # the file name of its node
    kind: str
    place: str  # "POSITION", "POSITION+LENGTH" or "="

    def changes(self):
        return self.kind in CHANGES


@dataclass(frozen=True)
class Cut:
    number: int  # of the last operation, from 1
    way: str  # as in a fault rule: "", "tear", "tear=2048", "seed=1" or "tear seed=1"
    kind: str

    def name(self):
        return f"{self.number} {self.way}".rstrip()

    def fault(self):
        return f"cut {self.name()} kill"

    def is_within(self):
        return "tear" in self.way


def read_journal(path):
    return [Operation(*line.split()[:3]) for line in path.read_text().splitlines()]


def plan(board, operations, seed):
    """
    All cuts of a command with these operations.
    @param seed  of the sectors that survive in a disk's cache; that of a cut within an operation is one higher
    """
    cuts = []
    for number, operation in enumerate(operations, 1):
        if not operation.changes():
            cuts.append(Cut(number, "", READ))
            continue
        cuts += [Cut(number, "", CHANGE), Cut(number, "tear", WITHIN)]
        if not board.medium.is_flash():
            cuts += [Cut(number, f"seed={seed}", CHANGE_CACHED), Cut(number, f"tear seed={seed + 1}", WITHIN_CACHED)]
        elif operation.kind == "pwrite":
            cuts += torn_writes(board, number, operation)
    return cuts


def torn_writes(board, number, operation):
    """Cuts within a write to flash: at each page, and at the first byte, in the middle and at the end of a record."""
    start, length = (int(word) for word in operation.place.split("+"))
    name = next((device.name for device in board.devices if device.node.endswith(f"/{operation.device}")), None)
    places = {place for first, end in RECORDS.get(name, []) for place in (first, (first + end) // 2, end)}
    within = sorted(place - start for place in places if start <= place < start + length)
    pages = sorted(set(range(0, length, PAGE)) - set(within))
    return ([Cut(number, f"tear={place}", AT_RECORD) for place in within]
            + [Cut(number, f"tear={place}", AT_PAGE) for place in pages])


def sample(cuts, every):
    """Every Nth cut of each kind, the first one included, so that none of the kinds is left out."""
    by_kind = [[cut for cut in cuts if cut.kind == kind] for kind in KINDS]
    return [cut for some in by_kind for cut in some[::every]]


def only(cuts, name):
    """@return a list of the cut with this name; empty if there is none"""
    return [cut for cut in cuts if cut.name() == " ".join(name.split())]
