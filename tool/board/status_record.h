/**
 * The records in "ubootenv" as they are stored. The library's calls replace a bad record when they read it, so
 * whether there was a good one is found out without them.
 */
#ifndef TOOL_STATUS_RECORD_H
#define TOOL_STATUS_RECORD_H

#include "velox_ota_hl.h"

#include <string>

inline constexpr char status_partition[] = "ubootenv";

struct StoredStatus {
    ota_status_t record;
    bool is_valid;
    const char* fault; /* what is wrong with a record that is not valid, else null */

    /** Whether an installation was cut before all that it wrote was read back. */
    [[nodiscard]] bool is_cut() const;
    /** Whether no update is under way, and none was cut. */
    [[nodiscard]] bool is_idle() const;
    /** The same as is_cut(), of images in this slot. */
    [[nodiscard]] bool is_cut_in(int32_t slot) const;
    /** Whether the record lists partitions of a slot. */
    [[nodiscard]] bool lists_slot() const;
};

struct StoredVersions {
    antirollback_ver_t record;
    bool is_valid;
    const char* fault; /* as above */

    /** Whether no package has left its versions: no valid record, or one of zeros. */
    [[nodiscard]] bool is_missing() const;
    [[nodiscard]] bool holds(const antirollback_ver_t& other) const;
};

/** How many partitions a record lists, and their names; a damaged record lists no more than it has room for. */
size_t listed_partitions(const ota_status_t& record);
std::string partition_name(const update_part_t& list, size_t i);

/** Whether what is written can be read again: not where a bad block lies in front of it. */
bool can_keep_status();

StoredStatus read_status();

/** Whether the status shows an installation that was cut in this slot; false where there is no status to read. */
bool is_half_written(int32_t slot);

StoredVersions read_stored_versions();

/** Writes a whole record in the name of this tool, in one write, and waits until the medium holds it. */
void write_status(ota_status_t& record);

/** Stores versions for a later burning of the fuses, where they are not stored yet; the medium then holds them. */
void store_versions(antirollback_ver_t record);

/** Moves the general flag on, and waits until the medium holds it. */
void set_status_flag(ota_update_flag_e flag);

/** No update is under way any more. */
void clear_status_flag();

#endif
