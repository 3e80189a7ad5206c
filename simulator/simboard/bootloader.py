"""Boots a board the way its bootloader would."""

from . import BoardError, slots


def boot(board, fails, writes_lost_block):
    """
    Boots the slot that the block in misc designates and makes it the running one.

    A slot on trial pays a try for every attempt, and the block is saved before the attempt, so that a
    board that hangs or loses power in it does not try for ever. A slot that was marked good is never
    given up. With `fails` the slot designated first does not come up.
    Raw flash has no block for a moment whenever it is changed. After a power cut just then both slots are on
    trial, in a new block or, where the bootloader writes none, in its memory only: whoever changes the block has
    whole images in both slots, or takes the tries from one first.
    @return whether a slot came up
    """
    board.sync()
    save = board.save_slot_block
    try:
        block = board.slot_block()
    except BoardError as error:
        print(f"{error}: both slots are on trial{'' if writes_lost_block else ', and misc is left alone'}")
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
            print(f"{name} boots ({describe(slot)})")
            return True
        if slot.marked:
            print(f"{name} does not come up, and having been marked good it is not given up: the board hangs")
            return False
        print(f"{name} does not come up ({describe(slot)})")
    print("no bootable slot: the board stays in its bootloader")
    return False


def count_elsewhere(_block):
    """Nothing of a block that is not stored outlives this boot."""


def describe(slot):
    if slot.marked:
        return "marked good"
    return f"on trial, {slot.tries} {'try' if slot.tries == 1 else 'tries'} left"
