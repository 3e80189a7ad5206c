// SPDX-License-Identifier: Apache-2.0
/** Any content of the board's own files: results stay in their range, and what is set is read back. */
#include "box.h"
#include "velox_ota_hl.h"

#include <cctype>
#include <cstring>

/* script/fuzz creates it in the target's own "/dev", and binds "/proc/cmdline". */
static const fs::path by_name = "/dev/block/platform/by-name";

static void put(const fs::path& path, size_t offset, std::string bytes, size_t size) {
    bytes.insert(0, offset, '\0');
    bytes.resize(size == 0 ? bytes.size() : size);
    std::ofstream(path, std::ios::binary) << bytes;
}

/** Whether the last four bytes of a stored record are the checksum of those before. */
static bool is_sealed(size_t offset, size_t size) {
    char record[1356], crc[4];
    std::ifstream(by_name / "ubootenv").seekg(static_cast<std::streamoff>(offset)).read(record, ssize_t(size));
    const uint32_t computed = CRC32(reinterpret_cast<const uint8_t*>(record), size - 4);
    std::memcpy(crc, &computed, sizeof crc);
    return std::memcmp(crc, record + size - 4, 4) == 0;
}

static void read_slots(bool has_magic) {
    must((ota_get_slot_num() >= 0) == has_magic);
    const int32_t next = ota_get_next_expected_slot();
    must(next == -1 || (next <= 3 && ota_get_slot_bootable_state(next) > 0));
    must(ota_set_next_expected_slot(1) != 0 || ota_get_slot_num() > 4 || ota_get_next_expected_slot() == 1);
}

static void read_records(bool is_readable) {
    antirollback_ver_t versions{}, again{};
    must((ota_get_anti_ver_veeprom(&versions) == 0) == (is_readable && is_sealed(0x30880, sizeof versions)));
    must(ota_set_anti_ver_veeprom(&versions) != 0 ||
         (ota_get_anti_ver_veeprom(&again) == 0 && std::memcmp(&again, &versions, sizeof again) == 0));
    ota_update_flag_e flag;
    must(ota_get_up_status(&flag) != 0 || is_sealed(0x30000, sizeof(ota_status_t)));
    must(ota_set_up_status(OTA_FLAG_VERIFY) != 0 || (ota_get_up_status(&flag) == 0 && flag == OTA_FLAG_VERIFY));
}

static void read_partition_table(std::string bytes) {
    gpt_entry entries[128];
    bytes.resize(sizeof entries);
    must(emmc_gpt_entry_read(entries) == 0 && std::memcmp(entries, bytes.data(), sizeof entries) == 0);
    for (gpt_entry& entry : entries) {
        char name[36];
        convert_partname(entry.part_name, name);
        for (const char c : name) {
            must(c == '\0' || std::isprint(static_cast<unsigned char>(c)) != 0);
        }
    }
}

static void read_version(const std::string& bytes) {
    char version[128] = {};
    const int32_t length = get_system_version("/dev/version", version);
    must(length < 128 && std::memchr(version, 0, sizeof version) != nullptr);
    must(length < 0 || (version[0] == 'V' && std::strchr(version, ' ') == nullptr &&
                        std::strlen(version) == static_cast<size_t>(length)));
    must(compare_sys_versions(version, version) == 0);
    must(compare_sys_versions(version, bytes.c_str()) + compare_sys_versions(bytes.c_str(), version) <= 1);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const bool has_cmdline = size % 4 == 0; /* otherwise the records are read at their usual place */
    put("/proc/cmdline", 0, has_cmdline ? bytes : "veloxboot.medium=MMC veloxboot.slot_suffix=_a", 0);
    must(get_boot_medium() <= OTA_NAND && get_boot_mode() <= RECOVERY_MODE && ota_get_cur_slot() <= 2);
    const bool is_readable = get_boot_medium() == OTA_EMMC;
    put(by_name / "misc", 2048, bytes, 4096);
    put(by_name / "ubootenv", 0x30000, bytes.substr(0, 0x880), 0x30880);
    std::ofstream(by_name / "ubootenv", std::ios::app) << (bytes + std::string(16, '\0')).substr(0, 16);
    read_slots(is_readable && size >= 8 && std::memcmp(data + 4, "BCAB", 4) == 0);
    read_records(is_readable);
    put(by_name / "blk", 1024, bytes, 17408);
    read_partition_table(bytes);
    put("/dev/version", 0, bytes, 0);
    read_version(bytes);
    return 0;
}
