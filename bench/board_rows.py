# SPDX-License-Identifier: Apache-2.0
"""The tessera command on a board, compared with the distribution's programs that do the same work.

The board is simulated, but its partitions remain plain files: otherwise the device simulator, which tracks what is
synced, would dominate the results. Times are taken inside the board, so that starting it is not measured.
"""

import hashlib
import json
import os
import pathlib
import re
import shlex
import signal
import struct
import subprocess
import time
import zlib
from contextlib import contextmanager

from library_rows import BUILD, GIB, JOB, MIB, TOP
from measure import Command, Row, compare, median, peak_memory, ratio, row, seconds

WRITES = "write,pwrite64,writev,pwritev,pwritev2,copy_file_range,sendfile,splice"


class Board:
    def __init__(self, directory):
        self.dir = directory
        subprocess.run([TOP / "simulator" / "board", "new", directory, "--size-system", "1088M"], check=True)
        (directory / "flash.conf").write_text("")
        self.node = directory / "partitions" / "system_b"

    def run(self, *words):
        subprocess.run([TOP / "simulator" / "board", "run", self.dir, "--build", BUILD, "--with", self.dir.parent,
                        "--", "env", "-u", "LD_PRELOAD", *words], check=True, stdout=subprocess.DEVNULL)

    def take(self, command):
        """@return one sample, taken inside the board"""
        self.run("hyperfine", "--shell=none", "--style=none", "--runs=1", "--export-json=/userdata/result",
                 shlex.join(map(str, command.words)))
        timing = json.loads((self.dir / "userdata" / "result").read_text())["results"][0]
        return {"wall": timing["times"][0], "cpu": timing["user"] + timing["system"]}

    def peak(self, *words):
        self.run("/usr/bin/time", "-f", "%M", "-o", "/userdata/peak", *words)
        return int((self.dir / "userdata" / "peak").read_text())

    def written(self, *words):
        """@return the number of bytes that a command writes to the node of slot b's system"""
        node = next(line.split()[1] for line in (self.dir / "devices").read_text().splitlines()
                    if line.startswith("system_b "))
        self.run("strace", "-f", "-qq", "-o", "/userdata/calls", "-P", node, "-e", f"trace={WRITES}", *words)
        return counted(self.dir / "userdata" / "calls")


def counted(trace):
    return sum(int(result) for result in re.findall(r"= (\d+)$", trace.read_text(), re.MULTILINE))


def slots_rows(inputs, rounds):
    board = Board(inputs.disk / "board")
    variables = b"".join(f"name{number}=value{number}\0".encode() for number in range(20))
    data = variables.ljust(16380, b"\0")
    (board.dir / "userdata" / "env").write_bytes(struct.pack("<I", zlib.crc32(data)) + data)
    (board.dir / "userdata" / "env.config").write_text("/userdata/env 0x0 0x4000\n")
    ours, theirs = ["tessera", "slots", "--json"], ["fw_printenv", "-c", "/userdata/env.config"]
    figures = compare([Command("tessera", ours), Command("fw_printenv", theirs)], 3 * rounds, board.take)
    times = ratio(figures["fw_printenv"], figures["tessera"])
    yield Row("the slots, a whole process: wall time", "fw_printenv", times, ">= 0.5", times >= 0.5,
              f"{seconds(median(figures['tessera']))} to {seconds(median(figures['fw_printenv']))}")
    memory, other = board.peak(*ours), board.peak(*theirs)
    yield Row("the slots, a whole process: peak memory", "fw_printenv", other / memory, ">= 0.5", other / memory >= 0.5,
              f"{memory} KiB to {other} KiB")


def install_rows(inputs, rounds):
    board = Board(inputs.disk / "install")
    image = inputs.image(GIB)
    digests = {"md5": hashlib.md5(image.read_bytes()).hexdigest(),
               "sha256": hashlib.sha256(image.read_bytes()).hexdigest()}
    write_through(board.node, image)
    rounds = max(5, rounds // 2)
    yield from compared_with_its_parts(inputs, board, image, digests, rounds)
    yield from compared_with_others(inputs, board, image, digests, rounds)


def write_through(node, image):
    """Writes the whole node, so that allocation in the file system is not measured."""
    subprocess.run(["dd", f"if={image}", f"of={node}", "bs=10M", "conv=notrunc,fsync", "status=none"], check=True)


def make_different(node):
    """Invalidates the image on the node, syncs it and drops it from the cache."""
    with open(node, "r+b") as file:
        file.write(os.urandom(MIB))
        os.fsync(file.fileno())
        os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)


def tessera_package(inputs, image, digests, level):
    description = {"version": "V2.0.0", "partitions": [
        {"name": "system", "file": image.name, "medium": "emmc", "type": "ab", "method": "image",
         "size": image.stat().st_size, **digests}]}
    (inputs.place / "update.json").write_text(json.dumps(description))
    path = inputs.disk / f"update-{level}.zip"
    subprocess.run(["zip", "-q", "-j", f"-{level}", path, inputs.place / "update.json", image], check=True)
    return path


def framed_package(inputs, image):
    """With the description that tessera_package() left."""
    path = inputs.disk / "framed.zip"
    subprocess.run([BUILD / "tool" / "tessera", "pack", inputs.place / "update.json", image.parent, "-o", path],
                   check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return path


def compared_with_its_parts(inputs, board, image, digests, rounds):
    """The same image with and without a block map, beside what any installation has to do at least."""
    node, name = board.node, image.name
    plain = tessera_package(inputs, image, digests, 6)
    framed = framed_package(inputs, image)

    def fresh():
        make_different(node)

    def in_board(package):
        return ["tessera", "install", "--force", "--quiet", package]

    commands = [
        Command("inflate", [JOB, "floor", plain, name, "/dev/null"]),
        Command("dd", ["dd", f"if={image}", f"of={node}", "bs=10M", "conv=notrunc,fsync", "status=none"], fresh),
        Command("unzip \\| dd", f"unzip -p {plain} {name} | dd of={node} bs=1M iflag=fullblock conv=notrunc,fsync "
                              "status=none", fresh)]
    figures = {}
    for _ in range(rounds):
        turn = compare([Command("framed", in_board(framed), fresh), Command("plain", in_board(plain), fresh)], 1,
                       board.take)
        turn |= compare(commands, 1)
        for command, samples in turn.items():
            figures.setdefault(command, []).extend(samples)
    for work, ours, theirs, goal, least in (
            ("install 1 GiB, framed", "framed", "inflate", ">= 1.33", 4 / 3),
            ("install 1 GiB, one deflated stream", "plain", "inflate", ">= 0.80", 0.8),
            ("install 1 GiB, framed", "framed", "unzip \\| dd", ">= 2.0", 2),
            ("install 1 GiB, framed", "framed", "dd", ">= 0.67", 2 / 3)):
        yield row(work, figures, ours, theirs, goal, least)
    memory = board.peak(*in_board(framed))
    yield Row("install 1 GiB, framed: peak memory", "12 MiB", 12 * 1024 / memory, ">= 1.0", memory <= 12 * 1024,
              f"{memory} KiB")
    yield one_percent_row(board, framed)
    plain.unlink()
    framed.unlink()


def one_percent_row(board, package):
    """Every hundredth block of 4096 bytes of the installed image is changed."""
    changed = range(0, GIB // 4096, 100)
    with open(board.node, "r+b") as node:
        for block in changed:
            node.seek(4096 * block)
            node.write(bytes([255 - byte for byte in os.pread(node.fileno(), 4096, 4096 * block)]))
    written = board.written("tessera", "install", "--quiet", package)
    least = 4096 * len(changed)
    return Row("install 1 GiB, 1 % of the blocks differ: bytes written", "those blocks", least / written, "1.0",
               written == least, f"{written} to {least}")


def compared_with_others(inputs, board, image, digests, rounds):
    """Installs 1 GiB from a cached package onto a file, with its digest checked: stored, and deflated."""
    certificate, key = make_signer(inputs.disk)
    node = inputs.disk / "node"
    node.touch()
    os.truncate(node, GIB)
    write_through(node, image)
    for how, package in (("stored", tessera_package(inputs, image, digests, 0)),
                         ("deflated", framed_package(inputs, image))):
        ours = ["tessera", "install", "--quiet", package]
        swu = make_swu(inputs, image, digests["sha256"], certificate, key, how)
        bundle = make_bundle(inputs, image, certificate, key, how)
        swupdate = ["swupdate", "-M", "-m", "-l", "1", "-H", "bench:1.0", "-k", certificate, "-i", swu]
        with rauc_service(inputs.disk, certificate) as (rauc, service):
            commands = [Command("SWUpdate", swupdate, lambda: make_different(node)),
                        Command("RAUC", [*rauc, "install", bundle], lambda: make_different(node))]
            if how == "stored":
                commands.append(Command("copy", plain_copy(image, node), lambda: make_different(node)))
            figures = {}
            for _ in range(rounds):
                turn = compare([Command("tessera", ours, lambda: make_different(board.node))], 1, board.take)
                turn |= compare(commands, 1)
                for name, samples in turn.items():
                    figures.setdefault(name, []).extend(samples)
            peaks = {"RAUC": peak_of(service.pid)}
        if how == "stored":
            yield row("install 1 GiB, stored", figures, "tessera", "copy", ">= 0.8", 0.8)
        goal, least = (">= 2.0", 2) if how == "deflated" else ("> 1.0", 1)
        for name in ("SWUpdate", "RAUC"):  # wall time only: RAUC's work is done by its service
            times = ratio(figures[name], figures["tessera"])
            yield Row(f"install 1 GiB, {how}: wall time", name, times, goal, times >= least,
                      f"{seconds(median(figures['tessera']))} to {seconds(median(figures[name]))}")
        if how == "deflated":
            yield Row("install 1 GiB, deflated: wall time", "fwup", None, ">= 2.0", None,
                      "not measured: Debian 12 has no fwup")
        if how == "stored":
            yield from further_rows(inputs, board, peaks, ours, swupdate, bundle, certificate)
        for path in (package, swu, bundle):
            path.unlink()


def plain_copy(image, node):
    """Writes the image, syncs it, and computes SHA-256 of what the device then returns."""
    return (f"dd if={image} of={node} bs=1M conv=notrunc,fsync status=none && "
            f"dd if={node} bs=1M iflag=direct status=none | openssl dgst -sha256")


def further_rows(inputs, board, peaks, ours, swupdate, bundle, certificate):
    """What an installation needs and writes besides its time."""
    node = inputs.disk / "node"
    for path in (board.node, node):
        make_different(path)
    peaks |= {"tessera": board.peak(*ours), "SWUpdate": peak_memory(swupdate)}
    calls = inputs.disk / "calls"
    traced = ["strace", "-f", "-qq", "-o", calls, "-P", node, "-e", f"trace={WRITES}"]
    subprocess.run([*traced, *swupdate], check=True, stdout=subprocess.DEVNULL)
    written = {"tessera": board.written(*ours), "SWUpdate": counted(calls)}
    with rauc_service(inputs.disk, certificate, traced) as (rauc, _):
        subprocess.run([*rauc, "install", bundle], check=True, stdout=subprocess.DEVNULL)
    written["RAUC"] = counted(calls)
    for name in ("SWUpdate", "RAUC"):
        memory = peaks[name] / peaks["tessera"]
        yield Row("install 1 GiB, stored: peak memory", name, memory, "> 1.0", memory > 1,
                  f"{peaks['tessera']} KiB to {peaks[name]} KiB")
        yield Row("install the same again: bytes written", name, None, "0", written["tessera"] == 0,
                  f"{written['tessera']} to {written[name]}")


def flash_row(inputs, _rounds):
    """The requests of one installation to a NAND with bad blocks, counted by the device simulator."""
    size, erase_size = 64 * MIB, 128 << 10
    image, directory = inputs.image(size, "flash.img"), inputs.disk / "flash"
    simulator = TOP / "simulator" / "board"
    subprocess.run([simulator, "new", directory, "--medium", "nand", "--bad", "3,6", "--size-system", "66M"], check=True)
    description = {"version": "V2.0.0", "partitions": [
        {"name": "system", "file": image.name, "medium": "nand", "type": "ab", "method": "image", "size": size,
         "sha256": hashlib.sha256(image.read_bytes()).hexdigest()}]}
    (inputs.place / "update.json").write_text(json.dumps(description))
    package = framed_package(inputs, image)
    subprocess.run([simulator, "run", directory, "--build", BUILD, "--with", inputs.disk, "--", "tessera", "install",
                    "--quiet", package], check=True, stdout=subprocess.DEVNULL,
                   env={**os.environ, "TESSERA_FLASH_JOURNAL": "/userdata/journal"})
    node = next(line.split()[1] for line in (directory / "devices").read_text().splitlines()
                if line.startswith("system_b "))
    calls = [line.split()[1] for line in (directory / "userdata" / "journal").read_text().splitlines()
             if line.startswith(f"{node.rpartition('/')[2]} ")]
    erases, writes = (sum(call == kind for call in calls) for kind in ("MEMERASE64", "pwrite"))
    least = size // erase_size
    yield Row("install 64 MiB on NAND: erases and writes", "one each per block", 2 * least / (erases + writes), "1.0",
              erases == writes == least, f"{erases} and {writes} to {least} each")
    package.unlink()


def make_signer(directory):
    certificate, key = directory / "signer.pem", directory / "signer.key"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out", certificate,
                    "-subj", "/CN=bench", "-addext", "extendedKeyUsage=emailProtection", "-days", "2"],
                   check=True, stderr=subprocess.DEVNULL)
    return certificate, key


def make_swu(inputs, image, sha256, certificate, key, how):
    directory = inputs.disk / f"swu-{how}"
    directory.mkdir()
    packed = directory / image.name
    if how == "stored":
        packed.symlink_to(image)
    else:
        subprocess.run(f"gzip -6 -c {image} >{packed}", shell=True, check=True)
    sha256 = hashlib.sha256(packed.read_bytes()).hexdigest() if how == "deflated" else sha256
    packing = 'compressed = "zlib"; ' if how == "deflated" else ""
    (directory / "sw-description").write_text(
        'software = { version = "1.0"; hardware-compatibility: [ "1.0" ]; images: ( { '
        f'filename = "{image.name}"; device = "{inputs.disk}/node"; type = "raw"; sha256 = "{sha256}"; '
        f'{packing}installed-directly = true; }} ); }}\n')
    subprocess.run(["openssl", "cms", "-sign", "-in", "sw-description", "-out", "sw-description.sig", "-signer",
                    certificate, "-inkey", key, "-outform", "DER", "-nosmimecap", "-binary"],
                   check=True, cwd=directory)
    names = f"sw-description\nsw-description.sig\n{image.name}\n".encode()
    with open(inputs.disk / "update.swu", "wb") as archive:
        subprocess.run(["cpio", "-o", "-L", "-H", "crc", "--quiet"], input=names, stdout=archive, check=True,
                       cwd=directory)
    return inputs.disk / "update.swu"


def make_bundle(inputs, image, certificate, key, how):
    directory, bundle = inputs.disk / f"bundle-{how}", inputs.disk / f"update-{how}.raucb"
    directory.mkdir()
    os.link(image, directory / "system.img") if same_device(image, directory) else copy(image, directory / "system.img")
    (directory / "manifest.raucm").write_text("[update]\ncompatible=bench\nversion=2\n[bundle]\nformat=plain\n"
                                              "[image.rootfs]\nfilename=system.img\n")
    subprocess.run(["rauc", f"--cert={certificate}", f"--key={key}", f"--mksquashfs-args={'-noD -noI -noF' if how == 'stored' else '-comp gzip'}",
                    "bundle", directory, bundle], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return bundle


def same_device(one, other):
    return one.stat().st_dev == other.stat().st_dev


def copy(one, other):
    subprocess.run(["cp", one, other], check=True)


@contextmanager
def rauc_service(directory, certificate, under=()):
    """@return the first words of a client's command line, and the service; both on a separate bus"""
    (directory / "spare").touch()
    os.truncate(directory / "spare", MIB)
    (directory / "system.conf").write_text(
        f"[system]\ncompatible=bench\nbootloader=noop\nstatusfile={directory}/status\nmountprefix={directory}/mnt\n"
        f"[keyring]\npath={certificate}\n[slot.rootfs.0]\ndevice={directory}/spare\ntype=raw\nbootname=A\n"
        f"[slot.rootfs.1]\ndevice={directory}/node\ntype=raw\nbootname=B\n")
    (directory / "bus.conf").write_text(
        '<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN" '
        '"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd"><busconfig><type>system</type>'
        f'<listen>unix:path={directory}/bus</listen><policy context="default"><allow send_destination="*"/>'
        '<allow receive_sender="*"/><allow own="*"/></policy></busconfig>\n')
    address = f"DBUS_SYSTEM_BUS_ADDRESS=unix:path={directory}/bus"
    quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
    bus = subprocess.Popen(["dbus-daemon", f"--config-file={directory}/bus.conf", "--nofork"], **quiet)
    wait_for(lambda: (directory / "bus").exists())
    service = subprocess.Popen([*under, "env", address, "rauc", f"--conf={directory}/system.conf",
                                "--override-boot-slot=A", "service"], **quiet)
    client = ["env", address, "rauc"]
    try:
        wait_for(lambda: subprocess.run([*client, "status"], **quiet, check=False).returncode == 0)
        yield client, service
    finally:
        for process in (service, bus):
            os.kill(last_child(process.pid) if under and process is service else process.pid, signal.SIGTERM)
            process.wait()
        (directory / "bus").unlink(missing_ok=True)


def last_child(pid):
    """@return the traced process: the tracer itself defers SIGTERM until that process has ended"""
    children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
    return last_child(int(children[-1])) if children else pid


def wait_for(condition):
    deadline = time.monotonic() + 20
    while not condition():
        if time.monotonic() > deadline:
            raise RuntimeError("the service does not start")
        time.sleep(0.05)


def peak_of(pid):
    return int(re.search(r"VmHWM:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text())[1])
