# SPDX-License-Identifier: Apache-2.0
"""A machine with a real kernel in the emulator, and a disk with a volatile cache for it: power can be cut anywhere."""
