/**
 * The board that the tests run on. Each test program leaves for a mount namespace of its own before the
 * first test: the host's tree shows through, but "/dev", "/tmp", "/userdata" and "/usr/velox" are the
 * test's own, and "/proc/cmdline" is what set_cmdline() says. Nothing of the host can be changed there.
 * The program is root in it, yet without root's pass to any file: permissions count.
 *
 * The program also stands in for the board's libraries: what the library logs and does to the eFuses
 * ends here.
 */
#ifndef TESTS_BOARD_H
#define TESTS_BOARD_H

#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

/** What __android_log_print was given. */
struct LogLine {
    int priority;
    std::string text;
};

/** The two counters. Results other than 0 make an operation fail and touch nothing. */
struct Efuses {
    uint32_t sec = 0;
    uint32_t nosec = 0;
    int32_t sec_read_result = 0;
    int32_t nosec_read_result = 0;
    int32_t sec_write_result = 0;
    int32_t nosec_write_result = 0;
    std::vector<std::string> calls; /**< in order: "read sec", "write nosec 7" */
};

/** What `call` writes to stream 1 (stdout) or 2 (stderr). */
std::string captured(int stream, const std::function<void()>& call);

/** A board without partitions and with an empty command line, new for each test. */
class Board : public testing::Test {
protected:
    Board();

    static inline const std::string by_name = "/dev/block/platform/by-name/";
    static inline const std::string userdata = "/userdata/ota/";
    static inline const std::string flashcmds = "/usr/velox/share/ota/";

    /** The kernel command line, as it stands; no line end is added. */
    static void set_cmdline(std::string_view text);

    /** Makes a partition and returns its path. */
    static std::string add_partition(const std::string& name, std::string_view bytes);
    static std::string add_partition(const std::string& name, size_t size, char fill = '\0');
    /** Makes by-name/`name` a symbolic link to `target`. */
    static std::string link_partition(const std::string& name, const std::string& target);
    static std::string read_partition(const std::string& name);
    static void write_partition(const std::string& name, size_t offset, std::string_view bytes);

    static std::string read_file(const std::string& path);
    static std::string write_file(const std::string& path, std::string_view bytes);

    /**
     * Takes the lines logged since the last call, each as its level in a word and its message, as in
     * "error open file: /x failed", without line end. Debug lines are left out unless asked for. A line
     * of a wrong form or priority fails the test.
     */
    static std::vector<std::string> log(bool with_debug = false);
    /** Takes the same lines as the system log got them. */
    static std::vector<LogLine> raw_log();

    static size_t open_descriptors();
    static Efuses& efuses();
};

/** The stored form of a plain record. */
template <class Record>
std::string bytes_of(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

#endif
