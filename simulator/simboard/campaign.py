# SPDX-License-Identifier: Apache-2.0
"""
Cuts the power at every device operation of a command, each time on a new copy of the board.

After a cut the board boots, `tessera status` runs, and the command is repeated. Right after that the power fails once
more, `tessera confirm` runs, and the board reboots. A cut fails if

- no system boots, or the slot that boots is not whole: neither as before the command nor as after it;
- another slot that could boot is not whole, since the bootloader falls back to it;
- the status fails, or reports no update under way or images that were read back, but a slot is not whole;
- the repeated command fails, other than by asking for `tessera confirm` while both slots are whole;
- the board does not end up in the system that an undisturbed command leads to.

If the cut lost the slot block, all this is done with both kinds of bootloader: one that writes a new block, and one
that does not. If the system that boots is not confirmed, it is also done with `tessera confirm` before the command.
"""

import collections
import os
import pathlib
import re
import signal
import subprocess
import tempfile
import threading
import time
from concurrent import futures
from dataclasses import dataclass, field

from . import BoardError, bootloader, box, contents, cuts, slots, state

CUT_STATUS = 128 + signal.SIGKILL
CONFIRM, STATUS = ["tessera", "confirm"], ["tessera", "status"]
KEPT = "kept"  # in the directory of a cut
NO_UPDATE, READ_BACK = "no update is under way", "had read back"


class CutFailed(Exception):
    """A requirement that a cut violates, in words that are the same for similar cuts."""


class Interrupted(Exception):
    """The user has ended the campaign."""


@dataclass
class Request:
    """What the user asked for; `then` is what is repeated after a cut, without words the command itself."""

    command: list
    then: list = field(default_factory=list)
    build: pathlib.Path = None
    extra: tuple = ()
    checks_status: bool = True


@dataclass
class Result:
    cut: cuts.Cut
    seen: collections.Counter
    failure: str = ""


class Campaign:
    """Created with the copy of the board on which the undisturbed command has run, and with the list of all cuts."""

    def __init__(self, directory, request, seed, place, keep=None):
        """
        Raises BoardError if the command cannot be cut: if it fails undisturbed, or changes nothing.
        @param place  an empty directory for copies of the board
        @param keep  where a copy of the first board that fails is left, in the state right after its cut
        """
        self.request, self.place, self.keep = request, place, keep
        self.kept = None  # the cut of that board
        self.keeping = threading.Lock()
        self.then = request.then or request.command
        self.faults = os.environ.get("TESSERA_FLASH_FAULT", "")
        self.say = lambda text: None
        self.ended = threading.Event()
        self.limit = None  # seconds for a command after the first one has run undisturbed
        self.before = copy(state.Board(directory), place / "before")
        self.check_boot(copy(self.before, place / "booted"))
        after = copy(self.before, place / "after")
        start = time.monotonic()
        self.operations = self.rehearse(after)
        self.limit = 60 + 10 * round(time.monotonic() - start)
        self.check_boot(after)
        self.change = self.goal = contents.Change(self.before, after)
        self.check_operations()
        if request.then:
            goal = copy(after, place / "goal")
            self.rehearse(goal, request.then)
            self.check_boot(goal)
            self.goal = contents.Change(self.before, goal)
        self.check_final_status()
        self.cuts = cuts.plan(self.before, self.operations, seed)

    def rehearse(self, board, command=None):
        """Runs a command undisturbed. @return its operations"""
        journal = self.place / "journal"
        journal.write_bytes(b"")
        result = self.run(board, command or self.request.command, journal=journal)
        if result.returncode != 0:
            shown = f"{result.stdout}{result.stderr}".rstrip()
            raise BoardError(f"the command fails without a power cut, with status {result.returncode}\n{shown}")
        return cuts.read_journal(journal)

    def check_final_status(self):
        board = copy(self.goal.after, self.place / "final")
        if self.request.checks_status and NO_UPDATE not in self.run(board, STATUS).stdout:
            raise BoardError(f"after the command, {' '.join(STATUS)} does not report: {NO_UPDATE}\n"
                             "hint: --no-status    (if the command does not keep the status)")

    def check_boot(self, board):
        lines = []
        if not bootloader.boot(board, False, True, lines.append):
            raise BoardError(f"the board does not boot without a power cut: {lines[-1]}")

    def check_operations(self):
        """Refuses what would make a campaign that proves nothing."""
        written = {operation.device for operation in self.operations
                   if operation.changes() and operation.kind != "fsync"}
        if not written:
            raise BoardError("the command changes no device, so there is nothing to cut")
        for name in self.change.changed():
            if pathlib.Path(self.before.device(name).node).name not in written:
                raise BoardError(f"the command changes {name} in a way that the simulator cannot see, such as mmap()")

    def run(self, board, command, fault="", journal=None):
        """The user's faults are for the user's commands. @return the completed process with its output"""
        if self.ended.is_set():
            raise Interrupted
        if command in (self.request.command, self.then):
            fault = f"{self.faults};{fault}"
        variables = {"TESSERA_FLASH_FAULT": fault}
        files = [(journal, "/board/journal")] if journal else []
        variables |= {"TESSERA_FLASH_JOURNAL": "/board/journal"} if journal else {}
        with open_output() as out, open_output() as err:
            status = box.execute(board, command, self.request.build, self.request.extra, variables, files, self.limit,
                                 stdin=subprocess.DEVNULL, stdout=out, stderr=err, start_new_session=True)
            for file in (out, err):
                file.seek(0)
            result = subprocess.CompletedProcess(command, status, out.read(), err.read())
        self.say(f"board# {' '.join(map(str, command))}\n{result.stdout}{result.stderr}status {status}")
        return result

    def must(self, board, command):
        result = self.run(board, command)
        if result.returncode != 0:
            raise CutFailed(f"{' '.join(map(str, command))} fails after the cut: {last_line(result)}")
        return result

    def make(self, cut):
        """Makes a cut. @return its result"""
        result = Result(cut, collections.Counter())
        with tempfile.TemporaryDirectory(dir=self.place) as scratch:
            try:
                Aftermath(self, pathlib.Path(scratch), result.seen).follow(cut)
            except (CutFailed, BoardError) as failure:
                result.failure = str(failure)
                self.keep_first(cut, pathlib.Path(scratch) / KEPT)
        return result

    def keep_first(self, cut, board):
        with self.keeping:
            if board.exists() and self.kept is None:
                copy(state.Board(board), self.keep)
                self.kept = cut

    def make_all(self, some, jobs):
        """Makes cuts, several at a time. Yields each result as it comes; ends early when interrupted."""
        with futures.ThreadPoolExecutor(jobs) as pool:
            waiting = {pool.submit(self.make, cut) for cut in some}
            try:
                for done in futures.as_completed(waiting):
                    yield done.result()
            finally:
                self.ended.set()
                pool.shutdown(cancel_futures=True)


class Aftermath:
    """One cut and what follows it, on copies of the board in a directory of its own."""

    def __init__(self, campaign, place, seen):
        self.campaign, self.place, self.seen = campaign, place, seen
        self.copies = 0

    def copy(self, board):
        self.copies += 1
        return copy(board, self.place / str(self.copies))

    def follow(self, cut):
        board = self.copy(self.campaign.before)
        result = self.campaign.run(board, self.campaign.request.command, cut.fault())
        if self.campaign.keep:
            copy(board, self.place / KEPT)
        if result.returncode != CUT_STATUS:
            raise CutFailed("the command does not reach this operation: its operations differ from run to run")
        if not is_lost(board):
            self.go_on(board, writes_lost_block=True)
            return
        self.seen["block lost"] += 1
        other = self.copy(board)
        self.go_on(board, writes_lost_block=True)
        self.go_on(other, writes_lost_block=False)

    def go_on(self, board, writes_lost_block):
        running = self.boot(board, writes_lost_block)
        self.check_status(board)
        if not is_lost(board) and board.slot_block().slots[running].marked:
            self.complete(board)
            return
        confirmed = self.copy(board)
        self.complete(board)
        self.campaign.must(confirmed, CONFIRM)
        self.complete(confirmed)

    def boot(self, board, writes_lost_block=True):
        """Boots a slot, which has to be whole. @return its number"""
        campaign, lines = self.campaign, []
        boots = bootloader.boot(board, False, writes_lost_block, lines.append)
        campaign.say("\n".join(lines))
        if not boots:
            raise CutFailed(f"no system boots: {lines[-1]}")
        running = board.running_slot()
        self.check_whole(board, running, "boots")
        for slot in bootable(board):
            self.check_whole(board, slot, "can boot if the running one fails")
        change = campaign.change
        is_new = running == change.after.running_slot() and change.is_after(
            board, contents.slot_partitions(board, running))
        is_old = running == change.before.running_slot()
        self.seen["boots new" if is_new else "boots old" if is_old else "boots other"] += 1
        return running

    def check_whole(self, board, slot, how):
        if not self.campaign.change.is_whole(board, slot):
            damaged = self.campaign.change.damaged(board, slot)
            what = f"{', '.join(damaged)} damaged" if damaged else "with both old and new images"
            raise CutFailed(f"slot {slots.letter(slot)} {how}, but it is not whole: {what}")

    def check_status(self, board):
        result = self.campaign.run(board, STATUS)
        is_torn = result.returncode == 4 and "cannot read ubootenv" in result.stderr  # on UBI, where the read fails
        self.seen["no status"] += is_torn or "are unknown; the next" in result.stdout
        if not self.campaign.request.checks_status:
            return
        if result.returncode != 0 and not is_torn:
            raise CutFailed(f"{' '.join(STATUS)} fails with status {result.returncode}: {last_line(result)}")
        for words, meaning in ((NO_UPDATE, "has no update under way"), (READ_BACK, "was read back")):
            if words in result.stdout:
                for slot in (0, 1):
                    self.check_whole(board, slot, f"{meaning} according to {' '.join(STATUS)}")

    def complete(self, board):
        """Repeats the command. The power fails right after it; the running system is confirmed. What boots then?"""
        campaign = self.campaign
        result = campaign.run(board, campaign.then)
        if result.returncode != 0:
            if not re.search(r"^hint: tessera confirm\b", result.stderr, re.M):
                raise CutFailed(f"the repeated command fails with status {result.returncode}: {last_line(result)}")
            for slot in (0, 1):
                self.check_whole(board, slot, "has to be confirmed first")
            self.seen["confirm first"] += 1
            campaign.must(board, CONFIRM)
            result = campaign.must(board, campaign.then)
        self.seen["repaired"] += "could not be read after a power cut" in result.stderr
        campaign.run(board, ["true"], "cut 0")
        if campaign.request.checks_status and NO_UPDATE not in campaign.must(board, STATUS).stdout:
            raise CutFailed(f"the repeated command succeeds, but {' '.join(STATUS)} does not report: {NO_UPDATE}")
        campaign.must(board, CONFIRM)
        lines = []
        if not bootloader.boot(board, False, True, lines.append):
            raise CutFailed(f"no system boots after the repeated command: {lines[-1]}")
        campaign.say("\n".join(lines))
        if not campaign.goal.is_complete(board):
            running = slots.letter(board.running_slot())
            raise CutFailed(f"the repeated command succeeds, but slot {running} boots without what the undisturbed "
                            "command installs")


def copy(board, place):
    """Holes stay holes: most of a disk is empty. @return the copied board"""
    if subprocess.run(["cp", "-a", "--reflink=auto", "--", board.dir, place], check=False).returncode != 0:
        raise OSError(f"cannot copy the board to {place}")
    return state.Board(place)


def open_output():
    return tempfile.TemporaryFile("w+", errors="replace")


def is_lost(board):
    try:
        return not board.slot_block()
    except BoardError:
        return True


def bootable(board):
    """The slots that the bootloader may try at the next boot: without a block, both."""
    try:
        block = board.slot_block()
    except BoardError:
        block = slots.SlotBlock.fresh()
    return [number for number, slot in enumerate(block.slots) if slot.bootable()]


def last_line(result):
    lines = (result.stdout + result.stderr).strip().splitlines()
    return lines[-1] if lines else "no output"
