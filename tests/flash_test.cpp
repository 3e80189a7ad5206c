// SPDX-License-Identifier: Apache-2.0
/** Reads and writes of flash, on simulated devices that fail, return wrong results and lose power on request. */
#include "board.h"
#include "flash_model.h"
#include "flash_sim.h"
#include "medium_writer.h"

#include <fcntl.h>
#include <filesystem>
#include <span>
#include <sstream>
#include <sys/mman.h>
#include <unistd.h>

/* A write may request more memory than exists. */
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}

namespace {

constexpr size_t block = 4096;
constexpr size_t blocks = 12;

struct Operation {
    std::string kind;
    size_t number; /* of its kind, from 1 */
    size_t position;
};

class Flash : public Board {
protected:
    ~Flash() override {
        remove_device();
    }

    /** Makes "/dev/mtd0", "/dev/ubi0" or "/dev/block0" with random content, at its head, and opens it. */
    void make_device(const std::string& kind, const std::set<size_t>& bad = {}, size_t page = 512,
                     size_t size = blocks * block, size_t block_size = block) {
        remove_device();
        path_ = "/dev/" + kind + "0";
        before_ = random_bytes(std::min(size, size_t{1} << 20), 1);
        std::ostringstream line;
        line << path_ << " " << kind << " erasesize=" << block_size << " writesize=" << page << " bad=";
        std::ranges::copy(bad, std::ostream_iterator<size_t>(line, ","));
        fd_ = open(path_.c_str(), O_RDWR | O_CREAT, 0600);
        ASSERT_EQ(ftruncate(fd_, static_cast<off_t>(size)), 0);
        ASSERT_EQ(write(fd_, before_.data(), before_.size()), ssize(before_));
        ASSERT_EQ(flash_sim_register(line.str().c_str()), 0);
        /* A mapping reads the medium without counting as an operation. */
        void* const map = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd_, 0);
        medium_ = {static_cast<const uint8_t*>(map), size};
    }

    void remove_device() {
        flash_sim_clear();
        if (fd_ >= 0) {
            munmap(const_cast<uint8_t*>(medium_.data()), medium_.size());
            close(fd_);
            std::filesystem::remove(path_);
            std::filesystem::remove(path_ + ".state");
        }
        fd_ = -1;
    }

    ssize_t write_device(bytes data, size_t offset) const {
        return (path_ == "/dev/ubi0" ? vx_ubi_write : vx_mtd_write)(fd_, data.data(), data.size(), offset);
    }

    [[nodiscard]] bool holds(const bytes& expected) const {
        return std::ranges::equal(expected, medium_.first(expected.size()));
    }

    static std::vector<Operation> operations() {
        std::vector<Operation> all;
        std::istringstream journal(flash_sim_journal());
        for (std::string line; std::getline(journal, line);) {
            Operation next{"", 1, 0};
            std::istringstream(line.substr(line.find(' '))) >> next.kind >> next.position;
            next.number += static_cast<size_t>(std::ranges::count(all, next.kind, &Operation::kind));
            all.push_back(next);
        }
        return all;
    }

    std::string path_;
    bytes before_;
    std::span<const uint8_t> medium_;
    int fd_ = -1;
};

void fill(bytes& data, size_t offset, size_t count, uint8_t byte) {
    std::ranges::fill(std::span(data).subspan(offset, count), byte);
}

/** Every operation of a write over three blocks fails in turn, or returns a value that is not a success. */
TEST_F(Flash, a_fault_at_every_operation_leaves_the_documented_content) {
    const std::tuple<const char*, std::set<size_t>, std::set<size_t>> rows[] = {{"mtd", {1, 6}, {5, 7, 8}},
                                                                                {"ubi", {}, {4, 5, 6}}};
    for (const auto& [kind, bad, range] : rows) {
        const bytes data = random_bytes(2 * block, 2);
        make_device(kind, bad);
        ASSERT_EQ(write_device(data, 4 * block + 1000), ssize(data));
        const bytes updated(medium_.begin(), medium_.end());
        size_t erases = 0;
        for (const Operation& fault : operations()) {
            const bool is_verdict = fault.kind == "MEMGETBADBLOCK";
            const bool all_erased = erases == range.size();
            erases += fault.kind == "MEMERASE64" || fault.kind == "UBI_IOCEBER" ? 1U : 0U;
            if (is_verdict && (!all_erased || bad.contains(fault.position / block))) {
                continue; /* the first query makes the block bad: not a failure */
            }
            bytes expected = all_erased ? updated : before_;
            for (const size_t number : range) {
                const size_t at = number * block;
                const bool is_lost = at == fault.position || (at > fault.position && !is_verdict);
                fill(expected, at, all_erased && is_lost ? block : 0, 0xff);
            }
            const std::string place = fault.kind + " " + std::to_string(fault.number);
            for (const std::string& rule : {"fail " + place, "give " + place + " 8192"}) {
                if (rule.starts_with("give p")) {
                    continue; /* a byte count is not a failure */
                }
                make_device(kind, bad);
                ASSERT_EQ(flash_sim_fault(rule.c_str()), 0);
                EXPECT_EQ(write_device(data, 4 * block + 1000), -1) << rule;
                EXPECT_TRUE(holds(expected)) << rule;
                /* The write-back ends before the block whose erase failed. */
                EXPECT_TRUE(fault.kind != "MEMERASE64" || fault.number < 3 || operations().back().kind == "pwrite");
            }
        }
    }
}

/** A block that is bad in one pass and good in the other never receives another block's data. */
TEST_F(Flash, a_block_that_turns_bad_or_good_between_the_passes_fails_the_write) {
    for (size_t question = 1; question <= 7; ++question) {
        make_device("mtd"); /* block 0 is queried once, blocks 1 to 3 in both passes */
        ASSERT_EQ(flash_sim_fault(("fail MEMGETBADBLOCK " + std::to_string(question)).c_str()), 0);
        const bool is_before = question == 1; /* there it is simply bad */
        const size_t changed = is_before ? 0 : (question - 2) % 3 + 1;
        const std::string line = "block-" + std::to_string(changed) +
                                 (question < 5 ? " was bad when the range was read and is good now"
                                               : " was good when it was read and is bad now");
        ended(write_device(bytes(3 * block, 7), block), is_before ? ssize_t{3 * block} : -1,
              is_before ? "info block-0 is bad block before offset" : "error " + line);
        bytes expected(medium_.begin(), medium_.end());
        std::copy_n(&before_[changed * block], block, &expected[changed * block]);
        fill(expected, changed * block, question < 5 ? 0 : block, 0xff);
        std::copy(before_.begin() + 5 * block, before_.end(), expected.begin() + 5 * block);
        EXPECT_TRUE(holds(expected)) << question;
    }
}

/** Bad blocks push the range past the end: each block is queried once, the read returns 0, nothing is erased. */
TEST_F(Flash, a_range_that_bad_blocks_push_off_the_device) {
    for (const size_t first : {10U, 11U}) {
        make_device("mtd", {1, 4});
        EXPECT_EQ(write_device(bytes(block, 7), first * block), -1);
        EXPECT_EQ(log(true),
                  Lines({"info block-1 is bad block before offset", "info block-4 is bad block before offset",
                         "debug vx_mtd_read out of mtd size", "debug vx_mtd_read reached the end of the file, error0",
                         "debug vx_mtd_read reached the end of the file, error0"}));
        const std::vector<Operation> steps = operations();
        EXPECT_EQ(std::ranges::count(steps, "MEMGETBADBLOCK", &Operation::kind), ssize_t{blocks});
        EXPECT_EQ(std::ranges::count(steps, "MEMERASE64", &Operation::kind), 0);
        EXPECT_TRUE(holds(before_));
    }
}

/** Random writes against the model: the good blocks in a row. */
TEST_F(Flash, random_writes_agree_with_a_model) {
    std::mt19937 random(3);
    const auto below = [&](size_t limit) { return random() % limit; };
    for (int round = 0; round < 60; ++round) {
        std::set<size_t> bad;
        for (size_t count = round % 3 == 0 ? 0 : below(6); count > 0; --count) {
            bad.insert(below(blocks));
        }
        make_device(round % 3 == 0 ? "ubi" : "mtd", bad, round % 3 == 1 ? 1 : 512);
        for (uint32_t i = 0; i < 12; ++i) {
            const size_t offset = below(blocks * block);
            const bytes data = random_bytes(1 + below(std::min<size_t>(blocks * block - offset, 20000)), i);
            const bool fits = offset + data.size() <= (blocks - bad.size()) * block;
            ASSERT_EQ(write_device(data, offset), fits ? ssize(data) : -1) << "round " << round;
            if (fits) {
                put_logical(before_, data, offset, bad, block);
            }
            ASSERT_TRUE(holds(before_)) << "round " << round;
        }
    }
}

TEST_F(Flash, a_short_read_continues_and_an_end_inside_a_block_fails) {
    const std::tuple<const char*, ssize_t, size_t> rows[] = {
        /* faults, result, blocks that are lost */
        {"short pread 1 1", 2 * block, 0},
        {"short pread 2 9; short pread 3 4086", 2 * block, 0},
        {"short pread 2 4095; short pread 3 0", -1, 0},
        {"short pread 1 700; fail pread 2", -1, 0},
        {"short pread 3 0; fail pwrite 2", -1, 1}, /* the write-back fails as well */
    };
    for (const std::string kind : {"mtd", "ubi"}) {
        for (const auto& [script, result, lost] : rows) {
            make_device(kind);
            ASSERT_EQ(flash_sim_fault(script), 0);
            EXPECT_EQ(write_device(bytes(2 * block, 7), 4196), result) << kind << ": " << script;
            fill(before_, 4196, result > 0 ? 2 * block : 0, 7);
            fill(before_, 2 * block, lost * block, 0xff);
            EXPECT_TRUE(holds(before_)) << kind << ": " << script;
        }
    }
}

TEST_F(Flash, ranges_at_the_end) {
    constexpr size_t size = blocks * block;
    const std::tuple<const char*, size_t, size_t, ssize_t, ssize_t> rows[] = {
        {"mtd", size - 10, 10, 10, 10},
        {"mtd", size - 10, 11, 10, -1},
        {"mtd", size, 1, 0, -1},
        {"mtd", 5, SIZE_MAX - 2, size - 5, -1},
        {"mtd", SIZE_MAX - 5, 10, -1, -1},
        {"mtd", 0, 0, -1, -1},
        {"mtd", size + 1, 1, -1, -1},
        {"ubi", size - 10, 10, 10, 10},
        {"ubi", size - 5000, 5001, 5000, -1},
        {"ubi", SIZE_MAX - 5, 10, -1, -1},
        {"ubi", size, 1, 0, -1},
        {"ubi", 5, SIZE_MAX / 2, size - 5, -1},
        {"ubi", 0, 0, -1, -1},
        {"ubi", 5, size_t{1} << 42, size - 5, -1},
    };
    for (const auto& [kind, offset, length, read, written] : rows) {
        SCOPED_TRACE(std::string(kind) + " " + std::to_string(offset) + "+" + std::to_string(length));
        const auto [read_device, write_device] = kind == std::string("ubi") ? std::pair(&vx_ubi_read, &vx_ubi_write)
                                                                            : std::pair(&vx_mtd_read, &vx_mtd_write);
        make_device(kind);
        bytes buffer(2 * size, 7);
        EXPECT_EQ(write_device(fd_, buffer.data(), length, offset), written);
        fill(before_, std::min(offset, size), written > 0 ? length : 0, 7);
        EXPECT_TRUE(holds(before_));
        EXPECT_EQ(read_device(fd_, buffer.data(), length, offset), read);
        EXPECT_TRUE(read <= 0 || std::equal(buffer.data(), buffer.data() + read, before_.data() + offset));
        EXPECT_EQ(write_device(fd_, nullptr, 1, 0), -1);
    }
}

TEST_F(Flash, an_image_is_written_to_flash_in_smaller_chunks) {
    static std::vector<int32_t> chunks;
    constexpr size_t large = 131072;
    make_device("mtd", {3}, 2048, 32 * large, large);
    const bytes image = random_bytes(size_t{3} << 20, 4);
    write_file("/dev/image", {reinterpret_cast<const char*>(image.data()), image.size()});
    ota_file_info_t from = file_info("/dev/image"), to = file_info(path_, 0, OTA_NAND);
    from.size = image.size();
    EXPECT_EQ(ota_file_to_file(&from, &to, [](int32_t count) { chunks.push_back(count); }), 0);
    EXPECT_EQ(chunks, (std::vector<int32_t>{2099200, 1046528}));
    before_.resize(medium_.size());
    put_logical(before_, image, 0, {3}, large);
    EXPECT_TRUE(holds(before_));
}

/* The size of an MTD device is reported in 32 bits, so it is below 4 GiB; a volume may be larger. */
TEST_F(Flash, offsets_on_both_sides_of_2_and_4_GiB) {
    constexpr size_t mib = 1 << 20, gib_2 = size_t{1} << 31, gib_4 = size_t{1} << 32, most = gib_4 - mib;
    const std::tuple<const char*, size_t, size_t, int32_t> rows[] = {
        {"mtd", most, gib_2 - 3, 6},        {"mtd", most, most - 6, 6},
        {"mtd", most, most - 5, -1},        {"mtd", most, gib_4, -1},
        {"ubi", gib_4 + mib, gib_2 - 3, 6}, {"ubi", gib_4 + mib, gib_4 - 3, 6},
        {"ubi", gib_4 + mib, gib_4, 6},     {"ubi", gib_4 + mib, gib_4 + mib, -1},
    };
    for (const auto& [kind, size, offset, result] : rows) {
        SCOPED_TRACE(std::string(kind) + " " + std::to_string(offset));
        make_device(kind, {}, mib, size, mib);
        ota_file_info_t file = file_info(path_, offset, OTA_NAND);
        EXPECT_EQ(ota_buf_to_file(&file, "far on", 6), result);
        char text[16] = {};
        if (result > 0) {
            EXPECT_EQ(ota_file_to_buf(&file, text, 6), 6);
            EXPECT_STREQ(text, "far on");
        }
    }
}

TEST_F(Flash, the_kind_of_device_follows_the_name_of_the_links_target) {
    const std::tuple<std::string, std::string, std::string> rows[] = {
        /* path, target if it is a link, first request: none if it is refused */
        {"/dev/mtd0", "", "MEMGETINFO"},
        {"/dev/ubi0", "", "UBI_IOCVOLINFO"},
        {"ubi_link", "/dev/mtd0", "MEMGETINFO"},
        {"mtd_link", "/dev/ubi0", "UBI_IOCVOLINFO"},
        {"both", "/dev/ubi/../mtd0", "MEMGETINFO"},
        {"ubi_and_mtd", "/dev/plain", ""},
        {"/dev/plain", "", ""},
    };
    std::filesystem::create_directories("/dev/ubi");
    for (const auto& [name, target, request] : rows) {
        make_device(request.starts_with("MEM") ? "mtd" : "ubi");
        std::filesystem::remove("/dev/plain");
        std::filesystem::create_hard_link(path_, "/dev/plain");
        const std::string path = target.empty() ? name : link_partition(name, target);
        for (const int medium : {int{OTA_NAND}, int{OTA_NOR}, -1, 4}) {
            SCOPED_TRACE(path + " -> " + target + ", medium " + std::to_string(medium));
            ASSERT_EQ(flash_sim_fault(""), 0);
            ota_file_info_t file = file_info(path, 10, static_cast<ota_medium_e>(medium));
            char byte = 0;
            const int32_t result = request.empty() ? -1 : 1;
            EXPECT_EQ(ota_file_to_buf(&file, &byte, 1), result);
            EXPECT_EQ(operations().empty() ? "" : operations()[0].kind, request);
            EXPECT_EQ(ota_buf_to_file(&file, &byte, 1), result);
            EXPECT_EQ(ota_buf_to_file(&file, &byte, 0), -1);
        }
        EXPECT_TRUE(holds(before_));
    }
}

/* ---- power loss ---- */

/** One of the two records that the library keeps, by its own operations. */
struct Record {
    const char* partition;
    size_t place;
    size_t size;
    int32_t (*make)();      /* stores the old one over any content */
    int32_t (*save)();      /* makes it the new one */
    std::string (*found)(); /* old, new, none, or fresh: recreated on reading */
};

std::string found_slot() {
    const int32_t slot = ota_get_next_expected_slot();
    return slot == 0 ? "old" : slot == 1 ? "new" : "none";
}

int32_t make_status() {
    return ota_set_veeprom_flag_default() + ota_set_up_status(OTA_FLAG_VERIFY);
}

std::string found_status() {
    auto flag = OTA_FLAG_NORMAL;
    const bool failed = ota_get_up_status(&flag) < 0;
    return failed ? "none" : flag == OTA_FLAG_VERIFY ? "old" : flag == OTA_FLAG_BURN ? "new" : "fresh";
}

constexpr Record slots = {
    "misc", 2048, 32, ota_set_slotmeta_to_default, [] { return ota_set_next_expected_slot(1); }, found_slot};
constexpr Record status = {"ubootenv",  0x30000, 1356, make_status, [] { return ota_set_up_status(OTA_FLAG_BURN); },
                           found_status};

/** Rows: bad blocks, and the bytes before the first of them. The device is read in pieces across its blocks. */
TEST_F(Flash, a_medium_is_queried_once_and_read_past_its_bad_blocks) {
    const std::tuple<const char*, medium_kind, std::set<size_t>, size_t> rows[] = {
        {"mtd", medium_kind::mtd, {}, 12},
        {"mtd", medium_kind::mtd, {3, 4, 6, 11}, 3},
        {"mtd", medium_kind::mtd, {0}, 0},
        {"ubi", medium_kind::ubi, {}, 12}};
    for (const auto& [kind, is, bad, straight] : rows) {
        make_device(kind, bad);
        medium_device device;
        ASSERT_TRUE(device.open(path_.c_str()).is_ok() && device.sync().is_ok());
        EXPECT_EQ(operations().size(), 1U); /* the sync alone */
        ASSERT_TRUE(device.find_bad_blocks().is_ok() && device.find_bad_blocks().is_ok());
        EXPECT_EQ(std::ranges::count(operations(), "MEMGETBADBLOCK", &Operation::kind),
                  is == medium_kind::mtd ? ssize_t{blocks} : 0);
        const size_t capacity = (blocks - bad.size()) * block;
        EXPECT_EQ(std::tuple(device.kind(), device.raw_size(), device.capacity()),
                  std::tuple(is, blocks * block, capacity));
        for (size_t end = 0; end <= blocks * block; end += block / 2) {
            EXPECT_EQ(device.is_straight(end), end <= straight * block) << end;
        }
        const bytes image = random_bytes(capacity, 2);
        ASSERT_EQ(write_device(image, 0), ssize(image));
        for (const auto& [offset, length] :
             {std::pair(size_t{0}, capacity), {block / 2, 4 * block}, {capacity - 1, 1}}) {
            bytes found(length);
            EXPECT_TRUE(device.read(offset, found).is_ok());
            EXPECT_TRUE(std::ranges::equal(found, std::span(image).subspan(offset, length))) << offset;
        }
        bytes too_much(2);
        EXPECT_EQ(device.read(capacity - 1, too_much).failed,
                  is == medium_kind::ubi ? medium_step::end : medium_step::good_blocks);
    }
}

/** Writes an image as the command does. @return bytes written */
size_t write_image(const std::string& path, const bytes& image, bool compares) {
    medium_writer writer;
    EXPECT_TRUE(writer.open(path.c_str()).is_ok());
    const size_t step = writer.is_flash() ? writer.unit_size() : 3 * writer.unit_size();
    size_t written = 0;
    for (size_t offset = 0; offset < image.size(); offset += step) {
        const auto chunk = std::span(image).subspan(offset, std::min(step, image.size() - offset));
        EXPECT_TRUE(writer.load(offset, chunk.size(), compares).is_ok());
        for (auto range = writer.difference(chunk, 0); !range.is_empty(); range = writer.difference(chunk, range.end)) {
            const auto units = chunk.subspan(range.begin, range.end - range.begin);
            EXPECT_TRUE(writer.write(offset + range.begin, units).is_ok());
            written += units.size();
        }
    }
    return written;
}

/** Rows: what is changed of an image that the device holds, units that are then written; nothing is the first time. */
TEST_F(Flash, an_image_is_written_once_and_only_where_it_differs) {
    const std::tuple<const char*, std::set<size_t>> media[] = {
        {"mtd", {1, 4}}, {"nor", {}}, {"ubi", {}}, {"block", {}}};
    for (const auto& row : media) { /* clang 14 lets no lambda capture the parts of a pair */
        const char* const kind = std::get<0>(row);
        const std::set<size_t>& bad = std::get<1>(row);
        for (const size_t size : {size_t{1}, block - 1, block, 5 * block, 7 * block + 1000}) {
            make_device(kind, bad, kind == std::string("nor") ? 1 : 512);
            const auto count_of = [](const char* name) {
                return std::ranges::count(operations(), name, &Operation::kind);
            };
            const size_t units = (size + block - 1) / block;
            bytes image = random_bytes(size, 2);
            const auto expect = [&](bool compares, size_t changed) {
                bytes expected(medium_.begin(), medium_.end());
                put_logical(expected, image, 0, bad, block);
                ASSERT_EQ(flash_sim_fault(""), 0);
                const size_t written = write_image(path_, image, compares);
                EXPECT_EQ((written + block - 1) / block, changed);
                EXPECT_TRUE(holds(expected)) << kind << ' ' << size;
                if (kind != std::string("block")) { /* of a disk several units are one write */
                    EXPECT_EQ(count_of("MEMERASE64") + count_of("UBI_IOCEBER"), static_cast<ssize_t>(changed));
                    EXPECT_EQ(count_of("pwrite"), static_cast<ssize_t>(changed));
                }
            };
            expect(true, units);
            expect(true, 0);
            expect(false, units);
            image.back() ^= 1U;
            expect(true, 1);
        }
    }
}

class TornLeb : public Flash {
protected:
    /** The power fails while the second LEB is written again, after its first page. */
    void SetUp() override {
        make_device("ubi");
        ASSERT_EQ(write_device(data_, block), ssize(data_));
        ASSERT_EQ(flash_sim_fault(("cut " + std::to_string(operations().size()) + " tear=1000").c_str()), 0);
        (void)write_device(data_, block);
        flash_sim_reboot();
        expected_ = before_;
        fill(expected_, block, block, 0xFF);
        std::ranges::copy(std::span(data_).first(512), &expected_[block]);
    }

    const bytes data_ = random_bytes(block, 2);
    bytes expected_; /* of the volume, where what can be read of the LEB is kept */
};

TEST_F(TornLeb, is_repaired_and_no_other) {
    ASSERT_LT(write_device(data_, block), 0); /* its first read fails */
    for (const bool wanted : {true, false}) {
        bool repaired = !wanted;
        EXPECT_TRUE(medium_writer().repair_volume(path_.c_str(), &repaired).is_ok());
        EXPECT_EQ(repaired, wanted);
        EXPECT_TRUE(holds(expected_));
    }
    EXPECT_EQ(write_device(data_, block), ssize(data_));
}

TEST_F(TornLeb, keeps_what_can_be_read_after_the_end_of_an_image) {
    const bytes image = random_bytes(block + 100, 3);
    EXPECT_EQ(write_image(path_, image, true), image.size());
    std::ranges::copy(image, expected_.begin());
    EXPECT_TRUE(holds(expected_));
}

medium_result read_a_block(const char* path) {
    medium_device device;
    bytes found(block);
    const medium_result opened = device.open(path);
    return opened.is_ok() ? device.read(0, found) : opened;
}

medium_result sync_it(const char* path) {
    medium_device device;
    const medium_result opened = device.open(path);
    return opened.is_ok() ? device.sync() : opened;
}

medium_result repair_it(const char* path) {
    bool repaired = false;
    return medium_writer().repair_volume(path, &repaired);
}

medium_result write_a_block(const char* path) {
    medium_writer writer;
    const bytes image(block, 1);
    const medium_result opened = writer.open(path);
    const medium_result loaded = opened.is_ok() ? writer.load(0, block, false) : opened;
    return loaded.is_ok() ? writer.write(0, image) : loaded;
}

TEST_F(Flash, a_failure_of_a_medium_names_its_step) {
    const std::tuple<const char*, medium_result (*)(const char*), const char*, medium_step, int> rows[] = {
        {"mtd", read_a_block, "fail pread 1", medium_step::read, EIO},
        {"ubi", read_a_block, "give pread 1 0", medium_step::end, 0},
        {"ubi", sync_it, "fail fsync 1 28", medium_step::sync, ENOSPC},
        {"ubi", repair_it, "fail pread 1; fail UBI_IOCSETVOLPROP 1", medium_step::prepare, EIO},
        {"ubi", repair_it, "fail pread 1; fail UBI_IOCEBER 1", medium_step::erase, EIO},
        {"ubi", repair_it, "fail pread 1; fail pwrite 1 28", medium_step::write, ENOSPC},
        {"ubi", repair_it, "fail pread 1; short pwrite 1 512", medium_step::write, EIO},
        {"ubi", write_a_block, "fail UBI_IOCSETVOLPROP 1", medium_step::prepare, EIO},
        {"mtd", write_a_block, "fail MEMERASE64 1", medium_step::erase, EIO},
        {"mtd", write_a_block, "give MEMERASE64 1 1", medium_step::erase, 0},
        {"mtd", write_a_block, "fail pwrite 1 28", medium_step::write, ENOSPC},
    };
    for (const auto& [kind, work, fault, step, error] : rows) {
        make_device(kind);
        ASSERT_EQ(flash_sim_fault(fault), 0);
        const medium_result result = work(path_.c_str());
        EXPECT_EQ(std::tuple(result.failed, result.error), std::tuple(step, error)) << kind << ' ' << fault;
    }
}

class PowerLoss : public Flash {
protected:
    /** Saves `record` on a board whose power fails as described by `cut`, and boots it again. */
    void lose_power(const char* kind, size_t page, const Record& record, const std::string& cut) {
        make_device(kind, {}, page, 3 * 131072, 131072);
        set_cmdline(std::string("veloxboot.slot_suffix=_a veloxboot.medium=") + (page == 512 ? "MMC" : "nand"));
        link_partition(record.partition, path_);
        ASSERT_EQ(record.make(), 0);
        (void)fsync(fd_); /* fails on flash */
        std::ranges::copy(medium_, before_.begin());
        ASSERT_EQ(flash_sim_fault(cut.c_str()), 0);
        (void)record.save();
        flash_sim_reboot();
    }

    /** Whether the bytes around the record are the old ones. */
    [[nodiscard]] bool rest_is_old(const Record& record) const {
        bytes expected = before_;
        std::copy_n(&medium_[record.place], record.size, &expected[record.place]);
        return std::ranges::equal(medium_, expected);
    }
};

/**
 * The power fails after every operation of a save, or within it ("tear"). Each row is valid from the operation
 * that it names up to the next row's: what a reader finds after the reboot; "alone" if the bytes around
 * the record are not the old ones; "reset" if the record cannot be saved before it is recreated, and
 * "stuck" if it cannot even be recreated.
 */
TEST_F(PowerLoss, after_and_within_every_operation_of_a_save) {
    const std::tuple<const char*, size_t, std::string, const Record*, const char*> rows[] = {
        {"mtd", 2048, "", &slots, "MEMGETINFO old, MEMERASE64 none alone reset, pwrite new, "},
        {"mtd", 2048, " tear", &slots, "MEMGETINFO old, MEMERASE64 none alone reset, pwrite new alone, "},
        {"mtd", 2048, "", &status, "MEMGETINFO old, MEMERASE64 fresh alone, pwrite new, "},
        {"mtd", 2048, " tear", &status, "MEMGETINFO old, MEMERASE64 fresh alone, "},
        {"mtd", 1, " tear", &slots, "MEMGETINFO old, MEMERASE64 none alone reset, pwrite new alone, "},
        {"mtd", 1, " tear", &status, "MEMGETINFO old, MEMERASE64 fresh alone, "},
        {"ubi", 2048, "", &slots, "UBI_IOCVOLINFO old, UBI_IOCEBER none alone reset, pwrite new, "},
        {"ubi", 2048, " tear", &slots,
         "UBI_IOCVOLINFO old, UBI_IOCSETVOLPROP none alone reset, pwrite new alone stuck, "},
        {"ubi", 2048, "", &status, "UBI_IOCVOLINFO old, UBI_IOCEBER fresh alone, pwrite new, "},
        {"ubi", 2048, " tear", &status, "UBI_IOCVOLINFO old, UBI_IOCSETVOLPROP fresh alone, pwrite none alone stuck, "},
        /* In the page of the record. The library checks only the magic number of a slot block. */
        {"mtd", 2048, " tear=2064", &slots, "MEMGETINFO old, MEMERASE64 none alone reset, pwrite new alone, "},
        {"mtd", 2048, " tear=66000", &status, "MEMGETINFO old, MEMERASE64 fresh alone, "},
        {"ubi", 2048, " tear=2064", &slots,
         "UBI_IOCVOLINFO old, UBI_IOCSETVOLPROP none alone reset, pwrite none alone stuck, "},
        {"ubi", 2048, " tear=66000", &status,
         "UBI_IOCVOLINFO old, UBI_IOCSETVOLPROP fresh alone, pwrite none alone stuck, "},
    };
    for (const auto& [kind, page, how, record, expected] : rows) {
        lose_power(kind, page, *record, "cut 1000");
        ASSERT_EQ(record->make() + flash_sim_fault("") + record->save(), 0);
        const std::vector<Operation> steps = operations();
        std::string outcomes, last;
        for (size_t step = 1; step <= steps.size(); ++step) {
            lose_power(kind, page, *record, "cut " + std::to_string(step) + how);
            std::string outcome = rest_is_old(*record) ? "" : " alone";
            outcome = record->found() + outcome;
            const bool saves = record->save() == 0 && record->found() == "new";
            outcome += saves ? "" : record->make() == 0 && record->found() == "old" ? " reset" : " stuck";
            outcomes += outcome == last ? "" : steps[step - 1].kind + " " + outcome + ", ";
            last = outcome;
        }
        EXPECT_EQ(outcomes, expected) << kind << page << how << record->partition;
    }
}

/** Until a sync the sectors of a save reach an eMMC in any order or not at all; a sector is never torn. */
TEST_F(PowerLoss, on_a_disk_that_was_not_synced) {
    const std::pair<const Record*, std::set<std::string>> rows[] = {{&slots, {"new", "old"}},
                                                                    {&status, {"fresh", "new", "old"}}};
    for (const auto& [record, expected] : rows) {
        std::set<std::string> outcomes;
        for (int seed = 0; seed < 20; ++seed) {
            lose_power("block", 512, *record, "cut 2 seed=" + std::to_string(seed));
            EXPECT_TRUE(rest_is_old(*record));
            outcomes.insert(record->found());
            EXPECT_EQ(record->save() + fsync(fd_), 0);
            flash_sim_reboot();
            EXPECT_EQ(record->found(), "new");
        }
        EXPECT_EQ(outcomes, expected) << record->partition;
    }
}

} // namespace
