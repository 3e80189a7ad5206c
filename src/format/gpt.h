// SPDX-License-Identifier: Apache-2.0
/**
 * The entries of a GUID Partition Table (UEFI 2.10, 5.3.3): 128 entries of 128 bytes at byte 1024 of the
 * disk, LBA 2 with 512-byte sectors, little-endian.
 *
 *   offset  size  meaning
 *        0    16  type of the partition, a GUID; zeros in an unused entry
 *       16    16  GUID of the partition
 *       32     8  first LBA
 *       40     8  last LBA
 *       48     8  attributes
 *       56    72  name, 36 units of UTF-16, padded with zeros
 */
#ifndef GPT_FORMAT_H
#define GPT_FORMAT_H

#include "format.h"
#include "ota_utils.h"

inline constexpr uint64_t gpt_sector = 512;
inline constexpr uint64_t gpt_header_offset = gpt_sector;
inline constexpr uint64_t gpt_signature = 0x5452415020494645; /* begins the header: the bytes "EFI PART" */
inline constexpr uint64_t gpt_entries_offset = 2 * gpt_sector;
inline constexpr size_t gpt_entry_count = 128;
inline constexpr size_t gpt_name_units = 36;

/** Valid, absent (not used) or foreign (the last LBA is before the first). */
format_answer check_gpt_entry(const gpt_entry& entry);

#endif
