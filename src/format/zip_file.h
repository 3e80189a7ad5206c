// SPDX-License-Identifier: Apache-2.0
/**
 * The records of a zip file (PKWARE APPNOTE 4.3), little-endian:
 *
 *   record                       signature  size  followed by
 *   local header, before data   0x04034B50    30  name, extra field, data
 *   directory header            0x02014B50    46  name, extra field, comment
 *   zip64 end                   0x06064B50    56  (its own length at offset 4 may announce more)
 *   zip64 locator               0x07064B50    20  the end
 *   end                         0x06054B50    22  comment
 *
 * An end, a size or an offset that does not fit is stored as all ones. The zip64 end has the true counts of the
 * directory. An entry's true sizes and offset are in the record 0x0001 of its extra field, in the order size, packed
 * size, offset, and only those that are all ones in the header.
 */
#ifndef ZIP_FILE_FORMAT_H
#define ZIP_FILE_FORMAT_H

#include "format.h"
#include "zip_entry.h"

inline constexpr uint32_t zip_local_signature = 0x04034B50;
inline constexpr uint32_t zip_directory_signature = 0x02014B50;
inline constexpr uint32_t zip64_end_signature = 0x06064B50;
inline constexpr uint32_t zip64_locator_signature = 0x07064B50;
inline constexpr uint32_t zip_end_signature = 0x06054B50;
inline constexpr uint16_t zip_wide16 = 0xFFFF;
inline constexpr uint16_t zip_stored = 0;
inline constexpr uint16_t zip_deflated = 8;
inline constexpr uint16_t zip_flag_encrypted = 1 << 0;
inline constexpr uint16_t zip_flag_sizes_follow = 1 << 3; /* checksum and sizes are after the data and not before it */

/** What the headers of an entry share. */
struct [[gnu::packed]] zip_entry_fields {
    uint16_t version_needed;
    uint16_t flags;
    uint16_t method;
    uint16_t time; /* of MS-DOS: hour in bits 15 to 11, minute in 10 to 5, half the second */
    uint16_t date; /* of MS-DOS: year after 1980 in bits 15 to 9, month in 8 to 5, day */
    uint32_t crc;
    uint32_t packed_size;
    uint32_t size;
    uint16_t name_length;
    uint16_t extra_length;
};

struct [[gnu::packed]] zip_local_header {
    uint32_t signature;
    zip_entry_fields fields;
};
static_assert(sizeof(zip_local_header) == 30);

struct [[gnu::packed]] zip_directory_header {
    uint32_t signature;
    uint16_t made_by;
    zip_entry_fields fields;
    uint16_t comment_length;
    uint16_t disk;
    uint16_t internal_attributes;
    uint32_t attributes;
    uint32_t offset; /* of the local header */
};
static_assert(sizeof(zip_directory_header) == 46);

struct [[gnu::packed]] zip64_end {
    uint32_t signature;
    uint64_t length; /* of the rest of the record */
    uint16_t made_by;
    uint16_t version_needed;
    uint32_t disk;
    uint32_t directory_disk;
    uint64_t entries_on_disk;
    uint64_t entries;
    uint64_t directory_size;
    uint64_t directory_offset;
};
static_assert(sizeof(zip64_end) == 56);
inline constexpr uint64_t zip64_end_length = sizeof(zip64_end) - offsetof(zip64_end, made_by);

struct [[gnu::packed]] zip64_locator {
    uint32_t signature;
    uint32_t end_disk;
    uint64_t end_offset;
    uint32_t disks;
};
static_assert(sizeof(zip64_locator) == 20);

struct [[gnu::packed]] zip_end {
    uint32_t signature;
    uint16_t disk;
    uint16_t directory_disk;
    uint16_t entries_on_disk;
    uint16_t entries;
    uint32_t directory_size;
    uint32_t directory_offset;
    uint16_t comment_length;
};
static_assert(sizeof(zip_end) == 22);

/** Sizes and place of an entry. */
struct zip_extent {
    uint64_t size;        /* unpacked */
    uint64_t packed_size; /* in the file */
    uint64_t offset;      /* of the local header */
};

/**
 * Replaces the values that are all ones in the header by those of the extra field. A value that the extra field lacks
 * stays all ones.
 * @param extent  in: the 32-bit values of the header; out: the true ones
 * @return false where a record before that of zip64 ends past the extra field
 */
bool zip_complete_extent(std::span<const uint8_t> extra, zip_extent* extent);

#endif
