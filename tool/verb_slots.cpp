/** tessera slots: the table of A/B slots and the changes to it. */
#include "names.h"
#include "slot_block.h"
#include "text.h"
#include "update_lock.h"
#include "velox_ota_hl.h"
#include "verb.h"

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
    const bool runs = slot.number == running;
    const bool is_next = slot.number == next;
    return runs && is_next ? "running, boots next" : runs ? "running" : is_next ? "boots next" : "";
}

std::vector<std::string> to_row(const Slot& slot, const char* state, const std::string& remarks) {
    return {std::to_string(slot.number), slot_letter(slot.number),        state,  std::to_string(slot.priority),
            std::to_string(slot.tries),  slot.marked_good ? "yes" : "no", remarks};
}

/** What else a reader has to know. */
std::string remarks_on(const SlotBlock& block, int32_t running, std::optional<int32_t> next) {
    std::string text;
    if (!block.checksum_is_right) {
        text += "the checksum of the slot block is wrong, so which slots are good is unknown\n";
    }
    if (block.stored_count > block.slots.size()) {
        text += format("the slot block speaks of %u slots, of which only %zu can be used\n", block.stored_count,
                       block.slots.size());
    }
    if (running < 0) {
        text += "which slot is running is unknown: the kernel command line does not tell\n";
    }
    if (!next) {
        text += "no slot can be booted\n";
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
 * wrong: a change would seal what nobody knows.
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

void declare_mark_bad(Command& verb, Context& context) {
    struct Options {
        std::string word;
        std::string lock_file = default_lock_file;
        bool yes = false;
    };
    Command& command = add_command(verb, "mark-bad", "Make this slot unbootable");
    auto options = std::make_shared<Options>();
    add_word(command, "SLOT", options->word, "Number or letter of the slot");
    add_flag(command, "--yes", options->yes, "Even the running slot, where no other is confirmed");
    add_lock(command, options->lock_file);
    on_command(command, context, [&context, options] {
        const UpdateLock lock(options->lock_file, "tessera slots");
        const int32_t slot = existing_slot(options->word);
        if (!options->yes) {
            demand_other_good_slot(slot);
        }
        mark_slot_unbootable(slot);
        show_slots(context);
    });
}

void declare_change(Command& verb, Context& context, const char* name, const char* summary, void (*change)(int32_t)) {
    Command& command = add_command(verb, name, summary);
    auto word = std::make_shared<std::string>();
    auto lock_file = std::make_shared<std::string>(default_lock_file);
    add_word(command, "SLOT", *word, "Number or letter of the slot");
    add_lock(command, *lock_file);
    on_command(command, context, [&context, word, lock_file, change] {
        const UpdateLock lock(*lock_file, "tessera slots");
        change(existing_slot(*word));
        show_slots(context);
    });
}

} // namespace

void declare_slots(Command& verb, Context& context) {
    allow_command(verb);
    on_command(verb, context, [&context] { show_slots(context); });
    declare_change(verb, context, "set-next", "Boot this slot next, with one try", set_next_slot);
    declare_change(verb, context, "mark-good", "Mark this slot as booted successfully", mark_slot_good);
    declare_mark_bad(verb, context);
    Command& reset = add_command(verb, "reset", "Write a new block: two slots on trial, with 7 tries each");
    auto lock_file = std::make_shared<std::string>(default_lock_file);
    add_lock(reset, *lock_file);
    on_command(reset, context, [&context, lock_file] {
        const UpdateLock lock(*lock_file, "tessera slots reset");
        reset_slot_block();
        show_slots(context);
    });
}
