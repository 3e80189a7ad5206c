# SPDX-License-Identifier: Apache-2.0
"""The library compared with the usual programs, and with the minimum that the work can cost."""

import json
import os
import pathlib
import shutil
import subprocess
import tempfile

from measure import Command, Row, compare, median, peak_memory, row, seconds

TOP = pathlib.Path(__file__).resolve().parents[1]
BUILD = TOP / "build" / "bench"
JOB = BUILD / "bench" / "bench_job"
KIB, MIB, GIB = 1 << 10, 1 << 20, 1 << 30
FLASH_CHUNK = 2099200
ERASE_SIZE = 128 * KIB


def single_calls(rounds):
    """In one process: Google Benchmark alternates the calls, and processor time is compared."""
    output = subprocess.run([BUILD / "bench" / "bench_calls", f"--benchmark_repetitions={rounds}",
                           "--benchmark_enable_random_interleaving=true", "--benchmark_format=json"],
                          check=True, capture_output=True, text=True).stdout
    figures = {}
    for one in json.loads(output)["benchmarks"]:
        if one["run_type"] == "iteration":
            figures.setdefault(one["name"].split("/")[0], []).append({"cpu": one["cpu_time"] / 1e9})
    for work, ours, theirs, other_name in (("MD5 of 256 MiB in memory", "md5_tessera", "md5_openssl", "OpenSSL's EVP"),
                                           ("CRC32 of 256 MiB", "crc32_tessera", "crc32_plain", "a plain loop")):
        own, other = median(figures[ours], "cpu"), median(figures[theirs], "cpu")
        yield Row(work, other_name, other / own, ">= 1.0", other / own >= 0.995,
                  f"{256 / own:.0f} MiB/s to {256 / other:.0f} MiB/s")


def digest_row(inputs, rounds, size=GIB):
    image = inputs.image(size)
    figures = compare([Command("MD5Dev", [JOB, "digest", image]), Command("md5sum", ["md5sum", image]),
                       Command("openssl dgst -md5", ["openssl", "dgst", "-md5", image])], rounds)
    faster = min(("md5sum", "openssl dgst -md5"), key=lambda name: median(figures[name]))
    yield row("MD5Dev of a cached 1 GiB file", figures, "MD5Dev", faster, ">= 1.0 of the faster", 1.0)


def stream_rows(inputs, rounds, size=GIB):
    image, node = inputs.image(size), inputs.node(size)
    for level, kind in ((0, "stored"), (6, "deflated")):
        package = inputs.package(image, level)
        pipe = f"unzip -p {package} {image.name} | dd of={node} bs=10M iflag=fullblock conv=notrunc status=none"
        figures = compare([Command("stream", [JOB, "stream", package, image.name, node]), Command("unzip \\| dd", pipe),
                           Command("the floor", [JOB, "floor", package, image.name, node]),
                           Command("the floor with a checksum", [JOB, "checked", package, image.name, node])], rounds)
        work = f"stream 1 GiB out of a package, {kind}"
        yield row(work, figures, "stream", "unzip \\| dd", "> 1.0", 1.0)
        yield row(work, figures, "stream", "the floor", ">= 0.95", 0.95)
        yield row(work, figures, "stream", "the floor with a checksum", "", 0.95)


def copy_row(inputs, rounds, size=GIB):
    image, node = inputs.image(size), inputs.node(size)
    dd = ["dd", f"if={image}", f"of={node}", "bs=10M", "conv=notrunc", "status=none"]
    figures = compare([Command("copy", [JOB, "copy", image, node]), Command("dd bs=10M", dd)], rounds)
    yield row("copy 1 GiB, partition to partition", figures, "copy", "dd bs=10M", ">= 0.9", 0.9)


def unpack_rows(inputs, rounds, files=5000, size=300 * MIB):
    package, tree = inputs.tree_package(files, size), inputs.disk / "tree"

    def clear():
        shutil.rmtree(tree, ignore_errors=True)
        tree.mkdir()
        os.sync()

    figures = compare([Command("unpack", [JOB, "unpack", package, tree], clear),
                       Command("unzip", ["unzip", "-q", package, "-d", tree], clear),
                       Command("bsdtar", ["bsdtar", "-xf", package, "-C", tree], clear)], rounds)
    work = f"unpack a tree of {files} files, {size // MIB} MiB"
    yield row(work, figures, "unpack", "unzip", "> 1.0", 1.0)
    yield row(work, figures, "unpack", "bsdtar", "> 1.0", 1.0)
    shutil.rmtree(tree)


def size_rows(inputs, rounds, count=20000):
    package = inputs.many_entries(count)
    figures = compare([Command("size", [JOB, "size", package]), Command("unzip -Z1 \\| wc", f"unzip -Z1 {package} | wc"),
                       Command("zipinfo -t", ["zipinfo", "-t", package])], 3 * rounds)
    for theirs in ("unzip -Z1 \\| wc", "zipinfo -t"):
        yield row(f"size a package of {count} entries", figures, "size", theirs, "> 1.0", 1.0)


def nand_operations(inputs, image, blocks):
    """Streams an image to a simulated NAND of `blocks` blocks. @return the number of operations by kind"""
    node, package = inputs.node(blocks * ERASE_SIZE, "mtd0"), inputs.package(image, 1)
    with tempfile.TemporaryDirectory() as scratch:
        journal = pathlib.Path(scratch) / "journal"
        subprocess.run([JOB, "stream", package, image.name, node], check=True, stdout=subprocess.DEVNULL,
                       env=nand_environment(scratch, node, {"TESSERA_FLASH_JOURNAL": str(journal)}))
        counts = {}
        for line in journal.read_text().splitlines():
            kind = line.split()[1]
            counts[kind] = counts.get(kind, 0) + 1
    if node.read_bytes()[:image.stat().st_size] != image.read_bytes():
        raise RuntimeError("the image on the simulated NAND is not the one that was streamed")
    return counts


def nand_environment(scratch, node, extra=None):
    conf = pathlib.Path(scratch) / "flash.conf"
    conf.write_text(f"{node} mtd erasesize={ERASE_SIZE} writesize=2048 state={scratch}/state\n")
    return {**os.environ, "LD_PRELOAD": str(BUILD / "simulator" / "libtessera_flash.so"),
            "TESSERA_FLASH_CONF": str(conf), **(extra or {})}


def blocks_touched(size):
    """Each chunk rewrites every block that it touches: this is the minimum for the chunk size."""
    touched = 0
    for start in range(0, size, FLASH_CHUNK):
        end = min(start + FLASH_CHUNK, size)
        touched += (end - 1) // ERASE_SIZE - start // ERASE_SIZE + 1
    return touched


def nand_row(inputs, _rounds, size=64 * MIB):
    counts = nand_operations(inputs, inputs.image(size, "nand.img"), 1024)
    least = blocks_touched(size)
    kinds = ("MEMERASE64", "pread", "pwrite")
    found = sum(counts[kind] for kind in kinds)
    yield Row("NAND: a 64 MiB image", "the least that the chunk size allows", 3 * least / found, "1.0, counted",
              all(counts[kind] == least for kind in kinds),
              ", ".join(f"{counts[kind]} {kind}" for kind in kinds) + f" to {least} each")


def cost_rows(inputs, rounds):
    """Time by size: 1.0 means that the largest costs as much per byte (entry, block) as the smallest."""
    sizes = (64 * MIB, 256 * MIB, GIB, 4 * GIB - MIB)
    streams = []
    for size in sizes:
        image = inputs.image(size, f"cost{size // MIB}")
        package = inputs.package(image, 1)
        image.unlink()
        streams.append([JOB, "stream", package, image.name, inputs.node(size, "cost.node")])
        figures = compare([Command("stream", streams[-1])], rounds)["stream"]
        streams[-1] = (size / MIB, median(figures), peak_memory(streams[-1]))
        package.unlink()
    (inputs.place / "cost.node").unlink()
    yield cost_row("stream 64 MiB to 4 GiB", "MiB", streams)

    packages = []
    for count in (10, 1000, 20000):
        words = [JOB, "size", inputs.many_entries(count)]
        packages.append((count, median(compare([Command("size", words)], 3 * rounds)["size"]), peak_memory(words)))
    yield cost_row("size 10 to 20,000 entries", "entry", packages)

    devices = []
    for blocks in (1024, 8192):
        image = inputs.image(blocks * ERASE_SIZE, f"nand{blocks}")
        with tempfile.TemporaryDirectory() as scratch:
            node = inputs.node(blocks * ERASE_SIZE, "mtd0")
            environment = nand_environment(scratch, node)
            words = ["env", *(f"{name}={environment[name]}" for name in ("LD_PRELOAD", "TESSERA_FLASH_CONF")),
                     JOB, "stream", inputs.package(image, 1), image.name, node]
            devices.append((blocks, median(compare([Command("nand", words)], rounds)["nand"]), None))
    yield cost_row("fill a NAND of 1,024 and 8,192 blocks", "block", devices)


def cost_row(work, unit, points):
    """`points`: (amount, seconds, KiB). The cost of the smallest is subtracted before the ratio is computed. Memory
    is None where most of it belongs to the simulator, which keeps the device in the measured process."""
    (small, start, least), (large, end, most) = points[0], points[-1]
    before = points[-2]
    slope_first = (before[1] - start) / (before[0] - small) if len(points) > 2 else start / small
    slope_last = (end - before[1]) / (large - before[0]) if len(points) > 2 else end / large
    straight = slope_first / slope_last
    measured = ", ".join(f"{amount:.0f}: {seconds(time)}" + (f" {memory} KiB" if memory else "")
                         for amount, time, memory in points)
    goal = "linear, memory constant" if most else "linear"
    constant = not most or most - least < 1024
    return Row(work, "a straight line", straight, goal, straight >= 0.8 and constant, f"by {unit}: {measured}")


def text_row(_inputs, _rounds):
    library = BUILD / "src" / "libtessera.so.1"
    with tempfile.NamedTemporaryFile() as stripped:
        subprocess.run(["strip", "-o", stripped.name, library], check=True)
        output = subprocess.run(["size", "-B", stripped.name], check=True, capture_output=True, text=True).stdout
    text = int(output.splitlines()[1].split()[0])
    yield Row("the stripped library's text", "96 KiB", 96 * KIB / text, "below", text < 96 * KIB, f"{text} bytes")
