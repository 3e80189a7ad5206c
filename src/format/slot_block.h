// SPDX-License-Identifier: Apache-2.0
/**
 * The slot block: the bootloader and the update tools share in it which slot boots. 32 bytes at byte 2048 of the
 * partition "misc", little-endian; bit 0 is the least significant.
 *
 *   offset  size  meaning
 *        0     4  suffix, "a" and three zeros in a default block; never read
 *        4     4  magic, 0x42414342: the bytes "BCAB"
 *        8     1  version, 1
 *        9     1  bits 0 to 2: number of slots, at most 4 can be used; bits 3 to 5: recovery tries, not used
 *       10     2  zero
 *       12     8  four slots of 2 bytes: bits 0 to 3 priority, 4 to 6 tries left, 7 marked successful;
 *                 bit 8 corrupted, 9 to 15 zero
 *       20     8  zero
 *       28     4  CRC-32 of bytes 0 to 27
 */
#ifndef SLOT_BLOCK_FORMAT_H
#define SLOT_BLOCK_FORMAT_H

#include "format.h"
#include "ota_boot_control.h"

inline constexpr uint64_t slot_block_offset = 2048;
inline constexpr uint32_t slot_block_magic = 0x42414342;
inline constexpr uint8_t slot_block_version = 1;
inline constexpr uint32_t slot_block_slots = 4;         /* at most */
inline constexpr uint32_t slot_block_default_slots = 2; /* of a new block */

/**
 * Valid, or torn with a wrong checksum, absent (erased) or foreign (wrong magic number). A reader that accepts any
 * block with the right magic accepts a torn one.
 */
format_answer check_slot_block(const bootloader_control& block);

/** Sets the checksum. The block then has its stored form: record_bytes(). */
void seal_slot_block(bootloader_control* block);

#endif
