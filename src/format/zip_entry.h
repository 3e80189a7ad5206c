// SPDX-License-Identifier: Apache-2.0
/**
 * Fields of an entry in the central directory of a zip package that minizip passes on unparsed (PKWARE APPNOTE
 * 4.4.15, 4.5.3), little-endian.
 *
 * External attributes written on Unix have a file mode in their upper half:
 *
 *   bit      meaning
 *   31 - 28  file type; 0xA is a symbolic link
 *   24 - 16  permissions
 *
 * A size that does not fit in 32 bits is stored as 0xFFFFFFFF, and its true value in the extra field. That is a
 * sequence of records, of which the one with the header 0x0001 holds the sizes:
 *
 *   offset  size  meaning
 *        0     2  header
 *        2     2  length of the rest of the record
 *        4     8  uncompressed size, which comes first if present
 */
#ifndef ZIP_ENTRY_FORMAT_H
#define ZIP_ENTRY_FORMAT_H

#include "format.h"

enum class zip_kind { directory, link, file };

/** A value of 32 bits that means "see the extra field" or, in the end of a file, "see the zip64 end". */
inline constexpr uint32_t zip_wide32 = 0xFFFFFFFF;

/** The extensions of entries that hold images. */
inline constexpr const char* zip_image_extensions[] = {"img", "bin", "ubifs"};

/** The part of a name after its last separator; '/' and '\\' separate. */
const char* zip_last_component(const char* name);

/** The kind of an entry: a directory by its name, which ends in a separator or is empty; a link by its attributes. */
zip_kind zip_kind_of(const char* name, uint64_t attributes);

/** The nine permission bits of an entry's mode. */
uint32_t zip_permissions(uint64_t attributes);

inline constexpr uint16_t zip64_record = 0x0001; /* the header of the record with sizes and the offset */

/** A record of an extra field. */
struct zip_extra_record {
    uint16_t header;
    std::span<const uint8_t> data;
};

/**
 * Takes the first record off an extra field.
 * @param extra   in, out: where the answer is valid, it begins with the next record afterwards
 * @param record  out, where the answer is valid
 * @return valid; absent when no record is left; torn when it ends past the field
 */
format_answer take_extra_record(std::span<const uint8_t>* extra, zip_extra_record* record);

/**
 * The uncompressed size in an extra field.
 * @param size  out: the size, where the answer is valid
 * @return valid; absent, when no record has it; torn, when a record before it ends past the field
 */
format_answer decode_zip64_size(std::span<const uint8_t> extra, uint64_t* size);

#endif
