// SPDX-License-Identifier: Apache-2.0
/** Diagnostics and checksums. The rest of this unit is in ota_utils_*.cpp. */
#include "ota_utils.h"

#include "ota_log.h"

#include <cstdlib>

/* The stored records and the contract with the tools depend on these sizes and offsets. */
static_assert(sizeof(ota_medium_e) == 4 && sizeof(ota_part_type_e) == 4 && sizeof(ota_update_flag_e) == 4);
static_assert(sizeof(ota_file_info_t) == 152 && offsetof(ota_file_info_t, path) == 20);
static_assert(sizeof(partition_info_t) == 208 && offsetof(partition_info_t, part_name) == 24);
static_assert(offsetof(partition_info_t, part_file) == 56 && offsetof(partition_info_t, md5) == 120);
static_assert(offsetof(partition_info_t, md5_scope) == 192);
static_assert(offsetof(update_info_t, update_partition) == 524 && offsetof(update_info_t, backup_dir) == 1548);
static_assert(offsetof(update_info_t, update_size) == 1676 && offsetof(update_info_t, ab_sync) == 1684);
static_assert(offsetof(update_info_t, partition_info) == 1696);

namespace {

int32_t debug_flag = -1; /* negative: the environment has not been read yet */
uint32_t crc_table[256]; /* entry 1 of a filled table is not 0 */

constexpr uint32_t crc32_polynomial = 0xEDB88320;
constexpr uint32_t crc16_polynomial = 0x1021;

void fill_crc_table() {
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int bit = 0; bit < 8; ++bit) {
            c = (c >> 1) ^ (crc32_polynomial & (0 - (c & 1)));
        }
        crc_table[i] = c;
    }
}

} // namespace

int32_t check_debug_level() {
    if (debug_flag >= 0) {
        return debug_flag;
    }
    const char* text = std::getenv("OTA_DEBUG_FLAG");
    const int level = text == nullptr ? 0 : std::atoi(text);
    debug_flag = level > 0 ? level : 0;
    return debug_flag;
}

uint32_t CRC32(const uint8_t* buf, size_t size) {
    if (crc_table[1] == 0) {
        fill_crc_table();
    }
    uint32_t crc = 0xFFFFFFFF;
    for (size_t i = 0; i < size; ++i) {
        crc = (crc >> 8) ^ crc_table[(buf[i] ^ crc) & 0xFF];
    }
    return ~crc;
}

uint16_t CRC16(const uint8_t* buf, size_t size) {
    uint32_t crc = 0xFFFF;
    for (size_t i = 0; i < size; ++i) {
        for (uint32_t mask = 0x80; mask != 0; mask >>= 1) {
            crc <<= 1;
            if ((crc & 0x10000) != 0) {
                crc ^= 0x10000 | crc16_polynomial;
            }
            if ((buf[i] & mask) != 0) {
                crc ^= crc16_polynomial;
            }
        }
    }
    return static_cast<uint16_t>(crc);
}
