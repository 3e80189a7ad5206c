"""Boots a board the way its bootloader would."""

from . import BoardError, slots


def boot(board, fails, writes_lost_block):
    """
    Boots the slot that the block in misc designates and makes it the running one.

    A slot on trial pays a try for every attempt, and the block is saved before the attempt, so that a
    board that hangs or loses power in it does not try for ever. A slot that was marked good is never
    given up. With `fails` the slot designated first does not come up.
    Raw flash has no block for a moment whenever it is changed. After a power cut just then, both slots are on
    trial, or the first one boots and the block stays lost: whoever changes the block has whole images in both
    slots, or takes the tries from one first.
    @return whether a slot came up
    """
    board.sync()
    try:
        block = board.slot_block()
    except BoardError as error:
        print(f"{error}: {'both slots are on trial' if writes_lost_block else 'slot a boots, and misc is left alone'}")
        if not writes_lost_block:
            return boot_without_block(board, fails)
        block = slots.SlotBlock.fresh()
    broken = block.best() if fails else None
    while (number := block.best()) is not None:
        slot, name = block.slots[number], f"slot {slots.letter(number)}"
        if not slot.marked:
            slot.tries -= 1
            board.save_slot_block(block)
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


def boot_without_block(board, fails):
    if fails:
        print("slot a does not come up: the board hangs")
        return False
    board.come_up(0)
    return True


def describe(slot):
    if slot.marked:
        return "marked good"
    return f"on trial, {slot.tries} {'try' if slot.tries == 1 else 'tries'} left"
