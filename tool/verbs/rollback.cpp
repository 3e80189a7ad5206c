// SPDX-License-Identifier: Apache-2.0
/** tessera rollback: back to the other slot, if that one is known to boot. */
#include "board/names.h"
#include "board/slot_block.h"
#include "board/status_record.h"
#include "install/update_lock.h"
#include "verbs/verb.h"

namespace {

/** Why rolling back to a slot is refused. */
std::string reason_against(const Slot& slot) {
    if (slot.corrupted) {
        return "it is corrupted";
    }
    if (slot.tries == 0) {
        return "it is unbootable";
    }
    return "it is on trial and not confirmed";
}

void roll_back(Context& context, const std::string& lock_file) {
    const UpdateLock lock(lock_file, "tessera rollback");
    const int32_t other = running_slot() ^ 1;
    const SlotBlock block = require_slot_block();
    const Slot* slot = block.find(other);
    if (slot == nullptr) {
        throw Failure(ExitCode::failed, "there is no slot " + slot_letter(other) + " to roll back to");
    }
    if (!slot->is_confirmed()) {
        throw Failure(ExitCode::failed, "cannot roll back to " + slot->name() + ": " + reason_against(*slot),
                      read_status().is_cut_in(other)
                          ? "tessera status"
                          : "tessera slots set-next " + slot_letter(other) + "    (tries it anyway)");
    }
    const bool was_next = block.is_sole_next(other);
    if (!was_next) {
        set_next_slot(other);
    }
    context.show_change({{"slot", other}, {"changed", !was_next}},
                        slot->name() + (was_next ? " already boots next" : " boots next"));
}

} // namespace

void declare_rollback(Command& verb, Context& context) {
    auto lock_file = std::make_shared<std::string>(default_lock_file);
    add_lock(verb, *lock_file);
    on_command(verb, context, [&context, lock_file] { roll_back(context, *lock_file); });
}
