// SPDX-License-Identifier: Apache-2.0
#include "board.h"

#include <filesystem>
#include <regex>
#include <sys/stat.h>

namespace {

using Utils = Board;

TEST_F(Utils, checksums_have_their_check_values) {
    const auto* digits = reinterpret_cast<const uint8_t*>("123456789");
    EXPECT_EQ(CRC32(nullptr, 0), 0U);
    EXPECT_EQ(CRC16(nullptr, 0), 0xFFFF);
    EXPECT_EQ(CRC32(digits, 9), 0xCBF43926U);
    EXPECT_EQ(CRC16(digits, 9), 0x29B1);
}

TEST_F(Utils, command_line_keys) {
    const Lines absent = {"error error:slot conf not in cmdline."}, foreign = {"error get current slot error."};
    const auto x = [](size_t count) { return std::string(count, 'x'); };
    const struct {
        std::string text;
        int medium, mode, slot;
        Lines lines;
    } rows[] = {
        {"", -1, -1, -1, absent},
        {"veloxboot.medium=nand veloxboot.mode=recovery veloxboot.slot_suffix=_a", 3, 1, 0, {"info recovery mode"}},
        {"veloxboot.slot_suffix=_bx veloxboot.medium=nor veloxboot.mode=normal\n", 1, 0, 1, {"info normal mode"}},
        {"xveloxboot.medium=MMC\rveloxboot.mode=normal2 veloxboot.slot_suffix=_c\n", 2, -1, 2, {}},
        {"veloxboot.medium=mmc veloxboot.mode=Normal veloxboot.slot_suffix=_d", -1, -1, -1, foreign},
        {"veloxboot.medium=emmc veloxboot.medium=nand veloxboot.slot_suffix=a", -1, -1, -1, absent},
        {x(999) + "veloxboot.slot_suffix=_a", -1, -1, 0, {}}, // the letter is byte 1022, the last one read
        {x(1000) + "veloxboot.slot_suffix=_a", -1, -1, -1, foreign},
        {x(1001) + "veloxboot.slot_suffix=_a", -1, -1, -1, absent},
        {x(2027) + "veloxboot.medium=MMC", 2, -1, -1, absent}, // ends with byte 2046, the last one read
        {x(2028) + "veloxboot.medium=MMC", -1, -1, -1, absent},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        set_cmdline(row.text);
        EXPECT_EQ(get_boot_medium(), row.medium);
        EXPECT_EQ(get_boot_mode(), row.mode);
        EXPECT_EQ(ota_get_cur_slot(), row.slot);
        EXPECT_EQ(log(), row.lines);
    }
    chmod("/proc/cmdline", 0);
    expect_call(get_boot_medium() + get_boot_mode() + ota_get_cur_slot(), -3,
                Lines(3, "error open /proc/cmdline error."));
}

TEST_F(Utils, device_names_are_truncated_and_differ_only_for_ab) {
    char cur[128], opp[128];
    const std::string name(200, 'n');
    EXPECT_EQ(get_part_device_name(name.c_str(), cur, opp, BAK), 0);
    EXPECT_EQ(cur, (by_name + name).substr(0, 127));
    EXPECT_STREQ(opp, cur);
    EXPECT_EQ(get_part_device_name(nullptr, cur, opp, PERMANENT), -1);
    EXPECT_EQ(get_part_device_name("misc", nullptr, opp, PERMANENT), -1);
    expect_call(get_part_device_name("misc", cur, nullptr, AB), -1, Lines(3, "error dev path or part name is empty"));
}

TEST_F(Utils, one_transfer_at_any_offset) {
    const std::string path = add_partition("p", "0123456789"), none = by_name + "none";
    const std::pair<ota_file_info_t, std::string> reads[] = {
        {file_info(path), "0123456"}, {file_info(path, 8), "89"}, {file_info(path, 10), ""}, {file_info(path, 99), ""}};
    char buffer[7] = {};
    for (auto [file, text] : reads) {
        EXPECT_EQ(ota_file_to_buf(&file, buffer, sizeof buffer), static_cast<int32_t>(text.size()));
        EXPECT_EQ(std::string(buffer, text.size()), text);
    }
    ota_file_info_t file = file_info(path, 8, OTA_EMMC);
    EXPECT_EQ(ota_buf_to_file(&file, "abc", 3), 3);
    EXPECT_EQ(ota_buf_to_file(&file, "z", 0), 0);
    EXPECT_EQ(read_partition("p"), "01234567abc");
    const auto read = [&](ota_file_info_t place) { return ota_file_to_buf(&place, buffer, 1); };
    const auto write = [&](ota_file_info_t place) { return ota_buf_to_file(&place, buffer, 1); };
    const ota_file_info_t lost = file_info(link_partition("lost", "/none/mtd1"), 0, OTA_NAND);
    expect_call(read(file_info(none)), -1, {"error open file: " + none + " failed"});
    expect_call(read(file_info(by_name)), -1, {"error file " + by_name + " read failed"});
    expect_call(read(file_info(path, ~0ULL)), -1, {"error file " + path + " lseek failed, offset=-1"});
    expect_call(read(lost), -1, {"error open file: " + by_name + "lost failed"});
    expect_call(read(file_info(path, 0, ota_medium_e(-1))), -1,
                {"error " + path + " is neither an MTD device nor a UBI volume"});
    const std::string mtd = add_partition("mtd", "x"); // the kind is at the end of the longest target of a link
    const std::string longest = link_partition("longest", std::string(127 - mtd.size(), '/') + mtd);
    expect_call(read(file_info(longest, 0, OTA_NAND)), -1, {"error ioctl get MEMGETINFO failed, error-1"});
    expect_call(write(file_info(none)), -1, {"error open file:" + none + " failed"});
    expect_call(write(file_info("/dev/full")), -1, {"error file /dev/full write failed"});
    expect_call(write(file_info(path, ~0ULL)), -1, {"error file " + path + " lseek failed, offset=-1"});
    EXPECT_FALSE(std::filesystem::exists(none));
    EXPECT_EQ(ota_file_to_buf(nullptr, buffer, 1), -1);
    expect_call(ota_buf_to_file(&file, nullptr, 1), -1, Lines(2, "error file info is null"));
}

TEST_F(Utils, missing_arguments_and_files_are_refused) {
    char out[128] = "", gone[] = "/gone", name[] = "name";
    const char* const no = nullptr;
    uint64_t size = 0;
    std::filesystem::current_path("/");
    const std::tuple<std::function<int64_t()>, int64_t, std::string> rows[] = {
        {[] { return get_all_ab_partitions(nullptr); }, -1, "error abparts is null"},
        {[] { return emmc_gpt_entry_read(nullptr); }, -1, "error gpt_entries is null"},
        {[&] { return convert_partname(nullptr, out), out[0]; }, 0, ""},
        {[&] { return is_xxx_file(no, "zip"); }, -1, "error file name is invalid"},
        {[&] { return is_xxx_file("zip", no); }, -1, "error cmp_name is null"},
        {[&] { return ota_check_file(no, "zip"); }, -1, ""},
        {[&] { return ota_check_file(gone, "zip"); }, -1, "error ota upgrde file:/gone not exist!"},
        {[&] { return unzip_ota_file(gone, no, &size); }, -1, "error unzip_dir is null"},
        {[&] { return unzip_ota_file(gone, "/tmp/x", nullptr); }, -1, "error img_size is null"},
        {[&] { return unzip_ota_file(gone, "", &size); }, -1, "error make ota unzip file dir error!"},
        {[&] { return get_ota_process(no, out, 1); }, -6, "error zip_path is null"},
        {[&] { return get_ota_process(gone, nullptr, 1); }, -6, "error process_path is null"},
        {[&] { return get_ota_process(";;", out, 1); }, -6, ""},
        {[] { return static_cast<int64_t>(get_free_space(nullptr)); }, -1, "error path is NULL!"},
        {[&] { return static_cast<int64_t>(get_free_space(gone)); }, -1, "error Stat from /gone failed!"},
        {[&] { return get_file_size(no); }, -1, "error file ptr is empty"},
        {[&] { return get_file_size(gone); }, -1, ""},
        {[] { return ota_get_file_name(nullptr) == nullptr; }, 1, "error file_path is null"},
        {[&] { return ota_get_file_name(gone) == gone + 1; }, 1, ""},
        {[&] { return ota_get_file_name(name) == nullptr; }, 1, ""},
        {[] { return get_file_lock(nullptr); }, -1, "error open file (null) failed."},
        {[&] { return parse_version_info(no, out); }, -1, "error in_version is null"},
        {[&] { return parse_version_info(gone, nullptr); }, -1, "error out_version is null"},
        {[&] { return compare_sys_versions(no, "V1"); }, 0, "error v1 is null"},
        {[&] { return compare_sys_versions("V1", no); }, 0, "error v2 is null"},
        {[] { return ota_set_part_array(nullptr); }, -1, "error ota status value is NULL"},
        {[] { return ota_get_anti_ver_veeprom(nullptr); }, -1, "error get antirollback version from veeprom failed"},
        {[&] { return vx_uncompress(no, "/tmp"); }, -1, "error destnation or source file is null"},
        {[&] { return vx_uncompress_one(gone, "/tmp", name); }, -1, "error Cannot open /gone or /gone.zip"},
        {[] { return makedir(nullptr); }, -1, "error newdir is null"},
        {[&] { return vx_zip_has_file(no, out); }, -1, "error error:no zip file"},
        {[&] { return vx_zip_has_file(gone, nullptr); }, -1, "error file_name is null"},
        {[&] { return vx_zip_has_file(gone, out); }, -1, "error open /gone failed"},
        {[&] { return vx_get_zip_size(no, &size); }, -1, "error no zip file"},
        {[&] { return vx_get_zip_size(gone, nullptr); }, -1, "error img_size is null"},
        {[&] { return vx_get_zip_size(gone, &size); }, -1, "error open /gone failed"},
        {[&] { return vx_all_image_size(no); }, -1, "error no zip file"},
        {[&] { return vx_all_image_size(gone); }, -1, "error Open dir error..."},
        {[&] { return vx_get_max_zip_size(no); }, -1, "error no zip file"},
        {[&] { return vx_get_max_zip_size(gone); }, -1, "error change dir:/gone failed "},
        {[] { return vx_get_max_zip_size("proc"); }, -1,
         "error Open dir error..."}, /* a relative path, unpacked elsewhere */
        {[] { return ota_get_update_slot(); }, -1, "error error:slot conf not in cmdline."},
        {[] { return ota_get_slot_num(); }, -1, "error get boot ctrl info failed!"},
    };
    for (const auto& [call, result, line] : rows) {
        SCOPED_TRACE(&call - &std::get<0>(rows[0]));
        ended(call(), result, line);
    }
    std::filesystem::create_directory("/tmp/left");
    std::filesystem::current_path("/tmp/left");
    std::filesystem::remove("/tmp/left");
    expect_call(vx_uncompress(gone, "/tmp") + vx_uncompress_one(gone, "/tmp", name) + vx_get_max_zip_size("/tmp"), -3,
                Lines(3, "error get current directory absolute path error!"));
    std::filesystem::current_path("/");
}

TEST_F(Utils, a_log_line_goes_to_its_stream_and_to_the_system_log) {
    std::string err;
    const std::string out = captured(1, [&] {
        err = captured(2, [] { ota_get_cur_slot(); });
        set_cmdline("veloxboot.mode=normal");
        get_boot_mode();
    });
    const Lines lines = raw_log();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(err, lines[0]);
    EXPECT_EQ(out, "\r\x1b[K" + lines[1]);
    const std::regex form(R"(\[OTA_INFO\]\[ota_utils\w*\.cpp:\d+\] normal mode\n)");
    EXPECT_TRUE(std::regex_match(lines[1], form)) << lines[1];
}

TEST_F(Utils, only_a_positive_debug_level_shows_debug_lines) {
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // the level is read once per process
    for (const char* level : {"", "0", "-1", "x5", "5x"}) {
        setenv("OTA_DEBUG_FLAG", level, 1);
        const auto run = [level] {
            dup2(2, 1);
            char command[] = "true";
            ota_system_exe(command);
            setenv("OTA_DEBUG_FLAG", level[0] == '5' ? "0" : "5", 1);
            ota_system_exe(command);
            std::exit(log(true) == Lines(2, "debug execute cmd:true success!") ? 0 : 1);
        };
        EXPECT_EXIT(run(), testing::ExitedWithCode(0), level[0] == '5' ? R"(K\[OTA_DEBUG\].*K\[OTA_DEBUG\])" : "^$")
            << level;
    }
}

} // namespace
