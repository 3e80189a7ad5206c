/** Reads and writes of flash, on simulated devices that fail, lie and lose power where they are told to. */
#include "flash_model.h"
#include "flash_sim.h"
#include "ota_nand_update.h"
#include "ota_partition.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <span>
#include <sstream>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr size_t block = 4096;
constexpr size_t blocks = 12;

struct operation {
    std::string kind;
    size_t number; /* of its kind, from 1 */
    size_t position;
};

/** A device in a directory of its own, which is the working directory: links and names stay short. */
class flash : public testing::Test {
protected:
    flash() {
        char name[] = "/tmp/flash_test.XXXXXX";
        directory_ = mkdtemp(name);
        std::filesystem::current_path(directory_);
    }

    ~flash() override {
        remove_device();
        std::filesystem::current_path("/");
        std::filesystem::remove_all(directory_);
    }

    /** Makes a device with random content and opens it. */
    void make_device(const std::string& kind, const std::set<size_t>& bad = {}, size_t page = 512,
                     size_t size = blocks * block, size_t block_size = block) {
        remove_device();
        name_ = kind + "0";
        before_ = random_bytes(size, 1);
        std::ostringstream line;
        line << name_ << " " << kind << " erasesize=" << block_size << " writesize=" << page << " bad=";
        std::ranges::copy(bad, std::ostream_iterator<size_t>(line, ","));
        fd_ = open(name_.c_str(), O_RDWR | O_CREAT, 0600);
        ASSERT_EQ(ssize(before_), write(fd_, before_.data(), before_.size()));
        ASSERT_EQ(0, flash_sim_register(line.str().c_str()));
        /* A mapping shows what lies on the medium without being an operation. */
        void* const map = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd_, 0);
        medium_ = {static_cast<const uint8_t*>(map), size};
    }

    void remove_device() {
        flash_sim_clear();
        if (fd_ >= 0) {
            munmap(const_cast<uint8_t*>(medium_.data()), medium_.size());
            close(fd_);
            std::filesystem::remove(name_);
            std::filesystem::remove(name_ + ".state");
        }
        fd_ = -1;
    }

    ssize_t write_device(bytes data, size_t offset) const {
        return (name_ == "ubi0" ? vx_ubi_write : vx_mtd_write)(fd_, data.data(), data.size(), offset);
    }

    /** Fails with the first byte that differs. */
    [[nodiscard]] testing::AssertionResult holds(const bytes& expected) const {
        const auto difference = std::ranges::mismatch(expected, medium_).in1;
        if (difference == expected.end()) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << "byte " << difference - expected.begin() << " of\n"
                                           << flash_sim_journal();
    }

    static std::vector<operation> operations() {
        std::vector<operation> all;
        std::istringstream journal(flash_sim_journal());
        for (std::string line; std::getline(journal, line);) {
            std::string device;
            operation next{"", 1, 0};
            std::istringstream(line) >> device >> next.kind >> next.position;
            next.number += static_cast<size_t>(std::ranges::count(all, next.kind, &operation::kind));
            all.push_back(next);
        }
        return all;
    }

    std::filesystem::path directory_;
    std::string name_;
    bytes before_;
    std::span<const uint8_t> medium_;
    int fd_ = -1;
};

TEST_F(flash, write_asks_reads_erases_and_writes_in_order) {
    const std::tuple<std::string, const char*> rows[] = {
        {"mtd", "MEMGETINFO = 0, MEMGETBADBLOCK 0 = 0, MEMGETBADBLOCK 4096 = 1, MEMGETBADBLOCK 8192 = 0, "
                "MEMGETBADBLOCK 12288 = 0, MEMGETINFO = 0, pread 12288+4096 = 4096, MEMERASE64 12288+4096 = 0, "
                "MEMGETBADBLOCK 16384 = 1, "
                "MEMGETBADBLOCK 20480 = 0, MEMGETINFO = 0, pread 20480+4096 = 4096, MEMERASE64 20480+4096 = 0, "
                "MEMGETBADBLOCK 12288 = 0, pwrite 12288+4096 = 4096, MEMGETBADBLOCK 16384 = 1, "
                "MEMGETBADBLOCK 20480 = 0, pwrite 20480+4096 = 4096, "},
        {"ubi", "UBI_IOCVOLINFO = 0, UBI_IOCVOLINFO = 0, pread 8192+4096 = 4096, UBI_IOCEBER 2 = 0, "
                "UBI_IOCVOLINFO = 0, pread 12288+4096 = 4096, UBI_IOCEBER 3 = 0, UBI_IOCSETVOLPROP = 0, "
                "pwrite 8192+4096 = 4096, pwrite 12288+4096 = 4096, "},
    };
    for (const auto& [kind, expected] : rows) {
        make_device(kind, kind == "mtd" ? std::set<size_t>{1, 4} : std::set<size_t>{});
        ASSERT_EQ(6000, write_device(bytes(6000, 7), 2 * block + 100));
        std::string steps;
        std::istringstream journal(flash_sim_journal());
        for (std::string line; std::getline(journal, line);) {
            steps += line.substr(name_.size() + 1) + ", ";
        }
        EXPECT_EQ(expected, steps);
    }
}

/** Every operation of a write over three blocks fails in turn, or gives what is no success. */
TEST_F(flash, fault_at_every_position_leaves_what_is_promised) {
    for (const std::string kind : {"mtd", "ubi"}) {
        const bool has_bad = kind == "mtd";
        const std::set<size_t> bad = has_bad ? std::set<size_t>{1, 6} : std::set<size_t>{};
        const std::vector<size_t> range = has_bad ? std::vector<size_t>{5, 7, 8} : std::vector<size_t>{4, 5, 6};
        const bytes data = random_bytes(2 * block, 2);
        make_device(kind, bad);
        ASSERT_EQ(ssize(data), write_device(data, 4 * block + 1000));
        const bytes updated(medium_.begin(), medium_.end());
        size_t erases = 0;
        for (const operation& fault : operations()) {
            const bool is_verdict = fault.kind == "MEMGETBADBLOCK";
            const bool all_erased = erases == range.size();
            erases += fault.kind == "MEMERASE64" || fault.kind == "UBI_IOCEBER" ? 1U : 0U;
            if (is_verdict && (!all_erased || bad.contains(fault.position / block))) {
                continue; /* asked for the first time, the block is bad then: no failure */
            }
            bytes expected = all_erased ? updated : before_;
            for (const size_t number : range) {
                const size_t at = number * block;
                const bool is_lost = at == fault.position || (at > fault.position && !is_verdict);
                std::fill_n(expected.begin() + static_cast<long>(at), all_erased && is_lost ? block : 0, 0xff);
            }
            const std::string place = fault.kind + " " + std::to_string(fault.number);
            for (const std::string& rule : {"fail " + place, "give " + place + " 8192"}) {
                if (rule.starts_with("give p")) {
                    continue; /* a count of bytes is no failure */
                }
                make_device(kind, bad);
                ASSERT_EQ(0, flash_sim_fault(rule.c_str()));
                EXPECT_EQ(-1, write_device(data, 4 * block + 1000)) << rule;
                EXPECT_TRUE(holds(expected)) << rule;
            }
        }
    }
}

TEST_F(flash, failing_erase_ends_with_the_write_back_of_the_blocks_before) {
    make_device("mtd");
    ASSERT_EQ(0, flash_sim_fault("fail MEMERASE64 3"));
    EXPECT_EQ(-1, write_device(bytes(4 * block), 0));
    EXPECT_EQ("pwrite", operations().back().kind);
    EXPECT_EQ(block, operations().back().position);
}

/** Erasing fails, and then the write-back of the blocks erased so far. */
TEST_F(flash, failing_write_back_keeps_the_first_result) {
    make_device("mtd");
    ASSERT_EQ(0, flash_sim_fault("give MEMERASE64 3 5; fail pwrite 2"));
    EXPECT_EQ(-1, write_device(bytes(3 * block), 0));
    std::fill_n(before_.begin() + block, block, 0xff); /* block 0 is back, block 1 lost, block 2 was not erased */
    EXPECT_TRUE(holds(before_));
}

/** A block that is bad in one pass and good in the other is never given another block's data. */
TEST_F(flash, block_that_changes_its_verdict_ends_in_a_failure) {
    for (size_t question = 1; question <= 7; ++question) {
        make_device("mtd"); /* block 0 is asked once, blocks 1 to 3 are asked in both passes */
        ASSERT_EQ(0, flash_sim_fault(("fail MEMGETBADBLOCK " + std::to_string(question)).c_str()));
        testing::internal::CaptureStderr();
        const ssize_t result = write_device(bytes(3 * block, 7), block);
        const std::string errors = testing::internal::GetCapturedStderr();
        const size_t changed = question == 1 ? 0 : (question - 2) % 3 + 1;
        EXPECT_EQ(question == 1 ? ssize_t{3 * block} : -1, result); /* the block in front is simply bad */
        EXPECT_EQ(question == 1, errors.find("block-" + std::to_string(changed) + " ") == std::string::npos);
        bytes expected(medium_.begin(), medium_.end());
        std::copy_n(before_.begin() + ssize_t(changed * block), block, expected.begin() + ssize_t(changed * block));
        std::fill_n(expected.begin() + ssize_t(changed * block), question < 5 ? 0 : block, 0xff);
        std::copy(before_.begin() + 5 * block, before_.end(), expected.begin() + 5 * block);
        EXPECT_TRUE(holds(expected)) << question;
    }
}

/** Random writes against the model: the good blocks in a row. */
TEST_F(flash, random_writes_agree_with_a_model) {
    std::mt19937 random(3);
    const auto below = [&](size_t limit) { return random() % limit; };
    for (int round = 0; round < 60; ++round) {
        const bool is_ubi = round % 3 == 0;
        std::set<size_t> bad;
        for (size_t count = is_ubi ? 0 : below(6); count > 0; --count) {
            bad.insert(below(blocks));
        }
        make_device(is_ubi ? "ubi" : "mtd", bad, round % 3 == 1 ? 1 : 512);
        for (uint32_t i = 0; i < 12; ++i) {
            const size_t offset = below(blocks * block);
            const bytes data = random_bytes(1 + below(std::min<size_t>(blocks * block - offset, 20000)), i);
            const bool fits = offset + data.size() <= (blocks - bad.size()) * block;
            ASSERT_EQ(fits ? ssize(data) : -1, write_device(data, offset)) << "round " << round;
            if (fits) {
                put_logical(before_, data, offset, bad, block);
            }
            ASSERT_TRUE(holds(before_)) << "round " << round;
        }
    }
}

TEST_F(flash, short_reads_go_on_and_an_end_inside_a_block_is_a_failure) {
    const std::tuple<const char*, ssize_t> rows[] = {
        {"short pread 1 1", 2 * block},
        {"short pread 2 9; short pread 3 4086", 2 * block},
        {"short pread 2 0", -1},
        {"short pread 2 4095; short pread 3 0", -1},
        {"short pread 1 700; fail pread 2", -1},
    };
    for (const char* const kind : {"mtd", "ubi"}) {
        for (const auto& [script, result] : rows) {
            SCOPED_TRACE(std::string(kind) + ": " + script);
            make_device(kind);
            ASSERT_EQ(0, flash_sim_fault(script));
            EXPECT_EQ(result, write_device(bytes(2 * block, 7), 4196));
            std::fill_n(before_.begin() + 4196, std::max<ssize_t>(result, 0), 7);
            EXPECT_TRUE(holds(before_));
        }
    }
}

TEST_F(flash, ranges_at_the_end) {
    constexpr size_t size = blocks * block;
    const std::tuple<const char*, size_t, size_t, ssize_t, ssize_t> rows[] = {
        {"mtd", size - 10, 10, 10, 10},         {"mtd", size - 10, 11, 10, -1},         {"mtd", size, 1, 0, -1},
        {"mtd", 5, SIZE_MAX - 2, size - 5, -1}, {"mtd", SIZE_MAX - 5, 10, -1, -1},      {"mtd", 0, 0, -1, -1},
        {"mtd", size + 1, 1, -1, -1},           {"ubi", size - 10, 10, 10, 10},         {"ubi", size - 10, 11, 10, -1},
        {"ubi", size - 5000, 5001, 5000, -1},   {"ubi", SIZE_MAX - 5, 10, -1, -1},      {"ubi", size, 1, 0, -1},
        {"ubi", size - 5000, 99999, 5000, -1},  {"ubi", 5, SIZE_MAX / 2, size - 5, -1}, {"ubi", 0, 0, -1, -1},
    };
    for (const auto& [kind, offset, length, read, written] : rows) {
        SCOPED_TRACE(std::string(kind) + " " + std::to_string(offset) + "+" + std::to_string(length));
        make_device(kind);
        bytes buffer(2 * size, 7);
        const bool is_ubi = name_ == "ubi0";
        EXPECT_EQ(written, (is_ubi ? vx_ubi_write : vx_mtd_write)(fd_, buffer.data(), length, offset));
        std::fill_n(before_.begin() + static_cast<long>(offset), std::max<ssize_t>(written, 0), 7);
        EXPECT_TRUE(holds(before_));
        EXPECT_EQ(read, (is_ubi ? vx_ubi_read : vx_mtd_read)(fd_, buffer.data(), length, offset));
        if (read > 0) {
            EXPECT_EQ(0, std::memcmp(buffer.data(), &before_[offset], static_cast<size_t>(read)));
        }
    }
}

ota_file_info_t file_at(const std::string& path, uint64_t offset, int medium) {
    ota_file_info_t file{.offset = offset, .size = 0, .medium = static_cast<ota_medium_e>(medium), .path = {}};
    path.copy(file.path, sizeof file.path - 1);
    return file;
}

TEST_F(flash, kind_follows_the_text_of_the_link) {
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"mtd0", "", "MEMGETINFO"},
        {"ubi0", "", "UBI_IOCVOLINFO"},
        {"ubi_link", "mtd0", "MEMGETINFO"},
        {"mtd_link", "ubi0", "UBI_IOCVOLINFO"},
        {"both", "./ubi/../mtd0", "MEMGETINFO"},
        {"ubi_and_mtd", "plain", ""},
        {"plain", "", ""},
        {"missing", "", ""},
    };
    std::filesystem::create_directory("ubi");
    for (const auto& [path, target, request] : rows) {
        make_device(request.starts_with("MEM") ? "mtd" : "ubi");
        std::filesystem::remove("plain");
        std::filesystem::create_hard_link(name_, "plain");
        if (!target.empty()) {
            std::filesystem::create_symlink(target, path);
        }
        for (const int medium : {int{OTA_NAND}, int{OTA_NOR}, -1, 4}) {
            SCOPED_TRACE(path + " -> " + target + ", medium " + std::to_string(medium));
            ASSERT_EQ(0, flash_sim_fault(""));
            ota_file_info_t file = file_at(path, 10, medium);
            char byte = 0;
            const int32_t result = request.empty() ? -1 : 1;
            EXPECT_EQ(result, ota_file_to_buf(&file, &byte, 1));
            EXPECT_EQ(request, operations().empty() ? "" : operations()[0].kind);
            EXPECT_EQ(result, ota_buf_to_file(&file, &byte, 1));
            EXPECT_EQ(-1, ota_buf_to_file(&file, &byte, 0));
        }
        EXPECT_TRUE(holds(before_));
    }
}

/** The two records of the library, at their places: the slot block and the update status. */
struct stored_record {
    size_t place;
    size_t size;
};
constexpr stored_record slot = {2048, 32};
constexpr stored_record status = {0x30000, 1356};

class power_loss : public flash {
protected:
    void make_board_device(const char* kind, size_t page, const stored_record& record, const std::string& fault) {
        make_device(kind, {}, page, 3 * 131072, 131072);
        ASSERT_EQ(ssize_t(record.size), save('A', record));
        (void)fsync(fd_); /* only a disk knows it */
        flash_sim_reboot();
        std::ranges::copy(medium_, before_.begin());
        ASSERT_EQ(0, flash_sim_fault(fault.c_str()));
        (void)save('B', record);
        flash_sim_reboot();
    }

    [[nodiscard]] ota_file_info_t file_of(const stored_record& record) const {
        return file_at(name_, record.place, name_ == "block0" ? OTA_EMMC : OTA_NAND);
    }

    [[nodiscard]] int32_t save(char content, const stored_record& record) const {
        ota_file_info_t file = file_of(record);
        return ota_buf_to_file(&file, std::string(record.size, content).c_str(), record.size);
    }

    /** o: the old record, n: the new one, -: neither, e: reading fails. */
    [[nodiscard]] char found(const stored_record& record) const {
        ota_file_info_t file = file_of(record);
        std::string content(record.size, '-');
        if (ota_file_to_buf(&file, content.data(), content.size()) < 0) {
            return 'e';
        }
        const bool is_whole = content.find_first_not_of(content[0]) == std::string::npos;
        return is_whole && content[0] == 'A' ? 'o' : is_whole && content[0] == 'B' ? 'n' : '-';
    }

    /** o: the bytes around the record are the old ones, -: they are not. */
    [[nodiscard]] char rest(const stored_record& record) const {
        bytes expected = before_;
        std::ranges::copy(medium_.subspan(record.place, record.size), expected.begin() + ssize_t(record.place));
        return std::ranges::equal(medium_, expected) ? 'o' : '-';
    }

    /** Saves once more, after the reboot. */
    [[nodiscard]] char save_again(const stored_record& record) const {
        return save('B', record) > 0 ? found(record) : '-';
    }
};

/**
 * The power fails behind every operation of a save, or in the middle of it ("tear"). A letter for each: what
 * a reader finds then, what became of the bytes around the record, and what the next save comes to.
 */
TEST_F(power_loss, behind_every_operation_of_a_save) {
    const std::tuple<const char*, size_t, std::string, stored_record, std::string> rows[] = {
        /* MEMGETINFO, MEMGETBADBLOCK for each block, MEMGETINFO, pread, MEMERASE64, MEMGETBADBLOCK, pwrite */
        {"mtd", 2048, "", slot, "oooo--n oooo--o nnnnnnn"},
        {"mtd", 2048, "", status, "ooooo--n ooooo--o nnnnnnnn"},
        {"mtd", 2048, " tear", slot, "oooo--n oooo--- nnnnnnn"},
        {"mtd", 2048, " tear", status, "ooooo--- ooooo--- nnnnnnnn"},
        {"mtd", 1, " tear", slot, "oooo--n oooo--- nnnnnnn"},
        {"mtd", 1, " tear", status, "ooooo--- ooooo--- nnnnnnnn"},
        /* UBI_IOCVOLINFO, UBI_IOCVOLINFO, pread, UBI_IOCEBER, UBI_IOCSETVOLPROP, pwrite */
        {"ubi", 2048, "", slot, "ooo--n ooo--o nnnnnn"},
        {"ubi", 2048, "", status, "ooo--n ooo--o nnnnnn"},
        {"ubi", 2048, " tear", slot, "oooo-n oooo-- nnnnn-"},
        {"ubi", 2048, " tear", status, "oooo-e oooo-- nnnnn-"},
    };
    for (const auto& [kind, page, how, record, expected] : rows) {
        std::string found_all, rest_all, again_all;
        for (size_t step = 1; step <= expected.find(' '); ++step) {
            make_board_device(kind, page, record, "cut " + std::to_string(step) + how);
            found_all += found(record);
            rest_all += rest(record);
            again_all += save_again(record);
        }
        EXPECT_EQ(expected, found_all + " " + rest_all + " " + again_all) << kind << how;
    }
}

/** Until a sync the sectors of a save reach an eMMC in any order or not at all; a sector is never torn. */
TEST_F(power_loss, of_a_disk_that_was_not_synced) {
    std::set<char> slots, states;
    for (int seed = 0; seed < 20; ++seed) {
        for (const stored_record& record : {slot, status}) {
            make_board_device("block", 512, record, "cut 1 seed=" + std::to_string(seed));
            (record.size == slot.size ? slots : states).insert(found(record));
            EXPECT_EQ('o', rest(record));
        }
    }
    EXPECT_EQ((std::set<char>{'n', 'o'}), slots);
    EXPECT_EQ((std::set<char>{'-', 'n', 'o'}), states);
}

} // namespace
