// SPDX-License-Identifier: Apache-2.0
#include "antirollback_record.h"

static_assert(sizeof(antirollback_ver_t) == 16);
static_assert(offsetof(antirollback_ver_t, nosec_up_flag) == 1);
static_assert(offsetof(antirollback_ver_t, sec_ver) == 4);
static_assert(offsetof(antirollback_ver_t, nosec_ver) == 8);
static_assert(offsetof(antirollback_ver_t, crc32_le) == 12);

namespace {

uint32_t checksum(const antirollback_ver_t& record) {
    return crc32_of(record_bytes(record).first(offsetof(antirollback_ver_t, crc32_le)));
}

} // namespace

format_answer check_antirollback_record(const antirollback_ver_t& record) {
    if (record.crc32_le == checksum(record)) {
        return format_valid;
    }
    return is_erased(record_bytes(record)) ? format_erased : format_wrong_checksum;
}

void seal_antirollback_record(antirollback_ver_t* record) {
    record->crc32_le = checksum(*record);
}
