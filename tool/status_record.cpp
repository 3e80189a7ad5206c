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

bool StoredStatus::lists_slot() const {
    const auto& types = record.update_part.type;
    const auto* end = types + listed_partitions(record);
    return std::find(types, end, AB) != end;
}

bool StoredStatus::is_cut_in(int32_t slot) const {
    return is_cut() && lists_slot() && record.next_slot == static_cast<uint32_t>(slot);
}

bool can_keep_status() {
    return Device(partition_path(status_partition)).is_straight(status_offset + sizeof(ota_status_t));
}

StoredStatus read_status() {
    StoredStatus stored{};
    const bool is_sealed = read_sealed(status_offset, stored.record);
    stored.is_valid = is_sealed && stored.record.magic == status_magic;
    return stored;
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

void set_status_flag(ota_update_flag_e flag) {
    require(ExitCode::device, cannot_store, [&] { return ota_set_up_status(flag); });
    sync_partition(status_partition);
}

void clear_status_flag() {
    require(ExitCode::device, cannot_store, [&] { return ota_set_up_status(OTA_FLAG_NORMAL); });
    require(ExitCode::device, cannot_store, [&] { return ota_set_owner(NORMAL_BOOT); });
    sync_partition(status_partition);
}
