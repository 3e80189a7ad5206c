// SPDX-License-Identifier: Apache-2.0
#include "flash_command.h"

static_assert(sizeof(fimage_update_t) == 2272);
static_assert(offsetof(fimage_update_t, partinfo) == 8);
static_assert(offsetof(fimage_update_t, partinfo.misc.length) == 12);
static_assert(offsetof(fimage_update_t, reserved) == 204);
static_assert(offsetof(fimage_update_t, signlen) == 220);
static_assert(offsetof(fimage_update_t, signdata) == 224);
static_assert(offsetof(fimage_update_t, miscdata) == 2272);

format_answer check_flash_command(const fimage_update_t& command) {
    if (command.magic != flash_command_magic) {
        return is_erased(record_bytes(command)) ? format_erased : format_wrong_magic;
    }
    return format_valid;
}

uint32_t flash_command_area_size(const fimage_update_t& command) {
    return command.partinfo.misc.length;
}
