// SPDX-License-Identifier: Apache-2.0
#include "board/status_record.h"

#include "board/device.h"
#include "board/partition.h"
#include "console/console.h"
#include "format/antirollback_record.h"
#include "format/status_record.h"
#include "internal/ota_paths.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

constexpr char cannot_store[] = "cannot store the update status";
constexpr char cannot_store_versions[] = "cannot store the package's anti-rollback versions";

/** A record as it is stored, and whether it is valid. */
template <class Stored, class Record>
Stored read_stored(uint64_t offset, format_answer (*check)(const Record&)) {
    Stored stored{};
    read_record(ota_ubootenv_partition, offset, {reinterpret_cast<uint8_t*>(&stored.record), sizeof stored.record});
    const format_answer answer = check(stored.record);
    stored.is_valid = answer.state == format_state::valid;
    stored.fault = answer.reason;
    return stored;
}

/** Throws Failure if it is not. After a bad block the record cannot be read back, which proves nothing. */
void check_kept(bool is_kept, const std::string& sentence) {
    if (!is_kept && can_keep_status()) {
        throw Failure(ExitCode::device, sentence + ": the record did not persist in " + ota_ubootenv_partition);
    }
}

} // namespace

size_t listed_partitions(const ota_status_t& record) {
    return std::min<size_t>(record.update_part.num, std::size(record.update_part.array));
}

std::string partition_name(const update_part_t& list, size_t i) {
    return {list.array[i], strnlen(list.array[i], sizeof list.array[i])};
}

bool StoredStatus::is_cut() const {
    return is_valid && (record.up == OTA_FLAG_BURN || record.up == OTA_FLAG_VERIFY);
}

bool StoredStatus::is_idle() const {
    const ota_update_flag_e flags[] = {record.up,     record.up_system, record.up_backup, record.up_middleware,
                                       record.up_app, record.up_param};
    return is_valid && std::all_of(std::begin(flags), std::end(flags),
                                   [](ota_update_flag_e flag) { return flag == OTA_FLAG_NORMAL; });
}

bool StoredVersions::is_missing() const {
    return !is_valid || (record.sec_up_flag | record.nosec_up_flag | record.sec_ver | record.nosec_ver) == 0;
}

bool StoredVersions::holds(const antirollback_ver_t& other) const {
    return is_valid && std::memcmp(&record, &other, offsetof(antirollback_ver_t, crc32_le)) == 0;
}

bool StoredStatus::lists_slot() const {
    const auto& types = record.update_part.type;
    const auto* end = types + listed_partitions(record);
    return std::find(types, end, AB) != end;
}

bool StoredStatus::is_cut_in(int32_t slot) const {
    return is_cut() && lists_slot() && record.next_slot == static_cast<uint32_t>(slot);
}

bool can_keep_status() {
    return Device(existing_partition(ota_ubootenv_partition)).is_straight(status_record_offset + sizeof(ota_status_t));
}

StoredStatus read_status() {
    return read_stored<StoredStatus>(status_record_offset, check_status_record);
}

bool is_half_written(int32_t slot) {
    try {
        return read_status().is_cut_in(slot);
    } catch (const Failure&) {
        return false;
    }
}

StoredVersions read_stored_versions() {
    return read_stored<StoredVersions>(antirollback_record_offset, check_antirollback_record);
}

void write_status(ota_status_t& record) {
    record.magic = status_record_magic;
    seal_status_record(&record);
    ota_file_info_t place = locate(ota_ubootenv_partition);
    place.offset = status_record_offset;
    require(ExitCode::device, cannot_store,
            [&] { return ota_buf_to_file(&place, reinterpret_cast<const char*>(&record), sizeof record); });
    sync_partition(ota_ubootenv_partition);
    const StoredStatus now = read_status();
    check_kept(std::memcmp(&now.record, &record, sizeof record) == 0, cannot_store);
}

void store_versions(antirollback_ver_t record) {
    if (read_stored_versions().holds(record)) {
        return;
    }
    require(ExitCode::device, cannot_store_versions, [&] { return ota_set_anti_ver_veeprom(&record); });
    sync_partition(ota_ubootenv_partition);
    check_kept(read_stored_versions().holds(record), cannot_store_versions);
}

void clear_status() {
    StoredStatus stored = read_status();
    if (!stored.is_valid) {
        ota_update_flag_e flag = OTA_FLAG_NORMAL; /* reading makes the library store a new record */
        require(ExitCode::device, cannot_store, [&] { return ota_get_up_status(&flag); });
        sync_partition(ota_ubootenv_partition);
        check_kept(read_status().is_valid, cannot_store);
    } else if (stored.record.up != OTA_FLAG_NORMAL || stored.record.owner != NORMAL_BOOT) {
        stored.record.up = OTA_FLAG_NORMAL;
        stored.record.owner = NORMAL_BOOT;
        write_status(stored.record);
    } else {
        sync_partition(ota_ubootenv_partition); /* the record may still be in the page cache only */
    }
}
