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
    EXPECT_EQ(get_boot_medium() + get_boot_mode() + ota_get_cur_slot(), -3);
    EXPECT_EQ(log(), Lines(3, "error open /proc/cmdline error."));
}

TEST_F(Utils, device_names_are_cut_and_the_same_for_all_but_ab) {
    char cur[128], opp[128];
    const std::string name(200, 'n');
    EXPECT_EQ(get_part_device_name(name.c_str(), cur, opp, BAK), 0);
    EXPECT_EQ(cur, (by_name + name).substr(0, 127));
    EXPECT_STREQ(opp, cur);
    EXPECT_EQ(get_part_device_name(nullptr, cur, opp, PERMANENT), -1);
    EXPECT_EQ(get_part_device_name("misc", nullptr, opp, PERMANENT), -1);
    EXPECT_EQ(get_part_device_name("misc", cur, nullptr, AB), -1);
    EXPECT_EQ(log(), Lines(3, "error dev path or part name is empty"));
}

TEST_F(Utils, one_transfer_at_any_place) {
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
    const std::pair<ota_file_info_t, std::string> bad_reads[] = {
        {file_info(none), "error open file: " + none + " failed"},
        {file_info(by_name), "error file " + by_name + " read failed"},
        {file_info(path, ~0ULL), "error file " + path + " lseek failed, offset=-1"},
        {file_info(path, 0, ota_medium_e(-1)), "error " + path + " is neither an MTD device nor a UBI volume"}};
    for (auto [place, line] : bad_reads) {
        EXPECT_EQ(ota_file_to_buf(&place, buffer, 1), -1);
        EXPECT_EQ(log(), Lines{line});
    }
    const std::pair<ota_file_info_t, std::string> bad_writes[] = {
        {file_info(none), "error open file:" + none + " failed"},
        {file_info("/dev/full"), "error file /dev/full write failed"},
        {file_info(path, ~0ULL), "error file " + path + " lseek failed, offset=-1"}};
    for (auto [place, line] : bad_writes) {
        EXPECT_EQ(ota_buf_to_file(&place, buffer, 1), -1);
        EXPECT_EQ(log(), Lines{line});
    }
    EXPECT_FALSE(std::filesystem::exists(none));
    EXPECT_EQ(ota_file_to_buf(nullptr, buffer, 1), -1);
    EXPECT_EQ(ota_buf_to_file(&file, nullptr, 1), -1);
    EXPECT_EQ(log(), Lines(2, "error file info is null"));
}

TEST_F(Utils, a_log_line_goes_to_its_stream_and_to_the_system_log) {
    std::string err;
    const std::string out = captured(1, [&] {
        err = captured(2, [] { ota_get_cur_slot(); });
        set_cmdline("veloxboot.mode=normal");
        get_boot_mode();
    });
    const std::vector<LogLine> lines = raw_log();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(err, lines[0].text);
    EXPECT_EQ(out, "\r\x1b[K" + lines[1].text);
    const std::regex form(R"(\[OTA_INFO\]\[ota_utils\w*\.cpp:\d+\] normal mode\n)");
    EXPECT_TRUE(std::regex_match(lines[1].text, form)) << lines[1].text;
}

TEST_F(Utils, only_a_positive_debug_level_shows_debug_lines) {
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // the level is read once in the life of a process
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
