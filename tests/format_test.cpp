// SPDX-License-Identifier: Apache-2.0
/** The stored records as bytes, good and bad. */
#include "antirollback_record.h"
#include "flash_command.h"
#include "gpt.h"
#include "slot_block.h"
#include "status_record.h"
#include "verified_boot.h"
#include "zip_entry.h"

#include <gtest/gtest.h>
#include <string>

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

template <class Record>
void no_seal(Record* /*record*/) {
}

/** A valid record decodes, and sealing it again changes nothing; erased, cut and damaged ones are distinguished. */
template <class Record>
void check_format(const std::string& hex, size_t magic_at, size_t checked,
                  format_answer (*decode)(std::span<const uint8_t>, Record*), void (*seal)(Record*) = no_seal) {
    const std::string good = bytes(hex);
    Record record;
    ASSERT_EQ(good.size(), sizeof record);
    EXPECT_EQ(decode(span_of(good), &record).state, format_state::valid);
    seal(&record);
    EXPECT_EQ(std::memcmp(&record, good.data(), good.size()), 0);
    for (const char blank : {'\0', '\xff'}) {
        EXPECT_EQ(decode(span_of(std::string(good.size(), blank)), &record).state, format_state::absent);
    }
    for (size_t length = 0; length < good.size(); ++length) {
        const format_state wanted = good.find_first_not_of('\0') < length ? format_state::torn : format_state::absent;
        ASSERT_EQ(decode(span_of(good.substr(0, length)), &record).state, wanted) << length;
    }
    for (size_t at = 0; at < checked; ++at) {
        std::string bad = good;
        bad[at] = static_cast<char>(bad[at] ^ 0x10);
        const bool is_magic = at >= magic_at && at < magic_at + 4;
        ASSERT_EQ(decode(span_of(bad), &record).state, is_magic ? format_state::foreign : format_state::torn) << at;
        ASSERT_EQ(std::memcmp(&record, bad.data(), bad.size()), 0) << "a reader may accept it all the same";
    }
}

TEST(Format, stored_records) {
    constexpr size_t no_magic = SIZE_MAX - 4;
    check_format("61000000 42434142 0102 0000 7e009f00 00*12 556cecc6", 4, 32, decode_slot_block, seal_slot_block);
    check_format("5341544f 00*1348 7ed4c3a1", 0, 1356, decode_status_record, seal_status_record);
    check_format("01000000 07000000 03000000 f72c00f8", no_magic, 16, decode_antirollback_record,
                 seal_antirollback_record);
    check_format("444d4346 01000000 00*4 00100000 00*2256", 0, 4, decode_flash_command);
}

TEST(Format, an_anti_rollback_record_of_zeros_is_valid) {
    antirollback_ver_t record;
    EXPECT_EQ(decode_antirollback_record(span_of(bytes("00*12 6fc6d57b")), &record).state, format_state::valid);
}

TEST(Format, the_data_area_of_a_flash_command) {
    fimage_update_t command;
    EXPECT_EQ(decode_flash_command(span_of(bytes("444d4346 00*8 00100000 00*2256 ff*9")), &command).reason, nullptr);
    EXPECT_EQ(flash_command_area_size(command), 4096U);
}

TEST(Format, sizes_in_the_extra_field_of_a_zip_entry) {
    const std::tuple<std::string, format_state, uint64_t> rows[] = {
        {"0100 0800 0100000001000000", format_state::valid, 0x100000001},
        {"5554 0500 00*5 0100 1000 0200 00*14 ff", format_state::valid, 2},
        {"0100 0000 0100 0800 03 00*7", format_state::valid, 3}, /* the first has no uncompressed size */
        {"0100 0800 00*7", format_state::torn, 9},
        {"5554 ffff 0100 0800 00*8", format_state::torn, 9},
        {"0100 0400 00*4 010008", format_state::absent, 9},
        {"", format_state::absent, 9},
    };
    for (const auto& [hex, state, wanted] : rows) {
        uint64_t size = 9;
        EXPECT_EQ(decode_zip64_size(span_of(bytes(hex)), &size).state, state) << hex;
        EXPECT_EQ(size, wanted) << hex;
    }
}

TEST(Format, the_rollback_index_of_a_verified_boot_image) {
    const std::tuple<std::string, format_state, uint64_t> rows[] = {
        {"41564230 00 ff*107 0000000000000102 ff*8", format_state::valid, 0x102},
        {"41564230 00 ff*107 00*7", format_state::torn, 9},
        {"41564230", format_state::torn, 9},
        {"41564230 01 ff*107 00*8", format_state::foreign, 9},
    };
    for (const auto& [hex, state, wanted] : rows) {
        uint64_t index = 9;
        EXPECT_EQ(decode_verified_boot(span_of(bytes(hex)), &index).state, state) << hex;
        EXPECT_EQ(index, wanted) << hex;
    }
}

TEST(Format, entries_of_a_partition_table) {
    const std::string linux_data = "af3dc60f 8384 7247 8e79 3d69d8477de4 11*16 ", name = " 00*8 6200 00*70";
    const std::tuple<std::string, std::string, format_state> rows[] = {
        {linux_data, "22 00*7 22 00*7", format_state::valid},
        {linux_data, "22 00*7 21 00*7", format_state::foreign}, /* it ends before it begins */
        {"00*16 11*16 ", "22 00*7 22 00*7", format_state::absent},
    };
    for (const auto& [head, place, state] : rows) {
        gpt_entry entry;
        EXPECT_EQ(decode_gpt_entry(span_of(bytes(head + place + name)), &entry).state, state) << head + place;
        EXPECT_EQ(entry.part_name[0], 'b');
    }
    gpt_entry entry;
    EXPECT_EQ(decode_gpt_entry(span_of(bytes(linux_data)), &entry).state, format_state::torn);
}

} // namespace
