/** Whatever stands in the board's own files: answers stay in their range, and what is set is what is read. */
#include "box.h"
#include "velox_ota_hl.h"

#include <cctype>
#include <cstring>
#include <sched.h>
#include <sys/mount.h>

static const fs::path by_name = "/dev/block/platform/by-name";

/* The board's paths lie in a mount namespace of this process. */
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    const std::string uid_map = "0 " + std::to_string(getuid()) + " 1",
                      gid_map = "0 " + std::to_string(getgid()) + " 1";
    must(unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0);
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << uid_map;
    std::ofstream("/proc/self/gid_map") << gid_map;
    must(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("none", "/dev", "tmpfs", 0, nullptr) == 0);
    fs::create_directories(by_name);
    std::ofstream("/dev/cmdline").flush();
    must(mount("/dev/cmdline", "/proc/cmdline", nullptr, MS_BIND, nullptr) == 0);
    return 0;
}

static void put(const fs::path& path, size_t offset, std::string bytes, size_t size) {
    bytes.insert(0, offset, '\0');
    bytes.resize(size == 0 ? bytes.size() : size);
    std::ofstream(path, std::ios::binary) << bytes;
}

static bool is_status_sound() {
    ota_status_t status;
    std::ifstream(by_name / "ubootenv").seekg(0x30000).read(reinterpret_cast<char*>(&status), sizeof status);
    return status.magic == 0x4F544153 && status.crc32_le == CRC32(reinterpret_cast<const uint8_t*>(&status), 1352);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    put("/dev/cmdline", 0, size % 4 == 0 ? bytes : "veloxboot.medium=MMC veloxboot.slot_suffix=_a", 0);
    put(by_name / "misc", 2048, bytes, 4096);
    put(by_name / "ubootenv", 0x30000, bytes, 0x30890);
    put(by_name / "blk", 1024, bytes, size % 4 == 1 ? 0 : 17408);
    put("/dev/version", 0, bytes, 0);
    must(get_boot_medium() <= OTA_NAND && get_boot_mode() <= RECOVERY_MODE && ota_get_cur_slot() <= 2);
    const int32_t next = ota_get_next_expected_slot();
    must(next == -1 || (next <= 3 && ota_get_slot_bootable_state(next) > 0));
    must(ota_set_next_expected_slot(1) != 0 || ota_get_slot_num() > 4 || ota_get_next_expected_slot() == 1);
    antirollback_ver_t versions;
    must(ota_get_anti_ver_veeprom(&versions) <= 0);
    ota_update_flag_e flag;
    must(ota_get_up_status(&flag) != 0 || is_status_sound());
    must(ota_set_up_status(OTA_FLAG_VERIFY) != 0 || (ota_get_up_status(&flag) == 0 && flag == OTA_FLAG_VERIFY));
    gpt_entry entries[128];
    char name[36];
    must(emmc_gpt_entry_read(entries) == 0 || size % 4 == 1);
    convert_partname(entries[0].part_name, name);
    char version[128] = {};
    must(get_system_version("/dev/version", version) < 128 && std::memchr(version, 0, sizeof version) != nullptr);
    must(compare_sys_versions(version, version) == 0);
    return 0;
}
