// SPDX-License-Identifier: Apache-2.0
#include "board.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <numeric>
#include <sys/mman.h>

namespace {

constexpr size_t mib = 1048576;
std::vector<int32_t> chunks;

void note_chunk(int32_t len) {
    chunks.push_back(len);
}

/** The package that commands make in "/tmp". */
std::string package_by(const std::string& commands) {
    EXPECT_EQ(std::system(("cd /tmp && rm -f p.zip && " + commands).c_str()), 0);
    return "/tmp/p.zip";
}

using Stream = Board;

TEST_F(Stream, a_file_is_copied_in_chunks_up_to_its_end) {
    const std::string image = noise(25 * mib);
    const struct {
        size_t offset, asked;
        std::vector<int32_t> chunks;
    } rows[] = {{0, 25 * mib, {10485760, 10485760, 5242880}},
                {3, 10485761, {10485760, 1}},
                {25 * mib - 60, 1000, {60}},
                {7, 0, {}},
                {25 * mib, 10, {}}};
    add_partition("from", image);
    for (const auto& row : rows) {
        chunks.clear();
        std::string to(26 * mib, 't');
        ota_file_info_t dest = file_info(add_partition("to", to), 7, OTA_EMMC);
        ota_file_info_t source = file_info(by_name + "from", row.offset);
        source.size = row.asked;
        EXPECT_EQ(ota_file_to_file(&source, &dest, note_chunk), 0);
        const size_t moved = std::accumulate(row.chunks.begin(), row.chunks.end(), size_t{0});
        EXPECT_EQ(chunks, row.chunks);
        EXPECT_EQ(source.offset, row.offset + moved);
        EXPECT_EQ(dest.offset, 7 + moved);
        EXPECT_TRUE(read_partition("to") == to.replace(7, moved, image, row.offset, moved));
    }
}

TEST_F(Stream, a_failed_chunk_ends_the_copy_after_the_last_whole_one) {
    const std::string none = by_name + "none", to = add_partition("to", 1);
    ota_file_info_t source = file_info(none), dest = file_info(none);
    source.size = 11 * mib;
    expect_call(ota_file_to_file(&source, &dest, nullptr), -1,
                {"error open file: " + none + " failed", "error read " + none + " image error"});
    add_partition("none", 11 * mib, 'n');
    dest = file_info("/dev/full", 5);
    expect_call(ota_file_to_file(&source, &dest, nullptr), -1,
                {"error file /dev/full write failed", "error write /dev/full image, len 10485760 error"});
    EXPECT_EQ(source.offset, 0U);
    EXPECT_EQ(dest.offset, 5U);
    dest = file_info(to);
    limit_file_size(10 * mib + 5); // the second write is short
    expect_call(ota_file_to_file(&source, &dest, nullptr), -1, {"error write " + to + " image, len 1048576 error"});
    EXPECT_EQ(source.offset, 10 * mib);
    EXPECT_EQ(dest.offset, 10 * mib);
    EXPECT_EQ(ota_file_to_file(nullptr, &dest, nullptr), -1);
    expect_call(ota_file_to_file(&source, nullptr, nullptr), -1, Lines(2, "error file info is null"));
}

/* On a file that is sparse up to there. */
TEST_F(Stream, offsets_on_both_sides_of_2_and_4_GiB) {
    const std::string far = add_partition("far", ""), near = add_partition("near", ""), text = "far away";
    md5_byte_t there[16], here[16];
    for (const uint64_t edge : {uint64_t{1} << 31, uint64_t{1} << 32}) {
        for (const uint64_t start : {edge - 8, edge - 3, edge, edge + 1}) {
            SCOPED_TRACE(start);
            std::filesystem::resize_file(far, 0);
            std::filesystem::resize_file(near, 0);
            ota_file_info_t place = file_info(far, start), copy = file_info(near);
            place.size = edge; // more than exists
            EXPECT_EQ(ota_buf_to_file(&place, text.data(), text.size()), 8);
            EXPECT_EQ(get_file_size(far.c_str()), static_cast<long>(start + 8));
            EXPECT_EQ(ota_file_to_file(&place, &copy, nullptr), 0);
            EXPECT_EQ(read_partition("near"), text);
            EXPECT_EQ(place.offset, start + 8);
            EXPECT_EQ(MD5DevPart(far.c_str(), static_cast<long>(start), 8, there) + MD5File(near.c_str(), here), 0);
            EXPECT_EQ(bytes_of(there), bytes_of(here));
        }
    }
    std::filesystem::resize_file(far, (uint64_t{1} << 31) + 7);
    add_partition("near", 8);
    EXPECT_EQ(MD5Dev(far.c_str(), there, INT32_MAX) + MD5File(near.c_str(), here), 0);
    EXPECT_EQ(bytes_of(there), bytes_of(here));
    // One transfer is limited by the kernel to less than 2 GiB, so its count is never mistaken for a failure.
    constexpr size_t most = 0x7ffff000, asked = size_t{1} << 32;
    void* const zeros = mmap(nullptr, asked, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ota_file_info_t null = file_info("/dev/null");
    EXPECT_EQ(ota_buf_to_file(&null, static_cast<const char*>(zeros), asked), static_cast<int32_t>(most));
    munmap(zeros, asked);
}

TEST_F(Stream, an_entry_is_inflated_to_its_offset) {
    const std::string image = noise(11 * mib);
    write_file("/tmp/image", image);
    const std::string package = package_by("touch empty && zip -q p.zip image empty");
    ota_file_info_t dest = file_info(add_partition("to", 12 * mib, 't'), 5, OTA_EMMC);
    chunks.clear();
    EXPECT_EQ(vx_uncompress_file_to(package.c_str(), "image", &dest, note_chunk), 0);
    EXPECT_EQ(vx_uncompress_file_to(package.c_str(), "empty", &dest, note_chunk), 0);
    EXPECT_EQ(chunks, (std::vector<int32_t>{10485760, 1048576, 0, 0}));
    EXPECT_EQ(dest.offset, 5 + image.size());
    EXPECT_TRUE(read_partition("to") == std::string(5, 't') + image + std::string(mib - 5, 't'));
}

TEST_F(Stream, an_entry_that_cannot_be_read_is_named) {
    write_file("/tmp/image", std::string(mib, 'i'));
    const std::string package = package_by("zip -q p.zip image");
    ota_file_info_t dest = file_info("/dev/full", 5);
    const auto stream = [&dest](const char* src, const char* entry) {
        return vx_uncompress_file_to(src, entry, &dest, nullptr);
    };
    expect_call(stream("/tmp/none", "image"), -1, {"error Cannot open /tmp/none or /tmp/none.zip"});
    expect_call(stream(package.c_str(), "imag"), -100, {"error Cannot find file in zip: imag"});
    expect_call(stream(package.c_str(), "image"), -1,
                {"error file /dev/full write failed", "error error in writing extracted file 1048576"});
    EXPECT_EQ(dest.offset, 5U);
    EXPECT_EQ(stream(nullptr, "image"), -1);
    EXPECT_EQ(stream(package.c_str(), nullptr), -1);
    expect_call(vx_uncompress_file_to(package.c_str(), "image", nullptr, nullptr), -1,
                Lines(3, "error package, entry or destination is null"));
}

TEST_F(Stream, memory_does_not_grow_with_the_image) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's own memory is counted too";
#endif
    const std::string package = package_by("truncate -s 256M sparse && zip -q -1 p.zip sparse");
    ota_file_info_t dest = file_info("/dev/null");
    malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << 5; // resets the peak
    EXPECT_EQ(vx_uncompress_file_to(package.c_str(), "sparse", &dest, nullptr), 0);
    EXPECT_EQ(dest.offset, 256 * mib);
    const std::string status = read_file("/proc/self/status");
    const int peak_kib = std::atoi(status.c_str() + status.find("VmHWM:") + 6);
    EXPECT_GT(peak_kib, 10240); // the buffer at least
    EXPECT_LT(peak_kib, 24576);
}

} // namespace
