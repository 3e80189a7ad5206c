// SPDX-License-Identifier: Apache-2.0
#include "slot_block.h"

static_assert(sizeof(slot_metadata) == 2);
static_assert(sizeof(bootloader_control) == 32);
static_assert(offsetof(bootloader_control, magic) == 4);
static_assert(offsetof(bootloader_control, version) == 8);
static_assert(offsetof(bootloader_control, reserved0) == 10);
static_assert(offsetof(bootloader_control, slot_info) == 12);
static_assert(sizeof bootloader_control::slot_info == slot_block_slots * sizeof(slot_metadata));
static_assert(offsetof(bootloader_control, reserved1) == 20);
static_assert(offsetof(bootloader_control, crc32_le) == 28);
static_assert(sizeof(bootloader_message) == 2048);
static_assert(sizeof(bootloader_message_ab) == 4096);
static_assert(offsetof(bootloader_message_ab, slot_suffix) == slot_block_offset);

namespace {

uint32_t checksum(const bootloader_control& block) {
    return crc32_of(record_bytes(block).first(offsetof(bootloader_control, crc32_le)));
}

} // namespace

format_answer check_slot_block(const bootloader_control& block) {
    if (block.magic != slot_block_magic) {
        return is_erased(record_bytes(block)) ? format_erased : format_wrong_magic;
    }
    return block.crc32_le == checksum(block) ? format_valid : format_wrong_checksum;
}

void seal_slot_block(bootloader_control* block) {
    block->crc32_le = checksum(*block);
}
