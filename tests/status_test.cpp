// SPDX-License-Identifier: Apache-2.0
#include "board.h"

#include <algorithm>
#include <random>
#include <sys/stat.h>

namespace {

using namespace std::string_literals;

constexpr size_t status_at = 0x30000, anti_at = 0x30880;

/** A record as it is recreated while slot 1 runs. */
ota_status_t new_record(std::string_view reserved = {}, ota_update_owner_e owner = NORMAL_BOOT) {
    ota_status_t record{};
    record.magic = 0x4F544153;
    record.owner = owner;
    record.next_slot = 1;
    reserved.copy(reinterpret_cast<char*>(record.reserved), sizeof record.reserved);
    record.crc32_le = CRC32(reinterpret_cast<const uint8_t*>(&record), 1352);
    return record;
}

/** The offset of a value in the record, and the calls for its type. */
struct Field {
    size_t offset, size;
    std::function<int32_t(uint32_t*)> set, get;
};

template <class T>
Field word(size_t offset, int32_t (*set)(T), int32_t (*get)(T*)) {
    return {offset, 4, [set](uint32_t* value) { return set(static_cast<T>(*value)); },
            [get](uint32_t* value) { return get(reinterpret_cast<T*>(value)); }};
}

const Field fields[] = {
    // by selector
    word(4, ota_set_up_status, ota_get_up_status),
    word(8, ota_set_system_up_status, ota_get_system_up_status),
    word(12, ota_set_backup_up_status, ota_get_backup_up_status),
    word(20, ota_set_middleware_up_status, ota_get_middleware_up_status),
    word(16, ota_set_app_up_status, ota_get_app_up_status),
    word(24, ota_set_param_up_status, ota_get_param_up_status),
    word(28, ota_set_owner, ota_get_owner),
    word(32, ota_set_next_slot, ota_get_next_slot),
    {36, sizeof(update_part_t),
     [](uint32_t* value) { return ota_set_part_array(reinterpret_cast<update_part_t*>(value)); },
     [](uint32_t* value) { return ota_get_part_array(reinterpret_cast<update_part_t*>(value)); }},
};

class Status : public Board {
protected:
    Status() {
        set_cmdline("veloxboot.medium=MMC veloxboot.slot_suffix=_b");
    }
    std::string env_ = noise(anti_at + 100);
    const std::string path_ = add_partition("ubootenv", env_);
};

TEST_F(Status, a_record_with_any_byte_changed_is_recreated) {
    ota_status_t record = new_record(std::string(32, 'r'));
    for (size_t i = 0; i < sizeof record; ++i) {
        std::string damaged = bytes_of(record);
        damaged[i] = static_cast<char>(damaged[i] ^ 1 << i % 8);
        add_partition("ubootenv", env_.replace(status_at, damaged.size(), damaged));
        ota_update_flag_e flag = OTA_FLAG_BURN;
        EXPECT_EQ(ota_get_up_status(&flag), 0);
        EXPECT_EQ(flag, OTA_FLAG_NORMAL);
        const Lines lines = log();
        EXPECT_EQ(lines[0] == "warning magic number is wrong", i < 4);
        EXPECT_EQ(Lines(lines.begin() + 1, lines.end()),
                  (Lines{"warning OTA status in veeprom is invalid, init", "info update part num: [0]"}));
        const std::string repaired = bytes_of(new_record(damaged.substr(1320, 32)));
        ASSERT_TRUE(read_partition("ubootenv") == env_.replace(status_at, repaired.size(), repaired)) << i;
    }
}

TEST_F(Status, an_erased_region_and_the_defaults) {
    for (const auto& [fill, suffix, crc] :
         {std::tuple('\0', 'a', "\x7e\xd4\xc3\xa1"), {'\xff', 'b', "\xd3\xd3\x97\x3c"}}) {
        add_partition("ubootenv", env_.size(), fill);
        set_cmdline("veloxboot.medium=MMC veloxboot.slot_suffix=_"s + suffix);
        antirollback_ver_t ver;
        std::fill_n(reinterpret_cast<char*>(&ver), sizeof ver, '\1');
        expect_call(ota_get_anti_ver_veeprom(&ver), -1, {"error antirollback version CRC verify failed"});
        EXPECT_EQ(bytes_of(ver), std::string(16, '\0'));
        EXPECT_TRUE(read_partition("ubootenv") == std::string(env_.size(), fill));
        uint32_t slot = 9;
        EXPECT_EQ(ota_get_next_slot(&slot), 0);
        EXPECT_EQ(slot, suffix == 'a' ? 0U : 1U);
        EXPECT_EQ(read_partition("ubootenv").substr(status_at + 1320, 32), std::string(32, fill));
        log();
        EXPECT_EQ(ota_set_next_slot(1), 0);
        EXPECT_EQ(log().front(), "info next slot veeprom 1");
        expect_call(ota_set_veeprom_flag_default(), 0, {"info veeprom flag set default"});
        EXPECT_EQ(read_partition("ubootenv").substr(status_at + 1320, 36), std::string(32, '\0') + crc);
        EXPECT_EQ(read_partition("ubootenv").substr(anti_at, 16), std::string(12, '\0') + "\x6f\xc6\xd5\x7b");
        EXPECT_EQ(ota_get_anti_ver_veeprom(&ver), 0);
    }
}

TEST_F(Status, random_sets_and_gets_touch_their_own_bytes_only) {
    std::mt19937 random(1);
    std::string record = bytes_of(new_record()), anti = std::string(12, '\0') + "\x6f\xc6\xd5\x7b";
    EXPECT_EQ(ota_set_veeprom_flag_default(), 0);
    for (int step = 0; step < 400; ++step) {
        uint32_t value[sizeof(update_part_t) / 4];
        std::generate(std::begin(value), std::end(value), std::ref(random));
        const size_t selector = random() % 10;
        const bool typed = step % 2 == 0;
        if (selector < 9) {
            const Field& field = fields[selector];
            EXPECT_EQ(typed ? field.set(value) : ota_set_veeprom_flag(ota_veeprom_type_e(selector), value), 0);
            record.replace(field.offset, field.size, bytes_of(value), 0, field.size);
            EXPECT_TRUE(selector != OTA_VEEPROM_OWNER || g_ota_owner == ota_update_owner_e(value[0]));
        } else {
            auto* ver = reinterpret_cast<antirollback_ver_t*>(value);
            const std::string given = bytes_of(*ver).substr(0, 12);
            EXPECT_EQ(typed ? ota_set_anti_ver_veeprom(ver) : ota_set_veeprom_flag(OTA_VEEPROM_ANTI_VER, value), 0);
            anti = bytes_of(*ver);                // sealed, or as it came
            EXPECT_EQ(anti.substr(0, 12), given); // only the checksum changes, not even the padding
            EXPECT_EQ(ota_get_anti_ver_veeprom(ver), typed ? 0 : -1);
        }
        record.replace(1352, 4, bytes_of(CRC32(reinterpret_cast<const uint8_t*>(record.data()), 1352)));
        env_.replace(status_at, record.size(), record).replace(anti_at, anti.size(), anti);
        ASSERT_TRUE(read_partition("ubootenv") == env_) << "step " << step << ", selector " << selector;
        for (const Field& field : fields) {
            EXPECT_EQ(field.get(value), 0);
            EXPECT_EQ(bytes_of(value).substr(0, field.size), record.substr(field.offset, field.size));
        }
    }
}

TEST_F(Status, each_failure_is_logged_from_the_bottom_up) {
    const std::string no_open = "error open file:" + path_ + " failed",
                      no_anti = "error set antirollback version to veeprom failed",
                      unwritten = "error veeprom flag write failed, ret -1",
                      no_status = "error write ota status to veeprom failed";
    const Lines invalid = {"warning magic number is wrong", "warning OTA status in veeprom is invalid, init"};
    ota_update_owner_e owner = OTA_N_OWNER;
    antirollback_ver_t ver{};
    uint32_t word = 5;

    unlink(path_.c_str());
    expect_call(ota_get_anti_ver_veeprom(&ver), -1,
                {"error open file: " + path_ + " failed", "error veeprom flag  read failed, ret -1",
                 "error veeprom flag read failed, ret -1", "error get antirollback version from veeprom failed"});
    link_partition("ubootenv", "/dev/full"); // reads as zeros
    expect_call(ota_get_owner(&owner), -1,
                {invalid[0], invalid[1], "error file " + path_ + " write failed", unwritten, no_status,
                 "error get ota status failed"});
    add_partition("ubootenv", env_);
    set_cmdline("veloxboot.medium=MMC");
    expect_call(ota_get_owner(&owner), -1,
                {invalid[0], invalid[1], "error error:slot conf not in cmdline.", "error Get current slot failed",
                 "error get ota status failed"});
    EXPECT_TRUE(read_partition("ubootenv") == env_);

    set_cmdline("veloxboot.medium=MMC veloxboot.slot_suffix=_b");
    limit_file_size(anti_at); // the second record cannot be written, the first one is
    expect_call(ota_set_veeprom_flag_default(), -1,
                {"error file " + path_ + " write failed", unwritten, unwritten, no_anti,
                 "error set antirollback version default failed"});
    chmod(path_.c_str(), 0444);
    expect_call(ota_set_veeprom_flag_default(), -1,
                {no_open, unwritten, no_status, "error set ota status default failed"});
    expect_call(ota_set_owner(OTA_SERVICE), -1,
                {"info veeprom crc, oricrc[3c97d3d3], newcrc[3c97d3d3], offset[1352]",
                 "info veeprom: flag [6], value [2]", no_open, unwritten, no_status});
    EXPECT_EQ(g_ota_owner, OTA_SERVICE); // set before the write that failed

    for (const int selector : {9, 10, 12, -1}) {
        EXPECT_EQ(ota_set_veeprom_flag(ota_veeprom_type_e(selector), &word), -1);
        expect_call(ota_get_veeprom_flag(ota_veeprom_type_e(selector), &word), -1,
                    {"error invalid veeprom flag", unwritten, "error invalid veeprom flag",
                     "error veeprom flag read failed, ret -1"});
    }
    EXPECT_EQ(ota_set_veeprom_flag(OTA_VEEPROM_SPLIT, nullptr), -1);
    EXPECT_EQ(ota_get_part_array(nullptr), -1);
    expect_call(ota_set_anti_ver_veeprom(nullptr), -1,
                {"error veeprom flag value is NULL", "error ota status value is NULL"});
    EXPECT_TRUE(read_partition("ubootenv") == env_.replace(status_at, sizeof(ota_status_t), bytes_of(new_record())));
    EXPECT_EQ(owner, OTA_N_OWNER);
    EXPECT_EQ(word, 5U);
}

TEST_F(Status, a_record_is_written_to_any_path_and_offset) {
    ota_status_t status = new_record("reserved");
    ota_file_info_t place = file_info(path_, 3);
    const ota_update_owner_e before = g_ota_owner;
    for (const size_t at : {0x30003U, 0x60003U}) { // the base grows with each call
        status.magic = 0;
        status.owner = OTA_SERVICE;
        EXPECT_EQ(ota_write_to_veeprom_force(&status, &place), 0);
        EXPECT_EQ(place.offset, at);
        EXPECT_EQ(bytes_of(status), bytes_of(new_record("reserved", OTA_TOOL)));
        EXPECT_EQ(read_partition("ubootenv").substr(at, sizeof status), bytes_of(status));
    }
    EXPECT_EQ(g_ota_owner, before);
    place = file_info("/dev/full", 1);
    expect_call(ota_write_to_veeprom_force(&status, &place), -1,
                {"error file /dev/full write failed", "error veeprom flag write failed, ret -1"});
    EXPECT_EQ(place.offset, 0x30001U);
    EXPECT_EQ(ota_write_to_veeprom_force(nullptr, &place) + ota_write_to_veeprom_force(&status, nullptr), -12);
}

} // namespace
