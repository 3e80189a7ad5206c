# SPDX-License-Identifier: Apache-2.0
"""Boots a board as its bootloader would."""

from . import BoardError, slots


def boot(board, fails, writes_lost_block, say=print):
    """
    Boots the slot that the block in misc designates and makes it the running one.

    Every attempt to boot a slot on trial uses up one try. The block is saved before the attempt, so that a
    board that hangs or loses power during it does not retry forever. A slot that was marked good is never
    given up. With `fails` the slot designated first does not come up. `say` gets each message.
    On raw flash there is no block for a moment while it is being changed. After a power cut at that point both
    slots are on trial, in a new block or, if the bootloader writes none, in its memory only. So a program may
    change the block only while both slots hold complete images, or after taking the tries from one of them.
    @return whether a slot came up
    """
    board.sync()
    save = board.save_slot_block
    try:
        block = board.slot_block()
    except BoardError as error:
        say(f"{error}: both slots are on trial{'' if writes_lost_block else ', and misc is left alone'}")
        block = slots.SlotBlock.fresh()
        save = save if writes_lost_block else count_elsewhere
    broken = block.best() if fails else None
    while (number := block.best()) is not None:
        slot, name = block.slots[number], f"slot {slots.letter(number)}"
        if not slot.marked:
            slot.tries -= 1
            save(block)
        if number != broken:
            board.come_up(number)
            say(f"{name} boots ({describe(slot)})")
            return True
        if slot.marked:
            say(f"{name} does not come up, and having been marked good it is not given up: the board hangs")
            return False
        say(f"{name} does not come up ({describe(slot)})")
    say("no bootable slot: the board stays in its bootloader")
    return False


def count_elsewhere(_block):
    """Stores nothing: this block does not outlive the boot."""


def describe(slot):
    if slot.marked:
        return "marked good"
    return f"on trial, {slot.tries} {'try' if slot.tries == 1 else 'tries'} left"
