"""The parts of a simulated board."""


class BoardError(Exception):
    """What the user is told, in one sentence."""
