# SPDX-License-Identifier: Apache-2.0
"""What a campaign of power cuts prints: its progress on stderr, a table and a verdict on stdout."""

import collections
import sys
import time

from . import cuts

COLUMNS = ("cuts", "failed", "boots old", "boots new", "boots other", "block lost", "confirm first", "no status",
           "repaired")
SECONDS_BETWEEN_LINES = 10
FAILURES_SHOWN = 10


class Progress:
    """On a terminal one line that is replaced; otherwise a line now and then."""

    def __init__(self, total, is_shown):
        self.total, self.is_shown, self.start = total, is_shown, time.monotonic()
        self.shown = self.start
        self.is_terminal = sys.stderr.isatty()
        self.show(0, 0)

    def show(self, done, failed):
        now = time.monotonic()
        if not self.is_shown:
            return
        if not self.is_terminal and now - self.shown < SECONDS_BETWEEN_LINES and 0 < done < self.total:
            return
        self.shown = now
        left = f", {duration((now - self.start) / done * (self.total - done))} left" if 0 < done < self.total else ""
        text = f"{done} of {self.total} power cuts, {failed} failed{left}"
        print(f"\r\033[K{text}" if self.is_terminal else text, end="" if self.is_terminal else "\n",
              file=sys.stderr, flush=True)

    def clear(self):
        if self.is_terminal:
            print("\r\033[K", end="", file=sys.stderr, flush=True)


def duration(seconds):
    minutes, seconds = divmod(round(seconds), 60)
    return f"{minutes} min {seconds} s" if minutes else f"{seconds} s"


def table(results):
    """@return the lines of a table: one for each kind of cut, and their sum"""
    rows = {kind: collections.Counter() for kind in (*cuts.KINDS, "all")}
    for result in results:
        for kind in (result.cut.kind, "all"):
            rows[kind] += result.seen + collections.Counter(cuts=1, failed=bool(result.failure))
    shown = [(kind, row) for kind, row in rows.items() if row]
    width = max(len(kind) for kind, _ in shown)
    heads = [(column.split() + [""])[:2] for column in COLUMNS]
    cells = [("", *(head[line] for head in heads)) for line in (0, 1)]
    cells += [(kind, *(row[column] for column in COLUMNS)) for kind, row in shown]
    sizes = [max(map(len, head)) for head in heads]
    return [aligned(line, width, sizes) for line in cells]


def aligned(cells, width, sizes):
    first, *others = cells
    return (first.ljust(width) + "".join(f"  {cell:>{size}}" for cell, size in zip(others, sizes))).rstrip()


def failures(results):
    """@return a line for each reason of failures: how many cuts have it, and the first of them"""
    reasons = collections.defaultdict(list)
    for result in sorted(results, key=lambda each: each.cut.number):
        if result.failure:
            reasons[result.failure].append(result.cut)
    lines = [f"{len(some)} failed, the first at {some[0].name()}: {reason}" for reason, some in reasons.items()]
    further = len(lines) - FAILURES_SHOWN
    return lines[:FAILURES_SHOWN] + ([f"and {further} more reasons"] if further > 0 else [])


def verdict(results, planned, total):
    """@return the last line; `planned` cuts of `total` were to be made"""
    failed = sum(bool(result.failure) for result in results)
    if failed:
        return f"FAILED: {failed} of {len(results)} power cuts"
    sampled = f" of {total}" if planned < total else ""
    return f"passed: after each of {len(results)}{sampled} power cuts a whole system booted, and the command completed"
