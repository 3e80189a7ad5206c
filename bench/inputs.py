# SPDX-License-Identifier: Apache-2.0
"""The input files: always the same bytes, made once per run."""

import pathlib
import random
import struct
import subprocess
import zipfile

MIB, GIB = 1 << 20, 1 << 30
PIECE = 64 << 10


class Inputs:
    """`place` holds images and partitions, `disk` what exercises a file system."""

    def __init__(self, place, disk):
        self.place, self.disk = pathlib.Path(place), pathlib.Path(disk)
        self.pool = make_pool()

    def image(self, size, name="img"):
        path = self.place / name
        if not path.exists() or path.stat().st_size != size:
            choice = random.Random(size)
            with open(path, "wb") as file:
                for _ in range(size // PIECE):
                    file.write(choice.choice(self.pool))
                file.write(bytes(size % PIECE))
        return path

    def node(self, size, name="node"):
        """A fully allocated partition, so that its allocation is not measured."""
        path = self.place / name
        if not path.exists() or path.stat().st_size != size:
            with open(path, "wb") as file:
                for start in range(0, size, MIB):
                    file.write(b"\xff" * min(MIB, size - start))
        return path

    def package(self, image, level):
        path = self.place / f"{image.name}-{level}.zip"
        if not path.exists():
            subprocess.run(["zip", "-q", "-j", f"-{level}", path, image], check=True)
        return path

    def tree_package(self, files, size):
        """Shaped like a root file system: many small files, few large ones."""
        path = self.disk / "tree.zip"
        choice = random.Random(files)
        weights = [choice.lognormvariate(0, 1.6) for _ in range(files)]
        with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as package:
            for number, weight in enumerate(weights):
                length = int(size * weight / sum(weights))
                data = b"".join(choice.choice(self.pool) for _ in range(length // PIECE + 1))[:length]
                package.writestr(f"usr/lib/part{number % 40}/sub{number % 200}/file{number}", data)
        return path

    def many_entries(self, count):
        path = self.place / f"{count}.zip"
        with zipfile.ZipFile(path, "w", zipfile.ZIP_STORED) as package:
            for number in range(count):
                package.writestr(f"usr/lib/modules/group{number % 100}/entry{number:05}.ko", bytes(number % 50))
        return path


def make_pool():
    """Pieces of a system image: text, tables, incompressible bytes and zeros."""
    source = random.Random(1)
    words = [bytes(source.choices(b"etaoinshrdlucmfwypvbgkjqxz", k=source.randint(2, 9))) for _ in range(4000)]
    weights = [1 / (rank + 1) for rank in range(len(words))]
    makers = {
        "text": lambda: b" ".join(source.choices(words, weights, k=PIECE // 3)),
        "table": lambda: b"".join(struct.pack("<IIHH", 0x1000 + 64 * row, source.randrange(4096),
                                              source.randrange(16), source.getrandbits(16))
                                  for row in range(PIECE // 12 + 1)),
        "dense": lambda: source.randbytes(PIECE),
        "empty": lambda: bytes(PIECE),
    }
    shares = ["text"] * 4 + ["table"] * 3 + ["dense"] * 2 + ["empty"]
    return [makers[kind]()[:PIECE].ljust(PIECE, b"\n") for kind in shares * 20]
