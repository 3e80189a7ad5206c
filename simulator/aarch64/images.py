# SPDX-License-Identifier: Apache-2.0
"""The images in the slots: a kernel with its initial RAM disk, and a root file system with the command."""

import pathlib
import shutil
import tempfile

from . import parts
from .parts import run

HERE = pathlib.Path(__file__).resolve().parent
# Away from what U-Boot reads the boot partition to (0x40400000), and from U-Boot itself at the end of the memory.
KERNEL_ADDRESS = "0x48000000"


def make_boot(image):
    """A FIT image, in which U-Boot checks the kernel and the RAM disk before it starts them."""
    with tempfile.TemporaryDirectory() as scratch:
        place = pathlib.Path(scratch)
        make_ram_disk(place / "ram_disk", place / "ram_disk.gz")
        run("sh", "-c", 'gzip -1 <"$1" >"$2"', "sh", parts.kernel(), place / "kernel.gz")
        run("mkimage", "-f", "auto", "-A", "arm64", "-O", "linux", "-T", "kernel", "-C", "gzip", "-a", KERNEL_ADDRESS,
            "-e", KERNEL_ADDRESS, "-n", "board", "-d", place / "kernel.gz", "-i", place / "ram_disk.gz", image)


def make_ram_disk(root, image):
    """What the kernel needs before it can read the slot: its drivers are modules."""
    for directory in "bin", "dev", "modules", "proc", "root", "sys":
        (root / directory).mkdir(parents=True)
    add_busybox(root / "bin")
    shutil.copy(HERE / "guest/first_init", root / "init")
    for number, module in enumerate(parts.modules()):
        shutil.copy(module, root / "modules" / f"{number:02}-{module.name}")
    run("sh", "-c", 'cd "$1" && find . | busybox cpio -o -H newc | gzip -1 >"$2"', "sh", root, image)


def make_root(root, authority):
    """What all systems have in common. `authority` is the certificate whose packages they accept."""
    for directory in "dev", "etc/tessera", "proc", "run", "sbin", "sys", "tmp", "userdata", "usr/velox":
        (root / directory).mkdir(parents=True)
    for component in "tool", "library", "platform":
        run("cmake", "--install", parts.CROSS, "--prefix", root / "usr", "--component", component, "--strip")
    for name in "bin", "lib":
        (root / name).symlink_to(f"usr/{name}")
    libraries = root / "usr/lib/aarch64-linux-gnu"
    for library in parts.libraries(root / "usr/bin/tessera", *libraries.iterdir()):
        shutil.copy(library, libraries)
    shutil.copy(parts.SYSROOT / "usr/lib/ld-linux-aarch64.so.1", root / "usr/lib")
    add_busybox(root / "bin")
    for name in "inittab", "profile", "start":
        shutil.copy(HERE / "guest" / name, root / "etc")
    shutil.copy(authority, root / "etc/tessera/ca.pem")


def make_system(root, image, version, comes_up):
    """A read-only file system. A system that does not come up has no init, so that its kernel panics."""
    init = root / "sbin/init"
    init.unlink(missing_ok=True)
    if comes_up:
        init.symlink_to("../bin/busybox")
    (root / "usr/velox/version").write_text(f"board_{version}\n")
    run("mksquashfs", root, image, "-all-root", "-noappend", "-quiet", "-no-progress")


def add_busybox(directory):
    """Its shell finds the other programs in itself."""
    shutil.copy(parts.GUEST / "bin/busybox", directory)
    (directory / "sh").symlink_to("busybox")
