// SPDX-License-Identifier: Apache-2.0
/**
 * The board that the tests run on. Each test program enters its own mount namespace before the
 * first test: the host's tree is visible, but "/dev", "/tmp", "/userdata" and "/usr/velox" are the
 * test's own, and "/proc/cmdline" is what set_cmdline() sets. The program is root in it, but without
 * root's access to every file: permissions apply. It also stands in for the board's libraries.
 */
#ifndef TESTS_BOARD_H
#define TESTS_BOARD_H

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>
#include <velox_ota_hl.h>

using Lines = std::vector<std::string>;

/** The two counters. A result other than 0 makes an operation fail and touch nothing. */
struct Efuses {
    uint32_t sec = 0, nosec = 0;
    int32_t sec_read_result = 0, nosec_read_result = 0, sec_write_result = 0, nosec_write_result = 0;
    Lines calls; /**< in order: "read sec", "write nosec 7" */
};

/** A board without partitions and with an empty command line, new for each test. */
class Board : public testing::Test {
protected:
    Board();
    ~Board() override; /**< fails the test if the number of open descriptors has changed */

    static inline const std::string by_name = "/dev/block/platform/by-name/";
    static inline const std::string userdata = "/userdata/ota/";
    static inline const std::string flashcmds = "/usr/velox/share/ota/";

    static void set_cmdline(std::string_view text); /**< stored as given; no line end is added */

    /** Makes a file, or a link to `target`, in by-name, in place of what is there; returns its path. */
    static std::string add_partition(const std::string& name, std::string_view bytes);
    static std::string add_partition(const std::string& name, size_t size, char fill = '\0');
    static std::string link_partition(const std::string& name, const std::string& target);
    static std::string read_partition(const std::string& name);
    static void write_partition(const std::string& name, size_t offset, std::string_view bytes);
    static std::string read_file(const std::string& path);
    static std::string write_file(const std::string& path, std::string_view bytes); /**< returns `path` */
    /** Until the end of the test a write across `size` is short, and one beyond it fails. */
    static void limit_file_size(uint64_t size);

    /**
     * Takes the lines logged since the last call, each as its level in a word and its message, as in
     * "error open file: /x failed", without line end. A malformed line fails the test.
     */
    static Lines log(bool with_debug = false);
    static Lines raw_log(); /**< takes the same lines as the system log received them */

    /** Fails unless a call returned `wanted` and logged exactly these lines, or `line` last. */
    static void expect_call(int64_t result, int64_t wanted, const Lines& lines, int at = __builtin_LINE());
    static void ended(int64_t result, int64_t wanted, const std::string& line, int at = __builtin_LINE());

    static size_t open_descriptors();
    static Efuses& efuses();

private:
    size_t descriptors_ = open_descriptors();
};

/** What `call` writes to stream 1 (stdout) or 2 (stderr). */
std::string captured(int stream, const std::function<void()>& call);

/** Pseudo-random bytes, the same each time. */
std::string noise(size_t size);

ota_file_info_t file_info(const std::string& path, uint64_t offset = 0, ota_medium_e medium = OTA_RAW);

/** The stored form of a plain record. */
template <class Record>
std::string bytes_of(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

#endif
