// SPDX-License-Identifier: Apache-2.0
#include "install/install_record.h"

#include "board/status_record.h"

#include <algorithm>

/** What other programs keep in the record is left as it is. */
void InstallRecord::fill() {
    const StoredStatus stored = read_status();
    record_ = stored.is_valid ? stored.record : ota_status_t{};
    record_.owner = OTA_TOOL;
    record_.next_slot = static_cast<uint32_t>(plan_.slot.value_or(std::max(0, ota_get_cur_slot())));
    record_.update_part = {};
    for (const Target& target : plan_.targets) {
        const uint32_t i = record_.update_part.num++;
        target.image.name.copy(record_.update_part.array[i], sizeof record_.update_part.array[i] - 1);
        record_.update_part.medium[i] = target.image.medium;
        record_.update_part.type[i] = target.image.type;
    }
}

void InstallRecord::begin() {
    fill();
    record_.up = OTA_FLAG_BURN;
    write_status(record_);
}

void InstallRecord::set_verified() {
    if (!has_begun()) {
        fill();
    }
    record_.up = OTA_FLAG_VERIFIED;
    write_status(record_);
}

void InstallRecord::end() {
    record_.up = OTA_FLAG_NORMAL;
    record_.owner = NORMAL_BOOT;
    write_status(record_);
}
