# SPDX-License-Identifier: Apache-2.0
"""A machine's disk with a GPT, served with a volatile cache, and cuts of its power."""

import bisect
import collections
import threading
from dataclasses import dataclass

from simboard import gpt

from . import volatile_disk

KINDS = {volatile_disk.READ: "read", volatile_disk.WRITE: "write", volatile_disk.FLUSH: "flush"}
# Whether a sector survives that was not flushed. A disk may store writes in any order, so the last one may come first.
SURVIVORS = {
    "none": lambda disk, sector, draw: False,
    "half": lambda disk, sector, draw: draw.random() < 0.5,
    "last": lambda disk, sector, draw: sector in disk.last,
    "all": lambda disk, sector, draw: True,
}


@dataclass(frozen=True)
class Cut:
    """After the `count`-th request of this kind to a partition, or, without a kind, after a time in seconds."""

    kind: str
    partition: str  # without the slot
    count: float
    survivors: str

    def __str__(self):
        request = f"{self.kind} {self.count} of {self.partition}"
        place = request if self.kind else f"{self.count * 1000:.0f} ms"
        return f"after {place}, of the cache survives {self.survivors}"


class Emmc:
    """`odd` partitions do not end with a page of 4096 bytes: the kernel then stores their records by sectors."""

    cut_status = None  # of a command that a cut has ended: the machine is gone
    WORD = "MMC"  # on the kernel's command line
    PARTITIONS = {"misc": 64 << 10, "ubootenv": 256 << 10, "boot_a": 128 << 10, "boot_b": 128 << 10,
                  "system_a": 512 << 10, "system_b": 512 << 10}

    def __init__(self, place, draw, _saved=None, odd=False, ignores_flush=False):
        self.place, self.draw = place, draw
        sizes = [(name, size + odd * gpt.SECTOR) for name, size in self.PARTITIONS.items()]
        gpt.write(place / "disk", sizes)
        self.disk = volatile_disk.VolatileDisk((place / "disk").read_bytes(), ignores_flush)
        self.starts = [(gpt.ALIGNMENT * gpt.SECTOR) * number for number in range(1, len(sizes) + 1)]
        self.guest = self.timer = self.cut = None
        self.boots = 0

    def at(self, name, offset):
        return self.starts[list(self.PARTITIONS).index(name)] + offset

    def read(self, name, offset, length):
        return bytes(self.disk.stored[self.at(name, offset) :][:length])

    def write(self, name, offset, data):
        """Changes what is stored, as a factory or a bootloader does."""
        self.disk.stored[self.at(name, offset) : self.at(name, offset) + len(data)] = data

    def erase(self, name, offset):
        """A disk has nothing to erase."""

    def start(self, saved):
        """@return a machine with this disk and its partitions"""
        self.boots += 1
        path = self.place / f"disk.{self.boots}"
        self.requests, self.seconds, self.cut = [], collections.Counter(), None
        self.server = volatile_disk.Server(self.disk, path, self.after_request)
        self.guest = saved.start({"driver": "nbd", "server": {"type": "unix", "path": str(path)}})
        links = [f"partition {name} /dev/vda{number}" for number, name in enumerate(self.PARTITIONS, 1)]
        self.guest.run("; ".join(["attach_disk", *links]))
        return self.guest

    def after_request(self, kind, offset):
        number = bisect.bisect(self.starts, offset) - 1
        partition = "disk" if kind == volatile_disk.FLUSH or number < 0 else list(self.PARTITIONS)[number].split("_")[0]
        self.requests.append((KINDS[kind], partition))
        if self.cut and self.requests[-1] == (self.cut.kind, self.cut.partition):
            if self.requests.count(self.requests[-1]) == self.cut.count:
                self.guest.process.kill()
                raise volatile_disk.PowerFailed

    def cuts(self, seconds):
        """
        Cuts of the command that ended just now and took so many seconds: after each request, and as many at random
        moments. Only after a write does it matter what survives; it is random in the others.
        """
        counts, cuts = collections.Counter(), []
        for request in self.requests:
            counts[request] += 1
            for survivors in SURVIVORS if request[0] == "write" else ["half"]:
                cuts.append(Cut(*request, counts[request], survivors))
        return cuts + [Cut("", "", self.draw.uniform(0, seconds), "half") for _ in self.requests]

    @staticmethod
    def fragile(cuts):
        """Of the cuts of a command, those that a lost sync makes dangerous."""
        return [cut for cut in cuts if cut.survivors == "last"]

    @staticmethod
    def sample(cuts):
        """Of the cuts of a command: in an image, and in the switch with all that may survive."""
        writes = [cut for cut in cuts if cut.kind == "write"]
        images = [cut for cut in writes if cut.partition == "system" and cut.survivors == "half"]
        return [images[-1]] + [cut for cut in writes if cut.partition == "misc"][-len(SURVIVORS) :]

    def arm(self, cut):
        """The power fails during the next command. @return what to put before the command"""
        self.requests, self.cut = [], cut
        if cut and not cut.kind:
            self.timer = threading.Timer(cut.count, self.cut_power)
            self.timer.start()
        return ""

    def cut_power(self):
        self.guest.process.kill()
        self.server.cut_power()

    def stop(self, cut=None):
        """The power fails at once, if it has not yet. Without a cut, nothing survives that was not flushed."""
        if self.timer:
            self.timer.cancel()
            self.timer.join()
            self.timer = None
        self.cut_power()
        self.guest.kill()
        survives = SURVIVORS[cut.survivors if cut else "none"]
        self.disk.lose_power(lambda sector: survives(self.disk, sector, self.draw))
