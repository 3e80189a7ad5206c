// SPDX-License-Identifier: Apache-2.0
#include "board/slot_block.h"

#include "board/device.h"
#include "board/names.h"
#include "board/partition.h"
#include "console/console.h"
#include "console/text.h"
#include "format/slot_block.h"
#include "internal/ota_paths.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

namespace {

/**
 * Writes the block and reads it back. The library writes past bad blocks and reads at a fixed place: with
 * a bad block before it, a change would succeed and never be read.
 */
template <class Change, class Check>
void write_block(const std::string& sentence, Change change, Check is_kept) {
    require(ExitCode::device, sentence, change);
    sync_partition(ota_misc_partition);
    bool kept = false;
    try {
        kept = is_kept(read_slot_block());
    } catch (const LostBlock& lost) {
        throw Failure(ExitCode::device, sentence + ": the change cannot be read back: " + lost.what());
    }
    if (!kept) {
        throw Failure(ExitCode::device, sentence + ": the change did not persist in " + ota_misc_partition,
                      "tessera board --check    (reports whether a bad block precedes it)");
    }
}

/** The command that writes a new block. In the recovery system no slot is known to be good. */
std::string new_block_hint() {
    const int32_t running = ota_get_cur_slot();
    const bool may_confirm =
        get_boot_mode() != RECOVERY_MODE && running >= 0 && running < int32_t{slot_block_default_slots};
    return may_confirm ? "tessera confirm" : "tessera slots reset";
}

/** Like write_block(), for a block that exists. On flash a failed change may have erased it; then only a new one helps.
 */
template <class Change, class Check>
void change_block(const std::string& sentence, Change change, Check is_kept) {
    try {
        write_block(sentence, change, is_kept);
    } catch (Failure& failure) {
        if (!find_slot_block()) {
            failure.hint = new_block_hint();
        }
        throw;
    }
}

/** Without tries if the block does not list it. */
Slot slot_of(const SlotBlock& block, int32_t number) {
    const Slot* slot = block.find(number);
    return slot != nullptr ? *slot : Slot{};
}

/** Whether the block is valid and lists the running slot. */
bool runs_slot(const SlotBlock& block) {
    return block.checksum_is_right && get_boot_mode() != RECOVERY_MODE && block.find(ota_get_cur_slot()) != nullptr;
}

/** The kernel returns a NAND page that its ECC cannot correct like any other; a bootloader finds no block there. */
void read_with_ecc(const std::string& path, bootloader_control& raw) {
    const Device device(path);
    const auto lost = device.uncorrectable_reads();
    read_record(ota_misc_partition, slot_block_offset, {reinterpret_cast<uint8_t*>(&raw), sizeof raw});
    if (device.lost_reads_since(lost)) {
        throw Failure(ExitCode::device, "the slot block is in a page of misc that its ECC cannot correct");
    }
}

bootloader_control read_raw_block() {
    bootloader_control raw{};
    const std::string path = existing_partition(ota_misc_partition);
    if (access(path.c_str(), R_OK) != 0) { /* a permission error: the block itself may be valid */
        throw Failure(ExitCode::device, "cannot open " + path + because(errno));
    }
    try {
        read_with_ecc(path, raw);
    } catch (const Failure& failure) {
        throw LostBlock(failure.code, failure.what(), new_block_hint());
    }
    return raw;
}

} // namespace

std::string Slot::name() const {
    return "slot " + slot_letter(number);
}

const Slot* SlotBlock::find(int32_t number) const {
    const auto found =
        std::find_if(slots.begin(), slots.end(), [&](const Slot& slot) { return slot.number == number; });
    return found == slots.end() ? nullptr : &*found;
}

const char* SlotBlock::state_of(const Slot& slot) const {
    if (!checksum_is_right) {
        return "unknown";
    }
    if (slot.corrupted) {
        return "corrupted";
    }
    if (slot.tries == 0) {
        return "unbootable";
    }
    return slot.marked_good ? "confirmed" : "trial";
}

bool SlotBlock::has_bootable_slot() const {
    return std::any_of(slots.begin(), slots.end(), [](const Slot& slot) { return slot.is_bootable(); });
}

bool SlotBlock::has_highest_priority(int32_t number) const {
    const Slot* first = find(number);
    return first != nullptr && std::all_of(slots.begin(), slots.end(), [&](const Slot& slot) {
               return slot.number == number || slot.priority < first->priority;
           });
}

bool SlotBlock::is_sole_next(int32_t number) const {
    return has_highest_priority(number) && find(number)->is_bootable();
}

bool SlotBlock::is_confirmed_without(int32_t number) const {
    return std::any_of(slots.begin(), slots.end(),
                       [&](const Slot& slot) { return slot.number != number && slot.is_confirmed(); });
}

const Slot* running_trial(const SlotBlock& block) {
    const Slot* slot = runs_slot(block) ? block.find(ota_get_cur_slot()) : nullptr;
    return slot != nullptr && !slot->marked_good && !slot->corrupted ? slot : nullptr;
}

std::string trial_remark(const Slot& slot) {
    const std::string state = slot.tries == 0 ? "running its last try"
                                              : format("on trial, with %u boot%s left before it is given up",
                                                       slot.tries, slot.tries == 1 ? "" : "s");
    return slot.name() + " is " + state + "; tessera confirm keeps it";
}

const Slot* given_up_slot(const SlotBlock& block) {
    const auto found = std::find_if(block.slots.begin(), block.slots.end(), [&](const Slot& slot) {
        return slot.is_given_up() && block.has_highest_priority(slot.number);
    });
    const bool is_found = runs_slot(block) && found != block.slots.end() && found->number != ota_get_cur_slot();
    return is_found ? &*found : nullptr;
}

SlotBlock read_slot_block() {
    const bootloader_control raw = read_raw_block();
    const format_state state = check_slot_block(raw).state;
    if (state == format_state::absent || state == format_state::foreign) {
        throw LostBlock(ExitCode::device, "misc contains no slot block", new_block_hint());
    }
    SlotBlock block{{}, raw.nb_slot, state == format_state::valid};
    const auto count = std::min<size_t>(raw.nb_slot, std::size(raw.slot_info));
    for (size_t i = 0; i < count; ++i) {
        const slot_metadata& slot = raw.slot_info[i];
        block.slots.push_back({static_cast<int32_t>(i), slot.priority, slot.tries_remaining, slot.successful_boot != 0,
                               slot.verity_corrupted != 0});
    }
    return block;
}

SlotBlock require_slot_block() {
    try {
        SlotBlock block = read_slot_block();
        if (block.checksum_is_right) {
            return block;
        }
    } catch (const LostBlock& lost) {
        throw Failure(ExitCode::failed, lost.what(), lost.hint);
    }
    throw Failure(ExitCode::failed, "the checksum of the slot block is wrong: which slots are good is unknown",
                  new_block_hint());
}

std::optional<SlotBlock> find_slot_block() {
    try {
        SlotBlock block = read_slot_block();
        return block.checksum_is_right ? std::optional(std::move(block)) : std::nullopt;
    } catch (const LostBlock&) {
        return std::nullopt;
    }
}

std::optional<int32_t> next_slot() {
    const int32_t slot = ota_get_next_expected_slot();
    return slot < 0 ? std::nullopt : std::optional(slot);
}

int32_t running_slot() {
    const int32_t slot = ota_get_cur_slot();
    if (slot < 0) {
        throw Failure(ExitCode::failed, "the running slot is unknown: the kernel command line does not name it",
                      "tessera board --check");
    }
    return slot;
}

void set_next_slot(int32_t slot) {
    change_block(
        "cannot make slot " + slot_letter(slot) + " the next one", [&] { return ota_set_next_expected_slot(slot); },
        [&](const SlotBlock& block) { return block.is_sole_next(slot); });
}

void mark_slot_good(int32_t slot) {
    change_block(
        "cannot mark slot " + slot_letter(slot) + " good", [&] { return ota_mark_slot_boot_successful(slot); },
        [&](const SlotBlock& block) { return slot_of(block, slot).marked_good; });
}

void mark_slot_unbootable(int32_t slot) {
    change_block(
        "cannot make slot " + slot_letter(slot) + " unbootable", [&] { return ota_set_slot_unbootable(slot); },
        [&](const SlotBlock& block) { return slot_of(block, slot).is_given_up(); });
}

bool repair_slot_block() {
    return repair_device(existing_partition(ota_misc_partition));
}

void reset_slot_block() {
    repair_slot_block();
    write_block(
        "cannot write a new slot block", [] { return ota_set_slotmeta_to_default(); },
        [](const SlotBlock& block) {
            const Slot first = slot_of(block, 0);
            return first.tries > 1 && !first.marked_good;
        });
}
