// SPDX-License-Identifier: Apache-2.0
/** tessera confirm: for the script that checks the system after a boot. */
#include "board/names.h"
#include "board/slot_block.h"
#include "board/status_record.h"
#include "format/slot_block.h"
#include "install/update_lock.h"
#include "velox_ota_hl.h"
#include "verbs/verb.h"

#include <chrono>

namespace {

/** A boot script cannot ask the user: long enough for any command that does not write images. */
constexpr std::chrono::seconds patience{30};

/**
 * Where the block is lost, or its checksum is wrong, nothing in it is known. A new one has the running slot
 * first and the other on trial, unless an installation was cut in it.
 */
void recreate_block(int32_t running) {
    if (running >= int32_t{slot_block_default_slots}) {
        throw Failure(ExitCode::failed,
                      "slot " + slot_letter(running) + " is running, but a new slot block has the slots a and b only",
                      "tessera slots reset    (writes one without " + slot_letter(running) + ")");
    }
    reset_slot_block();
    set_next_slot(running);
    if (const int32_t other = running ^ 1; is_half_written(other)) {
        mark_slot_unbootable(other);
    }
    console::note("the slot block was missing or damaged; a new one was written");
}

const Slot& find_running(const SlotBlock& block, int32_t running) {
    const Slot* slot = block.find(running);
    if (slot == nullptr) {
        throw Failure(ExitCode::failed,
                      "slot " + slot_letter(running) + " is running, but the slot block does not list it");
    }
    return *slot;
}

bool is_confirmed(int32_t running) {
    const auto block = find_slot_block();
    return block && find_running(*block, running).is_confirmed();
}

void make_confirmed(int32_t running) {
    repair_slot_block(); /* the page torn by a power cut may not be the block's */
    if (const auto block = find_slot_block(); !block) {
        recreate_block(running);
    } else if (const Slot& slot = find_running(*block, running); slot.corrupted) {
        throw Failure(ExitCode::failed, slot.name() + " is running, but the slot block marks it as corrupted",
                      "tessera slots set-next " + slot_letter(running) + "    (clears the mark)");
    }
    mark_slot_good(running);
}

/** @return whether that changed anything */
bool confirm_alone(int32_t running, const std::string& lock_file) {
    const UpdateLock lock(lock_file, "tessera confirm", patience);
    if (is_confirmed(running)) {
        return false;
    }
    make_confirmed(running);
    return true;
}

void confirm(Context& context, const std::string& lock_file) {
    if (get_boot_mode() == RECOVERY_MODE) {
        throw Failure(ExitCode::failed, "this is the recovery system: no slot is running", "tessera slots");
    }
    const int32_t running = running_slot();
    /* The first read is without the lock. On flash the block is missing while another command writes it. */
    const bool changed = !is_confirmed(running) && confirm_alone(running, lock_file);
    context.show_change({{"slot", running}, {"changed", changed}},
                        "slot " + slot_letter(running) + (changed ? " is confirmed" : " is already confirmed"));
}

} // namespace

void declare_confirm(Command& verb, Context& context) {
    auto lock_file = std::make_shared<std::string>(default_lock_file);
    add_lock(verb, *lock_file);
    on_command(verb, context, [&context, lock_file] { confirm(context, *lock_file); });
}
