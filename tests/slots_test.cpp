// SPDX-License-Identifier: Apache-2.0
#include "board.h"

#include <algorithm>
#include <random>
#include <sys/stat.h>

namespace {

using namespace std::string_literals;
using Call = int32_t (*)(int32_t);

class Slots : public Board {
protected:
    Slots() {
        set_cmdline("veloxboot.medium=MMC veloxboot.slot_suffix=_a");
    }
    static int32_t reset(int32_t) {
        return ota_set_slotmeta_to_default();
    }
    const std::string misc_ = add_partition("misc", 4096);
};

TEST_F(Slots, random_changes_leave_every_byte_as_the_rules_require) {
    std::mt19937 random(1);
    std::string misc = noise(4096);
    auto* const block = reinterpret_cast<uint8_t*>(&misc[2048]);
    // The priority in bits 0 to 3, the tries in 4 to 6, the mark in 7.
    const auto state = [&](int slot) -> uint8_t& { return block[12 + 2 * slot]; };
    const auto rank = [&](int slot) {
        return (state(slot) & 15) << 4 | state(slot) >> 7 << 3 | (state(slot) >> 4 & 7);
    };
    const Call calls[] = {ota_set_next_expected_slot, ota_mark_slot_boot_successful, ota_set_slot_unbootable};
    for (int step = 0; step < 3000; ++step) {
        SCOPED_TRACE(step);
        for (int at = step % 3 == 0 ? 8 : 32; at < 32; ++at) {
            block[at] = static_cast<uint8_t>(random());
        }
        add_partition("misc", misc.replace(2052, 4, "BCAB"));
        const int stored = block[9] & 7, usable = std::min(stored, 4), slot = static_cast<int>(random() % 6) - 1;
        const bool known = slot >= 0 && slot < usable;
        const Call call = calls[random() % 3];
        const bool is_next = call == ota_set_next_expected_slot, is_mark = call == ota_mark_slot_boot_successful;
        EXPECT_EQ(call(slot), known ? 0 : -1);
        if (known && !(is_mark && state(slot) >= 0x90)) {
            const int kept = state(slot);
            for (int i = 0; is_next && i < usable; ++i) {
                state(i) = static_cast<uint8_t>(state(i) - ((state(i) & 15) == 15));
            }
            block[13 + 2 * slot] &= is_next ? 0xFE : 0xFF;
            state(slot) = static_cast<uint8_t>(is_next ? (kept & 0x80) | 0x1F : (kept & 15) | (is_mark ? 0x90 : 0));
            misc.replace(2076, 4, bytes_of(CRC32(block, 28)));
        }
        ASSERT_EQ(read_partition("misc"), misc);
        int best = -1;
        for (int i = 0; i < stored && stored <= 4; ++i) {
            const bool candidate = (rank(i) & 7) != 0 && (block[13 + 2 * i] & 1) == 0;
            best = candidate && (best < 0 || rank(i) > rank(best)) ? i : best;
        }
        EXPECT_EQ(ota_get_next_expected_slot(), best);
        EXPECT_EQ(ota_get_slot_num(), stored);
        EXPECT_EQ(ota_get_slot_bootable_state(slot), known ? rank(slot) & 7 : -1);
        log();
        EXPECT_EQ(ota_get_slot_remaining_times(slot), known ? rank(slot) & 7 : -1);
        EXPECT_EQ(log().front().starts_with("info"), known); // no try left is not an error
        EXPECT_EQ(ota_get_slot_boot_success_state(slot), known ? state(slot) >= 0x90 : -1);
    }
}

TEST_F(Slots, the_update_slot_follows_the_states_of_the_slots) {
    const struct {
        char running;
        Call call;
        std::string slots, crc;
        int32_t next, update;
    } rows[] = {
        {'a', reset, "\x7f\0\x7f\0"s, "\x0f\x9d\x2a\x67", 0, 1},
        {'a', ota_set_next_expected_slot, "\x7e\0\x1f\0"s, "\xb7\x83\x9f\x45", 1, 1},
        {'b', ota_mark_slot_boot_successful, "\x7e\0\x9f\0"s, "\x55\x6c\xec\xc6", 1, 0},
        {'a', ota_mark_slot_boot_successful, "\x7e\0\x9f\0"s, "\x55\x6c\xec\xc6", 1, 0},
        {'b', ota_set_slot_unbootable, "\x7e\0\x0f\0"s, "\xdb\xbf\x2d\x23", 0, 0},
    };
    for (const auto& row : rows) {
        set_cmdline("veloxboot.medium=MMC veloxboot.slot_suffix=_"s + row.running);
        EXPECT_EQ(row.call(1), 0);
        EXPECT_EQ(read_partition("misc").substr(2048, 32),
                  "a\0\0\0BCAB\1\2\0\0"s + row.slots + std::string(12, '\0') + row.crc);
        EXPECT_EQ(ota_get_next_expected_slot(), row.next);
        EXPECT_EQ(ota_get_update_slot(), row.update);
        char cur[128], opp[128];
        EXPECT_EQ(get_part_device_name("system", cur, opp, AB), 0);
        EXPECT_EQ(opp, by_name + (row.update == 0 ? "system_a" : "system_b"));
        EXPECT_EQ(cur, by_name + (row.update == 0 ? "system_b" : "system_a"));
    }
    char untouched[128] = "";
    log();
    set_cmdline("veloxboot.medium=MMC veloxboot.slot_suffix=_c");
    expect_call(get_part_device_name("system", untouched, untouched, AB), -1,
                {"error Invalid boot slot 2", "error get slot:2 boot success state error!", "error Invalid boot slot 3",
                 "error get slot:3 boot success state error!", "error get update slot error"});
    write_partition("misc", 2048 + 9, "\4");
    expect_call(get_part_device_name("system", untouched, untouched, AB), -1,
                {"info get slot:2 boot success state is:0", "info get slot:3 boot success state is:0",
                 "info this update slot is:3!", "error get update slot error"});
    EXPECT_STREQ(untouched, "");
}

TEST_F(Slots, each_failure_is_logged_from_the_bottom_up_and_changes_nothing) {
    const struct {
        Call call;
        std::string failed, done;
    } rows[] = {
        {ota_get_slot_bootable_state, "", "get slot:1 bootable state is:7"},
        {ota_get_slot_boot_success_state, "get slot:1 boot success state error!", "get slot:1 boot success state is:0"},
        {ota_get_slot_remaining_times, "get slot:1 boot remaining times error!", "get slot:1 boot remaining times:7"},
        {ota_set_next_expected_slot, "set active boot slot to 1 error!", "set slot:1 to next expected success!"},
        {ota_set_slot_unbootable, "set slot:1 unbootable error!", "set slot:1 to unbootable success!"},
        {ota_mark_slot_boot_successful, "set slot:1 boot successful error!", "set slot:1 boot success"},
    };
    const std::string unwritten = "error open file:" + misc_ + " failed";
    for (const auto& [call, failed, done] : rows) {
        SCOPED_TRACE(done);
        unlink(misc_.c_str());
        EXPECT_EQ(call(1), -1);
        add_partition("misc", 4096);
        expect_call(call(1), -1,
                    {"error open file: " + misc_ + " failed", "error misc data read failed, ret -1",
                     "error get boot ctrl info failed!", "error check bootctrl valid failed! ret 32",
                     "error get boot ctrl info failed!"});
        reset(0);
        if (failed.starts_with("set")) {
            chmod(misc_.c_str(), 0444);
            expect_call(
                call(1), -1,
                {unwritten, "error misc data write failed, ret -1", "error Boot ctrl save failed", "error " + failed});
            chmod(misc_.c_str(), 0644);
        }
        EXPECT_GE(call(1), 0);
        EXPECT_EQ(log(), Lines{"info " + done});
        write_partition("misc", 2048 + 9, "\1"); // one slot, so slot 1 does not exist
        const std::string before = read_partition("misc");
        EXPECT_EQ(call(1), -1);
        const Lines lines = log();
        EXPECT_EQ(lines[0], "error Invalid boot slot 1");
        EXPECT_EQ(lines.size() > 1 ? lines[1] : "error ", "error " + failed);
        EXPECT_EQ(lines.back() == "info get slot:1 boot remaining times:-1", call == ota_get_slot_remaining_times);
        EXPECT_EQ(read_partition("misc"), before);
    }
    for (const auto& [slots, line] :
         {std::pair("\0"s, "info curslot read from misc is: -1"), {"\5"s, "error Invalid nb_slot 5, max 4"}}) {
        write_partition("misc", 2048 + 9, slots);
        expect_call(ota_get_next_expected_slot(), -1, {line, "error get next expected slot error!"});
    }
    chmod(misc_.c_str(), 0444);
    expect_call(reset(0), -1,
                {unwritten, "error misc data write failed, ret -1", "error bootctrl_write failed",
                 "error set default slot info failed, ret -1"});
}

} // namespace
