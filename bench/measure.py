"""Whole commands, run in turns, and the table that comes of it."""

import json
import os
import resource
import shlex
import statistics
import subprocess
import tempfile
import time
from dataclasses import dataclass
from typing import Callable, Optional, Union

TRIES = 4
DISTURBED = 0.15  # of one processor, used by others while a sample was taken

disturbances = []  # of the samples that count


@dataclass
class Command:
    name: str
    words: Union[list, str]  # a string goes through the shell
    before: Optional[Callable] = None


@dataclass
class Row:
    work: str
    beside: str
    ratio: Optional[float]
    goal: str
    met: Optional[bool]
    measured: str

    def cells(self):
        ratio = "" if self.ratio is None else f"{self.ratio:.2f}"
        return [self.work, self.beside, ratio, self.goal, {True: "yes", False: "**no**", None: ""}[self.met],
                self.measured]


def busy_seconds():
    """What all processors have worked since the boot, for whomever."""
    with open("/proc/stat") as stat:
        user, nice, system, _, _, irq, softirq, steal = map(int, stat.readline().split()[1:9])
    return (user + nice + system + irq + softirq + steal) / os.sysconf("SC_CLK_TCK")


def own_seconds():
    usage = [resource.getrusage(who) for who in (resource.RUSAGE_SELF, resource.RUSAGE_CHILDREN)]
    return sum(part.ru_utime + part.ru_stime for part in usage)


def hyperfine(command):
    with tempfile.NamedTemporaryFile(suffix=".json") as result:
        shell = [] if isinstance(command.words, str) else ["--shell=none"]
        text = command.words if isinstance(command.words, str) else shlex.join(map(str, command.words))
        subprocess.run(["hyperfine", *shell, "--style=none", "--runs=1", f"--export-json={result.name}", text],
                       check=True, stdout=subprocess.DEVNULL)
        told = json.load(result)["results"][0]
    return {"wall": told["times"][0], "cpu": told["user"] + told["system"]}


def sample(command, take=hyperfine):
    """The least disturbed of a few samples; the first that is not disturbed is good enough."""
    samples = []
    while len(samples) < TRIES and (not samples or samples[-1][0] > DISTURBED):
        if command.before:
            command.before()
        start, busy, own = time.monotonic(), busy_seconds(), own_seconds()
        told = take(command)
        others = (busy_seconds() - busy) - (own_seconds() - own)
        samples.append((max(others, 0) / (time.monotonic() - start), len(samples), told))
    disturbances.append(min(samples)[0])
    return min(samples)[2]


def compare(commands, rounds, take=hyperfine):
    """@return for each command its figures, one a round"""
    figures = {command.name: [] for command in commands}
    for number in range(rounds):
        for command in commands if number % 2 == 0 else reversed(commands):
            figures[command.name].append(sample(command, take))
    return figures


def median(figures, kind="wall"):
    return statistics.median(figure[kind] for figure in figures)


def ratio(theirs, ours, kind="wall"):
    """The median of the rounds' ratios; above 1, ours is less."""
    return statistics.median(one[kind] / other[kind] for one, other in zip(theirs, ours))


def row(work, figures, ours, theirs, goal, least):
    """A row of times; `least` is the ratio that meets the goal."""
    found = ratio(figures[theirs], figures[ours])
    cpu = ratio(figures[theirs], figures[ours], "cpu")
    measured = (f"{seconds(median(figures[ours]))} to {seconds(median(figures[theirs]))}, "
                f"processor time {seconds(median(figures[ours], 'cpu'))} to {seconds(median(figures[theirs], 'cpu'))} "
                f"({cpu:.2f})")
    return Row(work, theirs, found, goal, found >= least, measured)


def seconds(value):
    return f"{value * 1000:.1f} ms" if value < 1 else f"{value:.2f} s"


def peak_memory(words):
    """The peak of the resident memory in KiB, as GNU time tells it: its own process is small."""
    with tempfile.NamedTemporaryFile() as told:
        subprocess.run(["/usr/bin/time", "-f", "%M", "-o", told.name, *map(str, words)], check=True,
                       stdout=subprocess.DEVNULL)
        return int(told.read())


def print_table(rows):
    print("| work | beside | ratio | goal | met | measured: tessera, then the other |")
    print("| --- | --- | --- | --- | --- | --- |")
    for one in rows:
        print("| " + " | ".join(one.cells()) + " |")
