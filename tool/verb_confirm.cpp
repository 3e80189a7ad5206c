/** tessera confirm: for the script that finds the system well after a boot. */
#include "names.h"
#include "slot_block.h"
#include "verb.h"

namespace {

/**
 * Where the checksum is wrong nothing in the block is known, and marking a slot good that is marked already
 * would write nothing. Making the running slot the next one seals the block, with that slot in front.
 */
bool seal_block(int32_t running) {
    const bool was_sealed = read_slot_block().checksum_is_right;
    if (!was_sealed) {
        set_next_slot(running);
    }
    return !was_sealed;
}

void confirm(const Context& context) {
    const int32_t running = running_slot();
    const bool changed = seal_block(running);
    const SlotBlock block = read_slot_block();
    const Slot* slot = block.find(running);
    if (slot == nullptr) {
        throw Failure(ExitCode::failed, "slot " + slot_letter(running) + " runs, and the slot block does not have it");
    }
    if (slot->corrupted) {
        throw Failure(ExitCode::failed, slot->name() + " runs, and the slot block says that it is corrupted",
                      "tessera slots set-next " + slot_letter(running) + " takes that back");
    }
    const bool was_marked = slot->is_confirmed();
    if (!was_marked) {
        mark_slot_good(running);
    }
    const bool was_confirmed = was_marked && !changed;
    context.show({{"slot", running}, {"changed", !was_confirmed}},
                 slot->name() + (was_confirmed ? " was confirmed already" : " is confirmed"));
}

} // namespace

void declare_confirm(CLI::App& verb, Context& context) {
    on_command(verb, context, [&context] { confirm(context); });
}
