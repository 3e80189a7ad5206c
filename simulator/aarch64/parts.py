# SPDX-License-Identifier: Apache-2.0
"""What the board is made of, and where it comes from."""

import os
import pathlib
import re
import subprocess

from . import MissingPart

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = TOP / "build"
GUEST = BUILD / "guest-arm64"  # Debian's kernel and busybox
SYSROOT = BUILD / "sysroot-arm64"  # the libraries that the command was linked with
CROSS = BUILD / "aarch64"
FIRMWARE = pathlib.Path("/usr/lib/u-boot/qemu_arm64/u-boot.bin")
# In the order in which they are loaded; each also needs those that its own record names.
MODULES = ("virtio_mmio", "virtio_blk", "virtio_net", "squashfs", "ext4", "crc32c_generic")


def run(*command, **more):
    """Runs a command without input. @return what it printed; its failure is an exception with that"""
    result = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, errors="replace", check=False, **more)
    if result.returncode:
        raise RuntimeError(f"{result.stdout}\n{' '.join(map(str, command))}: status {result.returncode}")
    return result.stdout


def fetch():
    """Installs missing packages as root; fetches the kernel without installing it."""
    try:
        run(TOP / "script/bootstrap", "board")
        run(TOP / "script/sysroot", GUEST, "arm64", "linux-image-arm64", "busybox-static")
    except RuntimeError as error:
        raise MissingPart(str(error).strip()) from error


def host_command():
    """The command that makes packages on this machine. TESSERA_BUILD names a build to use in place of a new one."""
    if os.environ.get("TESSERA_BUILD"):
        return pathlib.Path(os.environ["TESSERA_BUILD"]).resolve() / "tool/tessera"
    run("cmake", "--preset", "release", cwd=TOP)
    run("cmake", "--build", "--preset", "release", "--target", "tessera_tool", cwd=TOP)
    return BUILD / "release/tool/tessera"


def prepare(say):
    """Fetches and builds what is not there yet, which takes minutes the first time. `say` gets a line for each step."""
    say("fetching U-Boot, QEMU and the kernel")
    fetch()
    say("building the library and the command for aarch64")
    run(TOP / "script/cross", "tool")


def kernel():
    return next((GUEST / "boot").glob("vmlinuz-*"))


def modules():
    """@return the files of MODULES and of what they need, in an order in which they can be loaded"""
    files = {path.stem: path for path in (GUEST / "usr/lib/modules").rglob("*.ko")}
    ordered = {}

    def add(name):
        if name not in ordered:
            needed = re.search(rb"\0depends=([^\0]*)\0", files[name].read_bytes())[1].decode()
            for other in filter(None, needed.split(",")):
                add(other)
            ordered[name] = files[name]

    for name in MODULES:
        add(name)
    return list(ordered.values())


def libraries(*programs):
    """@return the shared libraries that these programs and libraries need, and those that these need"""
    found, left = {}, list(programs)
    while left:
        for name in re.findall(r"NEEDED.*\[(.*)\]", run("readelf", "--dynamic", left.pop())):
            path = SYSROOT / "usr/lib/aarch64-linux-gnu" / name
            if name not in found and path.exists():
                found[name] = path
                left.append(path)
    return list(found.values())
