// SPDX-License-Identifier: Apache-2.0
#include "status_record.h"

static_assert(sizeof(update_part_t) == 1284);
static_assert(offsetof(update_part_t, array) == 4);
static_assert(offsetof(update_part_t, medium) == 1028);
static_assert(offsetof(update_part_t, type) == 1156);
static_assert(sizeof(ota_status_t) == 1356);
static_assert(offsetof(ota_status_t, magic) == 0);
static_assert(offsetof(ota_status_t, up) == 4);
static_assert(offsetof(ota_status_t, up_system) == 8);
static_assert(offsetof(ota_status_t, up_backup) == 12);
static_assert(offsetof(ota_status_t, up_app) == 16);
static_assert(offsetof(ota_status_t, up_middleware) == 20);
static_assert(offsetof(ota_status_t, up_param) == 24);
static_assert(offsetof(ota_status_t, owner) == 28);
static_assert(offsetof(ota_status_t, next_slot) == 32);
static_assert(offsetof(ota_status_t, update_part) == 36);
static_assert(offsetof(ota_status_t, reserved) == 1320);
static_assert(offsetof(ota_status_t, crc32_le) == 1352);

uint32_t status_record_checksum(const ota_status_t& record) {
    return crc32_of(record_bytes(record).first(offsetof(ota_status_t, crc32_le)));
}

format_answer check_status_record(const ota_status_t& record) {
    if (record.magic != status_record_magic) {
        return is_erased(record_bytes(record)) ? format_erased : format_wrong_magic;
    }
    return record.crc32_le == status_record_checksum(record) ? format_valid : format_wrong_checksum;
}

void seal_status_record(ota_status_t* record) {
    record->crc32_le = status_record_checksum(*record);
}
