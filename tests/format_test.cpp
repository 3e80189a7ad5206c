// SPDX-License-Identifier: Apache-2.0
/** Each format as bytes, good and bad: the cases of golden/, and what damage makes of the good ones. */
#include "antirollback_record.h"
#include "block_map.h"
#include "firmware_package.h"
#include "flash_command.h"
#include "gpt.h"
#include "slot_block.h"
#include "status_record.h"
#include "verified_boot.h"
#include "zip_entry.h"
#include "zip_file.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

/** Bytes in hex; "*COUNT" repeats the byte before it. */
std::string bytes(const std::string& hex) {
    std::string all;
    for (size_t at = 0; at < hex.size(); at += hex[at] == ' ' ? 1U : 2U) {
        if (hex[at] == '*') {
            size_t digits = 0;
            all.append(std::stoul(hex.substr(at + 1), &digits) - 1, all.back());
            at += digits - 1;
        } else if (hex[at] != ' ') {
            all += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
        }
    }
    return all;
}

std::span<const uint8_t> span_of(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

struct GoldenCase {
    std::string name;
    format_state state;
    uint64_t number; /* what is read, where it is one number; 0 without one */
    std::string bytes;
};

/** golden/FORMAT.hex: for each case a line "NAME: STATE [NUMBER]" and lines of bytes(). A '#' begins a comment. */
std::vector<GoldenCase> golden(const std::string& format) {
    const std::map<std::string, format_state> states = {{"valid", format_state::valid},
                                                        {"absent", format_state::absent},
                                                        {"torn", format_state::torn},
                                                        {"foreign", format_state::foreign}};
    std::ifstream file(GOLDEN_DIRECTORY "/" + format + ".hex");
    std::vector<GoldenCase> cases;
    for (std::string line; std::getline(file, line);) {
        line.erase(std::min(line.find('#'), line.size()));
        if (const size_t colon = line.find(':'); colon != std::string::npos) {
            std::string state;
            std::string number = "0";
            std::istringstream(line.substr(colon + 1)) >> state >> number;
            cases.push_back({line.substr(0, colon), states.at(state), std::stoull(number, nullptr, 0), ""});
        } else if (!cases.empty()) {
            cases.back().bytes += bytes(line);
        }
    }
    EXPECT_GT(cases.size(), 1U) << format;
    return cases;
}

template <class Record>
void no_seal(Record* /*record*/) {
}

template <class Record>
using Check = format_answer (*)(const Record&);

template <class Record>
Record record_of(const std::string& stored) {
    Record record{};
    std::memcpy(static_cast<void*>(&record), stored.data(), std::min(stored.size(), sizeof record));
    return record;
}

/** Of a valid record a change of any of the `checked` bytes is noticed. */
template <class Record>
void check_damage(const std::string& good, size_t magic_at, size_t checked, Check<Record> check) {
    for (size_t at = 0; at < checked; ++at) {
        std::string bad = good;
        bad[at] = static_cast<char>(bad[at] ^ 0x10);
        const bool is_magic = at >= magic_at && at < magic_at + 4;
        ASSERT_EQ(check(record_of<Record>(bad)).state, is_magic ? format_state::foreign : format_state::torn) << at;
    }
}

/** Sealing a valid record again changes nothing; erased, torn and foreign ones are distinguished. */
template <class Record>
void check_format(const std::string& format, size_t magic_at, size_t checked, Check<Record> check,
                  void (*seal)(Record*) = no_seal) {
    for (const GoldenCase& one : golden(format)) {
        ASSERT_EQ(one.bytes.size(), sizeof(Record)) << format << ": " << one.name;
        auto record = record_of<Record>(one.bytes);
        EXPECT_EQ(check(record).state, one.state) << format << ": " << one.name;
        if (one.state == format_state::valid) {
            seal(&record);
            EXPECT_EQ(std::memcmp(&record, one.bytes.data(), one.bytes.size()), 0) << format << ": " << one.name;
        }
    }
    for (const char blank : {'\0', '\xff'}) {
        EXPECT_EQ(check(record_of<Record>(std::string(sizeof(Record), blank))).state, format_state::absent);
    }
    check_damage(golden(format).front().bytes, magic_at, checked, check);
}

/** A format of which one number is read. */
void check_number(const std::string& format, format_answer (*decode)(std::span<const uint8_t>, uint64_t*)) {
    for (const GoldenCase& one : golden(format)) {
        uint64_t number = 9; /* stays where there is none */
        EXPECT_EQ(decode(span_of(one.bytes), &number).state, one.state) << format << ": " << one.name;
        EXPECT_EQ(number, one.state == format_state::valid ? one.number : 9) << format << ": " << one.name;
    }
}

TEST(Format, erased_bytes_are_all_0_or_all_ff) {
    for (const auto& [hex, erased] :
         {std::pair("", true), {"00", true}, {"ff*9", true}, {"00*8 01", false}, {"ff 00*8", false}, {"07*9", false}}) {
        EXPECT_EQ(is_erased(span_of(bytes(hex))), erased) << hex;
    }
}

TEST(Format, stored_records) {
    constexpr size_t no_magic = SIZE_MAX - 4;
    check_format("slot_block", 4, 32, check_slot_block, seal_slot_block);
    check_format("status_record", 0, 1356, check_status_record, seal_status_record);
    check_format("antirollback_record", no_magic, 16, check_antirollback_record, seal_antirollback_record);
    check_format("flash_command", 0, 4, check_flash_command);
}

TEST(Format, fields_that_are_not_whole_words_or_in_order) {
    const auto block = record_of<bootloader_control>(golden("slot_block").front().bytes);
    const slot_metadata& other = block.slot_info[1];
    EXPECT_EQ((std::array<uint32_t, 5>{block.nb_slot, block.slot_info[0].successful_boot, other.priority,
                                       other.tries_remaining, other.verity_corrupted}),
              (std::array<uint32_t, 5>{2, 1, 14, 7, 0}));
    const auto status = record_of<ota_status_t>(golden("status_record").front().bytes);
    EXPECT_EQ((std::array<int, 3>{status.up_backup, status.up_app, status.up_middleware}),
              (std::array<int, 3>{OTA_FLAG_BURN, OTA_FLAG_VERIFY, OTA_FLAG_VERIFIED}));
    EXPECT_STREQ(status.update_part.array[1], "system");
    EXPECT_EQ(status.update_part.type[1], AB);
}

TEST(Format, the_data_area_of_a_flash_command) {
    const auto command = record_of<fimage_update_t>(golden("flash_command").front().bytes);
    EXPECT_EQ(flash_command_area_size(command), 4096U);
}

TEST(Format, sizes_in_the_extra_field_of_a_zip_entry) {
    check_number("zip64_extra", decode_zip64_size);
}

TEST(Format, zip64_values_replace_what_does_not_fit_a_header) {
    constexpr uint64_t wide = 0xFFFFFFFF;
    const std::tuple<std::string, zip_extent, zip_extent, bool> rows[] = {
        {"0100 1000 02*8 03*8", {wide, wide, 7}, {0x0202020202020202, 0x0303030303030303, 7}, true},
        {"0100 0800 02*8", {5, 6, wide}, {5, 6, 0x0202020202020202}, true}, /* only what is all ones in the header */
        {"5554 0100 ff 0100 0400 02*4", {wide, 6, 7}, {wide, 6, 7}, true},
        {"5554 0900 ff", {wide, 6, 7}, {wide, 6, 7}, false},
    };
    for (const auto& [hex, header, wanted, state] : rows) {
        zip_extent extent = header;
        EXPECT_EQ(zip_complete_extent(span_of(bytes(hex)), &extent), state) << hex;
        EXPECT_EQ(std::memcmp(&extent, &wanted, sizeof extent), 0) << hex;
    }
}

TEST(Format, block_maps) {
    constexpr uint64_t image_size = 131077, packed_size = 0x94 + 0x0b + 2;
    for (const GoldenCase& golden_case : golden("block_map")) {
        const format_answer answer = check_block_map(span_of(golden_case.bytes), image_size, packed_size);
        EXPECT_EQ(answer.state, golden_case.state) << golden_case.name;
        EXPECT_EQ(answer.reason == nullptr, answer.state == format_state::valid) << golden_case.name;
    }
    const block_map_header header = make_block_map_header(image_size);
    EXPECT_EQ(std::memcmp(&header, golden("block_map")[0].bytes.data(), sizeof header), 0);
    EXPECT_EQ(block_map_size(UINT64_MAX), 24 + 4 * (uint64_t{1} << 47) + 16 * (uint64_t{1} << 52));
    EXPECT_EQ(check_frame_sum(0, 1).state, format_state::torn);
    EXPECT_EQ(check_frame_sum(0, 2).state, format_state::valid);
    for (uint64_t sum : {0U, 10U}) { /* of the frames before: what does not fit is not added */
        const uint64_t before = sum;
        EXPECT_EQ(add_frame_lengths(span_of(bytes("05000000 05000000")), 9, &sum).state, format_state::torn);
        EXPECT_EQ(sum, before == 0 ? 5 : before);
    }
}

/** The number of entries, and 100 more where no entry of zeros follows the last one. */
format_answer count_firmware_entries(std::span<const uint8_t> file, uint64_t* count) {
    const format_answer answer = check_firmware_package(file);
    firmware_walk walk{file};
    fip_toc_entry_t entry;
    uint64_t entries = 0;
    while (answer.state == format_state::valid && next_firmware_entry(&walk, &entry)) {
        EXPECT_EQ(check_firmware_place(entry, 4096), static_cast<firmware_place>(entry.flags)) << entries;
        ++entries;
    }
    if (answer.state == format_state::valid) {
        *count = entries + (walk.is_terminated ? 0 : 100);
    }
    return answer;
}

TEST(Format, the_entries_of_a_firmware_package) {
    check_number("firmware_package", count_firmware_entries);
}

TEST(Format, the_rollback_index_of_a_verified_boot_image) {
    check_number("verified_boot", decode_verified_boot);
}

TEST(Format, entries_of_a_partition_table) {
    for (const GoldenCase& one : golden("gpt_entry")) {
        const auto entry = record_of<gpt_entry>(one.bytes);
        EXPECT_EQ(check_gpt_entry(entry).state, one.state) << one.name;
        EXPECT_EQ(entry.part_name[0], 'b') << one.name;
    }
}

} // namespace
