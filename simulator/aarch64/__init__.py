# SPDX-License-Identifier: Apache-2.0
"""An AArch64 board in QEMU: U-Boot, Debian's kernel, two slots on one disk, and the command built for it."""


class MissingPart(Exception):
    """A Debian package that the board is made of cannot be had."""


class MachineError(Exception):
    """The board did not do what it was started for; the text ends with what its console showed."""
