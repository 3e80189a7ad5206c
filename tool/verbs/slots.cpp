// SPDX-License-Identifier: Apache-2.0
/** tessera slots: the table of A/B slots and the changes to it. */
#include "board/names.h"
#include "board/slot_block.h"
#include "board/status_record.h"
#include "console/text.h"
#include "format/slot_block.h"
#include "install/update_lock.h"
#include "velox_ota_hl.h"
#include "verbs/verb.h"

namespace {

Json to_json(const Slot& slot, const char* state, int32_t running, std::optional<int32_t> next) {
    return {{"slot", slot.number},
            {"letter", slot_letter(slot.number)},
            {"state", state},
            {"priority", slot.priority},
            {"tries", slot.tries},
            {"marked_good", slot.marked_good},
            {"corrupted", slot.corrupted},
            {"running", running < 0 ? Json() : Json(slot.number == running)},
            {"next", slot.number == next}};
}

std::string remark(const Slot& slot, int32_t running, std::optional<int32_t> next) {
    const bool is_running = slot.number == running;
    const bool is_next = slot.number == next;
    return is_running && is_next ? "running, boots next" : is_running ? "running" : is_next ? "boots next" : "";
}

std::vector<std::string> to_row(const Slot& slot, const char* state, const std::string& remarks) {
    return {std::to_string(slot.number), slot_letter(slot.number),        state,  std::to_string(slot.priority),
            std::to_string(slot.tries),  slot.marked_good ? "yes" : "no", remarks};
}

/** Further remarks. */
std::string remarks_on(const SlotBlock& block, int32_t running, std::optional<int32_t> next) {
    std::string text;
    if (!block.checksum_is_right) {
        text += "the checksum of the slot block is wrong: which slots are good is unknown\n";
    }
    if (block.stored_count > block.slots.size()) {
        text += format("the slot block claims %u slots, but only %zu can be used\n", block.stored_count,
                       block.slots.size());
    }
    if (running < 0) {
        text += "the running slot is unknown: the kernel command line does not name it\n";
    }
    if (!next) {
        text += "no slot is bootable\n";
    }
    if (const Slot* trial = running_trial(block); trial != nullptr) {
        text += trial_remark(*trial) + "\n";
    }
    return text;
}

void show_slots(const Context& context) {
    const SlotBlock block = read_slot_block();
    const int32_t running = ota_get_cur_slot();
    const auto next = next_slot();
    const Slot* trial = running_trial(block);
    Json slots = Json::array();
    std::vector<std::vector<std::string>> rows;
    for (const Slot& slot : block.slots) {
        const char* state = block.state_of(slot);
        slots.push_back(to_json(slot, state, running, next));
        rows.push_back(to_row(slot, state, remark(slot, running, next)));
    }
    const Json value = {{"running", running < 0 ? Json() : Json(running)},
                        {"next", next ? Json(*next) : Json()},
                        {"boots_left", trial != nullptr ? Json(trial->tries) : Json()},
                        {"checksum_is_right", block.checksum_is_right},
                        {"slots", slots}};
    context.show(value, table({"slot", "", "state", "priority", "tries", "marked good", ""}, rows) +
                            remarks_on(block, running, next));
}

/**
 * Refuses slots that the block does not have, before anything is written; and any where the checksum is
 * wrong: a change would give unknown contents a valid checksum.
 */
int32_t existing_slot(const std::string& word) {
    const SlotBlock block = require_slot_block();
    const auto number = slot_from_word(word);
    if (!number || block.find(*number) == nullptr) {
        throw Failure(ExitCode::failed, "there is no slot " + word, "tessera slots");
    }
    return *number;
}

void demand_other_good_slot(int32_t slot) {
    const SlotBlock block = require_slot_block();
    if (slot == ota_get_cur_slot() && block.find(slot)->is_bootable() && !block.is_confirmed_without(slot)) {
        throw Failure(ExitCode::failed,
                      "cannot mark slot " + slot_letter(slot) + " bad: it is running, and no other slot is confirmed",
                      "tessera slots mark-bad --yes " + slot_letter(slot));
    }
}

bool runs(int32_t slot) {
    return slot == ota_get_cur_slot() && get_boot_mode() != RECOVERY_MODE;
}

void demand_whole(int32_t slot) {
    if (!runs(slot) && is_half_written(slot)) {
        throw Failure(ExitCode::failed,
                      "slot " + slot_letter(slot) + " is half written: an installation to it was interrupted",
                      "tessera status");
    }
}

/** A slot that is marked good is never given up: a system that does not come up would block the board. */
void demand_bootable(int32_t slot) {
    demand_whole(slot);
    const SlotBlock block = require_slot_block();
    if (const Slot* entry = block.find(slot); !runs(slot) && !entry->is_bootable()) {
        throw Failure(ExitCode::failed, "cannot mark " + entry->name() + " good: it is " + block.state_of(*entry),
                      "tessera slots set-next " + slot_letter(slot) + "    (tries it; tessera confirm there keeps it)");
    }
}

/** A half-written image must not be booted. */
void write_new_block() {
    reset_slot_block();
    for (int32_t slot = 0; slot < int32_t{slot_block_default_slots}; ++slot) {
        if (!runs(slot) && is_half_written(slot)) {
            mark_slot_unbootable(slot);
        }
    }
}

/** A change that is refused without --yes where `check` throws. */
void declare_change(Command& verb, Context& context, const char* name, const char* summary, const char* help,
                    void (*check)(int32_t), void (*change)(int32_t)) {
    struct Options {
        std::string word;
        std::string lock_file = default_lock_file;
        bool yes = false;
    };
    Command& command = add_command(verb, name, summary);
    auto options = std::make_shared<Options>();
    add_word(command, "SLOT", options->word, "Number or letter of the slot");
    add_flag(command, "--yes", options->yes, help);
    add_lock(command, options->lock_file);
    on_command(command, context, [&context, options, check, change] {
        const UpdateLock lock(options->lock_file, "tessera slots");
        const int32_t slot = existing_slot(options->word);
        if (!options->yes) {
            check(slot);
        }
        change(slot);
        show_slots(context);
    });
}

} // namespace

void declare_slots(Command& verb, Context& context) {
    allow_command(verb);
    on_command(verb, context, [&context] { show_slots(context); });
    declare_change(verb, context, "set-next", "Boot this slot next, with a single try", "Allow a half-written slot",
                   demand_whole, set_next_slot);
    declare_change(verb, context, "mark-good", "Mark this slot as booted successfully",
                   "Allow an unbootable, corrupted or half-written slot", demand_bootable, mark_slot_good);
    declare_change(verb, context, "mark-bad", "Make this slot unbootable",
                   "Allow the running slot although no other is confirmed", demand_other_good_slot,
                   mark_slot_unbootable);
    Command& reset = add_command(verb, "reset", "Write a new block: two slots on trial, with 7 tries each");
    auto lock_file = std::make_shared<std::string>(default_lock_file);
    add_lock(reset, *lock_file);
    on_command(reset, context, [&context, lock_file] {
        const UpdateLock lock(*lock_file, "tessera slots reset");
        write_new_block();
        show_slots(context);
    });
}
