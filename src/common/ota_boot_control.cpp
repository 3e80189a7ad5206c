// SPDX-License-Identifier: Apache-2.0
/**
 * The slot block: reading, checking, changing and saving it.
 *
 * Invariants:
 *  1. The magic alone decides whether a block is valid. The CRC is written, never verified here.
 *  2. A change works on a copy and reaches the partition whole, in the one write that ends the call.
 *  3. Every refusal comes before the first field changes.
 *  4. Entries 0 to 3 exist, whatever the stored number of slots.
 *  5. After a slot was made active, it alone has the highest priority.
 */
#include "ota_boot_control.h"

#include "ota_log.h"
#include "ota_partition.h"
#include "ota_paths.h"
#include "ota_record.h"
#include "ota_utils.h"
#include "slot_block.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr uint32_t active_priority = 15;
constexpr uint32_t active_tries = 1;
constexpr slot_metadata default_metadata = {
    .priority = 15, .tries_remaining = 7, .successful_boot = 0, .verity_corrupted = 0, .reserved = 0};

int32_t is_bootctrl_valid(const bootloader_control* ctrl) {
    if (ctrl == nullptr) {
        ota_log_error("Invalid input parameter, null ptr\n");
        return -1;
    }
    return ctrl->magic == slot_block_magic ? 1 : 0;
}

bool check_info(const bootloader_control* boot_ctrl) {
    if (is_bootctrl_valid(boot_ctrl) != 1) {
        ota_log_error("Invalid boot ctrl info\n");
        return false;
    }
    return true;
}

uint32_t usable_slots(const bootloader_control* boot_ctrl) {
    return std::min(uint32_t{boot_ctrl->nb_slot}, slot_block_slots);
}

bool check_slot(int32_t slot, const bootloader_control* boot_ctrl) {
    if (!check_info(boot_ctrl)) {
        return false;
    }
    if (slot < 0 || static_cast<uint32_t>(slot) >= usable_slots(boot_ctrl)) {
        ota_log_error("Invalid boot slot %d\n", slot);
        return false;
    }
    return true;
}

/** Negative when a is the better slot, positive when b is, 0 when they tie. */
int32_t ab_compare_slots(const slot_metadata* a, const slot_metadata* b) {
    if (a->priority != b->priority) {
        return b->priority - a->priority;
    }
    if (a->successful_boot != b->successful_boot) {
        return b->successful_boot - a->successful_boot;
    }
    return b->tries_remaining - a->tries_remaining;
}

int32_t bootctrl_get_curslot_from_misc(const bootloader_control* boot_ctrl) {
    if (!check_info(boot_ctrl)) {
        return -1;
    }
    const uint32_t slots = boot_ctrl->nb_slot;
    if (slots > slot_block_slots) {
        ota_log_error("Invalid nb_slot %d, max %ld\n", slots, long{slot_block_slots});
        return -1;
    }
    int32_t best = -1;
    for (uint32_t i = 0; i < slots; ++i) {
        const slot_metadata* slot = &boot_ctrl->slot_info[i];
        if (slot->verity_corrupted != 0 || slot->tries_remaining == 0) {
            continue;
        }
        if (best < 0 || ab_compare_slots(slot, &boot_ctrl->slot_info[best]) < 0) {
            best = static_cast<int32_t>(i);
        }
    }
    ota_log_info("curslot read from misc is: %d\n", best);
    return best;
}

uint32_t bootctrl_get_number_slots(const bootloader_control* boot_ctrl) {
    return check_info(boot_ctrl) ? boot_ctrl->nb_slot : static_cast<uint32_t>(-1);
}

uint32_t bootctrl_get_slot_remainig_times(int32_t slot, const bootloader_control* boot_ctrl) {
    return check_slot(slot, boot_ctrl) ? boot_ctrl->slot_info[slot].tries_remaining : static_cast<uint32_t>(-1);
}

int32_t bootctrl_is_slot_bootable(int32_t slot, const bootloader_control* boot_ctrl) {
    return static_cast<int32_t>(bootctrl_get_slot_remainig_times(slot, boot_ctrl));
}

/** A mark counts only while there are tries left. */
bool is_marked_successful(const slot_metadata* slot) {
    return slot->successful_boot != 0 && slot->tries_remaining != 0;
}

int32_t bootctrl_is_slot_marked_successful(int32_t slot, const bootloader_control* boot_ctrl) {
    if (!check_slot(slot, boot_ctrl)) {
        return -1;
    }
    return is_marked_successful(&boot_ctrl->slot_info[slot]) ? 1 : 0;
}

int32_t bootctrl_get_info(bootloader_control* boot_ctrl) {
    ota_file_info_t misc_info{};
    int32_t ret = locate_record(ota_misc_partition, slot_block_offset, &misc_info);
    if (ret < 0) {
        return ret;
    }
    ret = ota_file_to_buf(&misc_info, reinterpret_cast<char*>(boot_ctrl), sizeof *boot_ctrl);
    if (ret < 0) {
        ota_log_error("misc data read failed, ret %d\n", ret);
        return ret;
    }
    if (is_bootctrl_valid(boot_ctrl) != 1) {
        ota_log_error("check bootctrl valid failed! ret %d\n", ret);
        return -1;
    }
    return 0;
}

/** The first step of every public operation except the reset. */
bool fetch_block(bootloader_control* boot_ctrl) {
    std::memset(boot_ctrl, 0, sizeof *boot_ctrl); /* including the bits between the fields */
    if (bootctrl_get_info(boot_ctrl) != 0) {
        ota_log_error("get boot ctrl info failed!\n");
        return false;
    }
    return true;
}

int32_t bootctrl_update_and_save(bootloader_control* ctrl) {
    if (ctrl == nullptr) {
        ota_log_error("Invalid input parameter, null ptr");
        return -1;
    }
    seal_slot_block(ctrl);
    ota_file_info_t misc_info{};
    int32_t ret = locate_record(ota_misc_partition, slot_block_offset, &misc_info);
    if (ret < 0) {
        return ret;
    }
    ret = ota_buf_to_file(&misc_info, reinterpret_cast<const char*>(ctrl), sizeof *ctrl);
    if (ret < 0) {
        ota_log_error("misc data write failed, ret %d\n", ret);
    }
    return ret;
}

int32_t save_change(bootloader_control* boot_ctrl) {
    if (bootctrl_update_and_save(boot_ctrl) < 0) {
        ota_log_error("Boot ctrl save failed\n");
        return -1;
    }
    return 0;
}

int32_t bootctrl_set_active_boot_slot(uint32_t slot, bootloader_control* boot_ctrl) {
    if (!check_slot(static_cast<int32_t>(slot), boot_ctrl)) {
        return -1;
    }
    const uint32_t slots = usable_slots(boot_ctrl);
    for (uint32_t i = 0; i < slots; ++i) {
        slot_metadata* other = &boot_ctrl->slot_info[i];
        if (i != slot && other->priority >= active_priority) {
            other->priority = active_priority - 1;
        }
    }
    slot_metadata* active = &boot_ctrl->slot_info[slot];
    active->priority = active_priority;
    active->tries_remaining = active_tries;
    active->verity_corrupted = 0;
    return save_change(boot_ctrl);
}

int32_t bootctrl_mark_boot_successful(int32_t slot, bootloader_control* boot_ctrl) {
    if (!check_slot(slot, boot_ctrl)) {
        return -1;
    }
    slot_metadata* marked = &boot_ctrl->slot_info[slot];
    if (is_marked_successful(marked)) {
        ota_log_info("This slot has been marked success before, no need to mark it repeatedly\n");
        return 0;
    }
    marked->successful_boot = 1;
    marked->tries_remaining = active_tries;
    return save_change(boot_ctrl);
}

int32_t bootctrl_set_slot_as_unbootable(int32_t slot, bootloader_control* boot_ctrl) {
    if (!check_slot(slot, boot_ctrl)) {
        return -1;
    }
    boot_ctrl->slot_info[slot].successful_boot = 0;
    boot_ctrl->slot_info[slot].tries_remaining = 0;
    return save_change(boot_ctrl);
}

/** Expects a zeroed block: entries after the default slots stay as they are. */
int32_t ab_control_default(bootloader_control* abc) {
    if (abc == nullptr) {
        return -1;
    }
    std::memcpy(abc->slot_suffix, "a\0\0", sizeof abc->slot_suffix);
    abc->magic = slot_block_magic;
    abc->version = slot_block_version;
    abc->nb_slot = slot_block_default_slots;
    std::memset(abc->reserved0, 0, sizeof abc->reserved0);
    for (uint32_t i = 0; i < slot_block_default_slots; ++i) {
        abc->slot_info[i] = default_metadata;
    }
    std::memset(abc->reserved1, 0, sizeof abc->reserved1);
    return 0;
}

int32_t bootctrl_set_default() {
    bootloader_control bt;
    std::memset(&bt, 0, sizeof bt);
    if (ab_control_default(&bt) != 0) {
        ota_log_error("bootloader control set default failed\n");
        return -1;
    }
    if (bootctrl_update_and_save(&bt) < 0) {
        ota_log_error("bootctrl_write failed\n");
        return -1;
    }
    return 0;
}

} // namespace

int32_t ota_get_next_expected_slot() {
    bootloader_control boot_ctrl;
    if (!fetch_block(&boot_ctrl)) {
        return -1;
    }
    const int32_t slot = bootctrl_get_curslot_from_misc(&boot_ctrl);
    if (slot < 0) {
        ota_log_error("get next expected slot error!\n");
        return -1;
    }
    ota_log_info("next expected slot is:%d\n", slot);
    return slot;
}

int32_t ota_get_slot_bootable_state(int32_t slot) {
    bootloader_control boot_ctrl;
    if (!fetch_block(&boot_ctrl)) {
        return -1;
    }
    const int32_t state = bootctrl_is_slot_bootable(slot, &boot_ctrl);
    if (state < 0) {
        return -1;
    }
    ota_log_info("get slot:%d bootable state is:%d\n", slot, state);
    return state;
}

int32_t ota_get_slot_boot_success_state(int32_t slot) {
    bootloader_control boot_ctrl;
    if (!fetch_block(&boot_ctrl)) {
        return -1;
    }
    const int32_t state = bootctrl_is_slot_marked_successful(slot, &boot_ctrl);
    if (state < 0) {
        ota_log_error("get slot:%d boot success state error!\n", slot);
        return -1;
    }
    ota_log_info("get slot:%d boot success state is:%d\n", slot, state);
    return state;
}

int32_t ota_get_slot_num() {
    bootloader_control boot_ctrl;
    if (!fetch_block(&boot_ctrl)) {
        return -1;
    }
    const auto num = static_cast<int32_t>(bootctrl_get_number_slots(&boot_ctrl));
    if (num < 0) {
        ota_log_error("get slot num error!\n");
    }
    ota_log_info("get slot num is:%d\n", num);
    return num;
}

int32_t ota_get_slot_remaining_times(int32_t slot) {
    bootloader_control boot_ctrl;
    if (!fetch_block(&boot_ctrl)) {
        return -1;
    }
    const auto times = static_cast<int32_t>(bootctrl_get_slot_remainig_times(slot, &boot_ctrl));
    if (times < 0) {
        ota_log_error("get slot:%d boot remaining times error!\n", slot);
    }
    ota_log_info("get slot:%d boot remaining times:%d\n", slot, times);
    return times;
}

int32_t ota_set_next_expected_slot(int32_t slot) {
    bootloader_control boot_ctrl;
    if (!fetch_block(&boot_ctrl)) {
        return -1;
    }
    if (bootctrl_set_active_boot_slot(static_cast<uint32_t>(slot), &boot_ctrl) < 0) {
        ota_log_error("set active boot slot to %d error!\n", slot);
        return -1;
    }
    ota_log_info("set slot:%d to next expected success!\n", slot);
    return 0;
}

int32_t ota_set_slot_unbootable(int32_t slot) {
    bootloader_control boot_ctrl;
    if (!fetch_block(&boot_ctrl)) {
        return -1;
    }
    if (bootctrl_set_slot_as_unbootable(slot, &boot_ctrl) < 0) {
        ota_log_error("set slot:%d unbootable error!\n", slot);
        return -1;
    }
    ota_log_info("set slot:%d to unbootable success!\n", slot);
    return 0;
}

int32_t ota_mark_slot_boot_successful(int32_t slot) {
    bootloader_control boot_ctrl;
    if (!fetch_block(&boot_ctrl)) {
        return -1;
    }
    if (bootctrl_mark_boot_successful(slot, &boot_ctrl) < 0) {
        ota_log_error("set slot:%d boot successful error!\n", slot);
        return -1;
    }
    ota_log_info("set slot:%d boot success\n", slot);
    return 0;
}

int32_t ota_set_slotmeta_to_default() {
    const int32_t ret = bootctrl_set_default();
    if (ret != 0) {
        ota_log_error("set default slot info failed, ret %d\n", ret);
        return -1;
    }
    return 0;
}
