// SPDX-License-Identifier: Apache-2.0
/**
 * The header of a verified-boot image (Android Verified Boot "vbmeta"), big-endian. Only these bytes are read:
 *
 *   offset  size  meaning
 *        0     4  magic, "AVB0"
 *        4     1  0, the top byte of the required major version
 *      112     8  rollback index
 */
#ifndef VERIFIED_BOOT_FORMAT_H
#define VERIFIED_BOOT_FORMAT_H

#include "format.h"

inline constexpr size_t verified_boot_magic_size = 5;
inline constexpr size_t verified_boot_index_offset = 112;
inline constexpr size_t verified_boot_index_size = 8;
inline constexpr size_t verified_boot_head_size = verified_boot_index_offset + verified_boot_index_size;

/** Whether an image begins with this header: valid, torn (too short), or foreign (another magic). */
format_answer check_verified_boot_magic(std::span<const uint8_t> head);

/** The rollback index in its stored bytes. */
uint64_t load_rollback_index(std::span<const uint8_t, verified_boot_index_size> bytes);

/**
 * The rollback index of an image, from the first verified_boot_head_size bytes or more.
 * @param index  out: the index, where the answer is valid
 */
format_answer decode_verified_boot(std::span<const uint8_t> head, uint64_t* index);

#endif
