#include "status_record.h"

#include "console.h"
#include "device.h"
#include "partition.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <span>

namespace {

constexpr uint64_t status_offset = 0x30000;
constexpr uint64_t versions_offset = 0x30880;
constexpr uint32_t status_magic = 0x4F544153;
constexpr char cannot_store[] = "cannot store the update status";

template <class Record>
bool read_sealed(uint64_t offset, Record& record) {
    const std::span<uint8_t> bytes(reinterpret_cast<uint8_t*>(&record), sizeof record);
    read_record(status_partition, offset, bytes);
    return CRC32(bytes.data(), offsetof(Record, crc32_le)) == record.crc32_le;
}

} // namespace

const char* StoredStatus::fault() const {
    return record.magic != status_magic ? "wrong magic number" : "wrong checksum";
}

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
    return Device(existing_partition(status_partition)).is_straight(status_offset + sizeof(ota_status_t));
}

StoredStatus read_status() {
    StoredStatus stored{};
    const bool is_sealed = read_sealed(status_offset, stored.record);
    stored.is_valid = is_sealed && stored.record.magic == status_magic;
    return stored;
}

bool is_half_written(int32_t slot) {
    try {
        return read_status().is_cut_in(slot);
    } catch (const Failure&) {
        return false;
    }
}

StoredVersions read_stored_versions() {
    StoredVersions stored{};
    stored.is_valid = read_sealed(versions_offset, stored.record);
    return stored;
}

void write_status(ota_status_t& record) {
    ota_file_info_t place = locate(status_partition);
    require(ExitCode::device, cannot_store, [&] { return ota_write_to_veeprom_force(&record, &place); });
    sync_partition(status_partition);
}

void store_versions(antirollback_ver_t record) {
    constexpr char sentence[] = "cannot store the package's anti-rollback versions";
    if (read_stored_versions().holds(record)) {
        return;
    }
    require(ExitCode::device, sentence, [&] { return ota_set_anti_ver_veeprom(&record); });
    sync_partition(status_partition);
    if (!read_stored_versions().holds(record) && can_keep_status()) {
        throw Failure(ExitCode::device, std::string(sentence) + ": " + status_partition + " did not keep them");
    }
}

void set_status_flag(ota_update_flag_e flag) {
    require(ExitCode::device, cannot_store, [&] { return ota_set_up_status(flag); });
    sync_partition(status_partition);
}

void clear_status_flag() {
    require(ExitCode::device, cannot_store, [&] { return ota_set_up_status(OTA_FLAG_NORMAL); });
    require(ExitCode::device, cannot_store, [&] { return ota_set_owner(NORMAL_BOOT); });
    sync_partition(status_partition);
}
