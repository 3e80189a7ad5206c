#include "slot_block.h"

#include "console.h"
#include "names.h"
#include "partition.h"
#include "salvage.h"

#include <algorithm>
#include <span>

namespace {

constexpr char block_partition[] = "misc";
constexpr uint64_t block_offset = offsetof(bootloader_message_ab, slot_suffix);
constexpr uint32_t block_magic = 0x42414342;

/**
 * Changes the block and reads it back. The library writes past bad blocks and reads at a fixed place: with
 * a bad block in front, a change succeeds that nobody will ever see.
 */
template <class Change, class Check>
void change_block(const std::string& sentence, Change change, Check is_kept) {
    require(ExitCode::device, sentence, change);
    sync_partition(block_partition);
    if (!is_kept()) {
        throw Failure(ExitCode::device, sentence + ": " + block_partition + " did not keep the change",
                      "tessera board --check tells whether a bad block lies in front of it");
    }
}

Slot read_slot(int32_t number) {
    const SlotBlock block = read_slot_block();
    const Slot* slot = block.find(number);
    return slot != nullptr ? *slot : Slot{};
}

} // namespace

std::string Slot::name() const {
    return "slot " + slot_letter(number);
}

void SlotBlock::demand_checksum() const {
    if (checksum_is_right) {
        return;
    }
    const int32_t running = ota_get_cur_slot();
    const bool may_confirm = get_boot_mode() != RECOVERY_MODE && running >= 0 && running < new_block_slots;
    throw Failure(ExitCode::failed, "the checksum of the slot block is wrong, so which slots are good is unknown",
                  may_confirm ? "tessera confirm makes it anew with the running slot as good, tessera slots reset with "
                                "both on trial"
                              : "tessera slots reset makes it anew, with both slots on trial");
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

bool SlotBlock::boots_without(int32_t number) const {
    return std::any_of(slots.begin(), slots.end(),
                       [&](const Slot& slot) { return slot.number != number && slot.is_bootable(); });
}

SlotBlock read_slot_block() {
    bootloader_control raw{};
    const std::span<uint8_t> bytes(reinterpret_cast<uint8_t*>(&raw), sizeof raw);
    read_record(block_partition, block_offset, bytes);
    if (raw.magic != block_magic) {
        throw Failure(ExitCode::device, "misc holds no slot block",
                      "while no other command is at work, tessera slots reset writes a new one");
    }
    SlotBlock block{{}, raw.nb_slot, CRC32(bytes.data(), offsetof(bootloader_control, crc32_le)) == raw.crc32_le};
    const auto count = std::min<size_t>(raw.nb_slot, std::size(raw.slot_info));
    for (size_t i = 0; i < count; ++i) {
        const slot_metadata& slot = raw.slot_info[i];
        block.slots.push_back({static_cast<int32_t>(i), slot.priority, slot.tries_remaining, slot.successful_boot != 0,
                               slot.verity_corrupted != 0});
    }
    return block;
}

std::optional<int32_t> next_slot() {
    const int32_t slot = ota_get_next_expected_slot();
    return slot < 0 ? std::nullopt : std::optional(slot);
}

int32_t running_slot() {
    return require(ExitCode::failed, "cannot tell which slot is running", [] { return ota_get_cur_slot(); });
}

void set_next_slot(int32_t slot) {
    change_block(
        "cannot make slot " + slot_letter(slot) + " the next one", [&] { return ota_set_next_expected_slot(slot); },
        [&] { return next_slot() == slot; });
}

void mark_slot_good(int32_t slot) {
    change_block(
        "cannot mark slot " + slot_letter(slot) + " good", [&] { return ota_mark_slot_boot_successful(slot); },
        [&] { return read_slot(slot).marked_good; });
}

void mark_slot_unbootable(int32_t slot) {
    change_block(
        "cannot make slot " + slot_letter(slot) + " unbootable", [&] { return ota_set_slot_unbootable(slot); },
        [&] { return read_slot(slot).is_given_up(); });
}

void reset_slot_block() {
    salvage(partition_path(block_partition));
    change_block(
        "cannot write a new slot block", [] { return ota_set_slotmeta_to_default(); },
        [] {
            const Slot first = read_slot(0);
            return first.tries > 1 && !first.marked_good;
        });
}
