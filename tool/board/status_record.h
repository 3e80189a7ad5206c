// SPDX-License-Identifier: Apache-2.0
/**
 * The records in "ubootenv" as they are stored. The library's calls replace a bad record when they read it, so
 * whether there was a good one is found out without them.
 */
#ifndef TOOL_STATUS_RECORD_H
#define TOOL_STATUS_RECORD_H

#include "velox_ota_hl.h"

#include <string>

struct StoredStatus {
    ota_status_t record;
    bool is_valid;
    const char* fault; /* why the record is not valid; null if it is */

    /** Whether an installation was interrupted before everything it wrote was read back. */
    [[nodiscard]] bool is_cut() const;
    /** Whether no update is under way and none was interrupted. */
    [[nodiscard]] bool is_idle() const;
    /** The same as is_cut(), for images in this slot. */
    [[nodiscard]] bool is_cut_in(int32_t slot) const;
    /** Whether the record lists partitions of a slot. */
    [[nodiscard]] bool lists_slot() const;
};

struct StoredVersions {
    antirollback_ver_t record;
    bool is_valid;
    const char* fault; /* as above */

    /** Whether no package has stored its versions: no valid record, or one of zeros. */
    [[nodiscard]] bool is_missing() const;
    [[nodiscard]] bool holds(const antirollback_ver_t& other) const;
};

/** How many partitions a record lists, and their names; a damaged record lists no more than it has room for. */
size_t listed_partitions(const ota_status_t& record);
std::string partition_name(const update_part_t& list, size_t i);

/** Whether a written record can be read again; a bad block before it prevents that. */
bool can_keep_status();

StoredStatus read_status();

/** Whether the status records an interrupted installation in this slot; false if the status cannot be read. */
bool is_half_written(int32_t slot);

StoredVersions read_stored_versions();

/** Stores a whole record in one write, with its magic number and checksum. On return the medium holds it. */
void write_status(ota_status_t& record);

/** Stores versions for burning the fuses later, unless already stored. On return the medium holds them. */
void store_versions(antirollback_ver_t record);

/** Records that no update is under way, in one write at most. */
void clear_status();

#endif
