# SPDX-License-Identifier: Apache-2.0
"""The parts of a simulated board."""


class BoardError(Exception):
    """A message for the user, in one sentence."""
