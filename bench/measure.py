# SPDX-License-Identifier: Apache-2.0
"""Runs whole commands alternately and prints the resulting table."""

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
DISTURBED = 0.15  # share of one processor that other programs used during a sample

disturbances = []  # of the samples that were kept


@dataclass
class Command:
    name: str
    words: Union[list, str]  # a string goes through the shell
    before: Optional[Callable] = None


@dataclass
class Row:
    work: str
    compared_with: str
    ratio: Optional[float]
    goal: str
    met: Optional[bool]
    measured: str

    def cells(self):
        ratio = "" if self.ratio is None else f"{self.ratio:.2f}"
        return [self.work, self.compared_with, ratio, self.goal, {True: "yes", False: "**no**", None: ""}[self.met],
                self.measured]


def busy_seconds():
    """@return the processor time used by all processes since boot"""
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
        timing = json.load(result)["results"][0]
    return {"wall": timing["times"][0], "cpu": timing["user"] + timing["system"]}


def sample(command, take=hyperfine):
    """@return the least disturbed of up to TRIES samples; an undisturbed one ends the sampling"""
    samples = []
    while len(samples) < TRIES and (not samples or samples[-1][0] > DISTURBED):
        if command.before:
            command.before()
        start, busy, own = time.monotonic(), busy_seconds(), own_seconds()
        timing = take(command)
        others = (busy_seconds() - busy) - (own_seconds() - own)
        samples.append((max(others, 0) / (time.monotonic() - start), len(samples), timing))
    disturbances.append(min(samples)[0])
    return min(samples)[2]


def compare(commands, rounds, take=hyperfine):
    """@return for each command its figures, one per round"""
    figures = {command.name: [] for command in commands}
    for number in range(rounds):
        for command in commands if number % 2 == 0 else reversed(commands):
            figures[command.name].append(sample(command, take))
    return figures


def median(figures, kind="wall"):
    return statistics.median(figure[kind] for figure in figures)


def ratio(theirs, ours, kind="wall"):
    """@return the median of the rounds' ratios; above 1, ours needs less"""
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
    """@return the peak resident memory in KiB, as reported by GNU time, whose own process is small"""
    with tempfile.NamedTemporaryFile() as report:
        subprocess.run(["/usr/bin/time", "-f", "%M", "-o", report.name, *map(str, words)], check=True,
                       stdout=subprocess.DEVNULL)
        return int(report.read())


def print_table(rows):
    print("| work | compared with | ratio | goal | met | measured: tessera, then the other |")
    print("| --- | --- | --- | --- | --- | --- |")
    for one in rows:
        print("| " + " | ".join(one.cells()) + " |")
