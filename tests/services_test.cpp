// SPDX-License-Identifier: Apache-2.0
/** Digests, the lock and commands, versions, the inventory and flash commands. */
#include "board.h"
#include "flash_sim.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

using namespace std::string_literals;

constexpr long chunk = 1 << 20;

/* The host's devices, opened before the board hides them. */
const int host_dev = open("/dev", O_PATH | O_DIRECTORY | O_CLOEXEC);

bool next_is_device; // the next file queried appears as a character device, which has no size

/** The digest that `call` fills in, or its result where that is not 0. */
std::string digest_of(const std::function<int(md5_byte_t*)>& call) {
    md5_byte_t digest[16];
    char text[33];
    const int result = call(digest);
    for (size_t i = 0; i < 16; ++i) {
        (void)std::snprintf(text + 2 * i, 3, "%02x", digest[i]);
    }
    return result == 0 ? text : std::to_string(result);
}

/** The digest of `text`, fed in pieces that end at the cuts. */
std::string md5(std::string_view text, std::vector<size_t> cuts = {}) {
    md5_state_t state;
    size_t at = 0;
    md5_init(&state);
    cuts.push_back(text.size());
    for (const size_t cut : cuts) {
        md5_append(&state, reinterpret_cast<const md5_byte_t*>(text.data()) + at, static_cast<int>(cut - at));
        at = cut;
    }
    return digest_of([&](md5_byte_t* digest) { return md5_finish(&state, digest), 0; });
}

std::string of_device(const std::string& path, int32_t garbage) {
    return digest_of([&](md5_byte_t* digest) { return MD5Dev(path.c_str(), digest, garbage); });
}

std::string output_of(const std::string& command) {
    return captured(1, [&] { EXPECT_EQ(std::system(command.c_str()), 0) << command; });
}

/** Runs a step in its own process. @return whether it returned true or was ended by SIGKILL */
bool elsewhere(const std::function<bool()>& step) {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(step() ? 0 : 1);
    }
    int status = 1;
    waitpid(pid, &status, 0);
    return status == 0 || status == SIGKILL;
}

using Services = Board;

TEST_F(Services, digests_of_memory_equal_those_of_md5sum) {
    const std::string bytes = noise(301);
    std::string expected;
    for (size_t length = 0; length <= 300; ++length) {
        const std::string file = "/userdata/ota/" + std::to_string(100 + length);
        expected += md5(bytes.substr(0, length)) + "  " + write_file(file, bytes.substr(0, length)) + "\n";
    }
    EXPECT_EQ(output_of("md5sum /userdata/ota/[1-4]*"), expected);
    const std::string text = bytes.substr(0, 184); // its last block has no room for the length
    for (size_t first = 0; first <= text.size(); ++first) {
        for (size_t second = first; second <= text.size(); ++second) {
            ASSERT_EQ(md5(text, {first, second}), md5(text)) << first << ", " << second;
        }
    }
    // A length whose bits need more than 32: the pages of the mapping are all the one zero page.
    const size_t size = (size_t{1} << 29) + 67;
    void* const zeros = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    EXPECT_EQ(md5({static_cast<const char*>(zeros), size}, {size - 70}) + "  -\n",
              output_of("head -c " + std::to_string(size) + " /dev/zero | md5sum"));
    munmap(zeros, size);
}

TEST_F(Services, ranges_around_the_chunk_boundaries) {
    constexpr long size = 3 * chunk + 5;
    const std::string bytes = noise(size), file = add_partition("misc", bytes);
    const auto stretch = [&](long offset, long length) {
        const auto start = static_cast<size_t>(std::min(offset, size));
        return md5(std::string_view(bytes).substr(start, static_cast<size_t>(std::max(length, 0L))));
    };
    const auto of_part = [](const std::string& path, long offset, long length) {
        return digest_of([&](md5_byte_t* digest) { return MD5DevPart(path.c_str(), offset, length, digest); });
    };
    for (const long place : {0L, 1L, chunk - 1, chunk, chunk + 1, 3 * chunk, size, size + 1}) {
        for (const long length : {-1L, 0L, chunk - 1, chunk, 2 * chunk, 2 * chunk + 1, size}) {
            EXPECT_EQ(of_part(file, place, length), stretch(place, length)) << place << " " << length;
        }
        EXPECT_EQ(of_device(file, static_cast<int32_t>(place)), stretch(0, size - place)) << place;
        EXPECT_EQ(of_device(file, static_cast<int32_t>(-place)), stretch(0, size)) << place;
    }
    EXPECT_EQ(digest_of([&](md5_byte_t* digest) { return MD5File(file.c_str(), digest); }), stretch(0, size));
    EXPECT_EQ(of_part("/no/such", 0, 1) + of_device("/no/such", 0), "-1-1");
    EXPECT_EQ(of_device("/dev/zero", -5), "-1") << "it reports no size";
    EXPECT_EQ(of_device("/dev", 0), md5("")) << "a directory has nothing to read";
    ASSERT_EQ(mkfifo((by_name + "pipe").c_str(), 0600), 0);
    const int writer = open((by_name + "pipe").c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(of_device(by_name + "pipe", 0), md5(""));
    close(writer);
    md5_byte_t digest[16];
    EXPECT_EQ(MD5File("/no/such", digest) + MD5File(file.c_str(), nullptr), -2);
    EXPECT_EQ(MD5DevPart(nullptr, 0, 1, nullptr) + MD5Dev(nullptr, digest, 0) + MD5Dev(file.c_str(), nullptr, 0), -3);
    EXPECT_EQ(MD5DevPart(file.c_str(), 0, 1, nullptr), -1);
    EXPECT_EQ(log(true), Lines());
}

TEST_F(Services, a_flash_device_has_the_size_that_it_reports) {
    const std::string bytes = noise(chunk + 4096), file = add_partition("system_a", bytes);
    for (const auto& [kind, request] : {std::pair(" mtd", "MEMGETINFO"s), std::pair(" ubi", "UBI_IOCVOLINFO"s)}) {
        ASSERT_EQ(flash_sim_register((file + kind + " erasesize=4096 writesize=512").c_str()), 0);
        const auto digest = [&](const std::string& fault, int32_t garbage) {
            EXPECT_EQ(flash_sim_fault(fault.c_str()), 0);
            next_is_device = true;
            return of_device(file, garbage);
        };
        EXPECT_EQ(digest("", 0), md5(bytes)) << kind;
        EXPECT_EQ(digest("", 4096), md5(bytes.substr(0, chunk))) << kind;
        EXPECT_EQ(digest("give " + request + " 1 7", 0), "-1") << "it reports no size";
        EXPECT_EQ(digest("give pread 2 0", 0), "-1") << "it ends before its size";
        EXPECT_EQ(digest("give pread 2 0", 4096), md5(bytes.substr(0, chunk))) << "the missing bytes are not requested";
        flash_sim_clear();
    }
}

TEST_F(Services, devices_are_compared_by_content) {
    const std::string bytes = noise(chunk + 4096), other = add_partition("other", bytes);
    std::string path = add_partition("backing", bytes);
    loop_config config{};
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    const int control = openat(host_dev, "loop-control", O_RDWR | O_CLOEXEC), file = open(path.c_str(), O_RDWR);
    const std::string name = "loop" + std::to_string(ioctl(control, LOOP_CTL_GET_FREE));
    const int device = openat(host_dev, name.c_str(), O_RDWR | O_CLOEXEC);
    config.fd = static_cast<uint32_t>(file);
    if (ioctl(device, LOOP_CONFIGURE, &config) == 0) { // without one the file is used instead
        path = "/proc/self/fd/" + std::to_string(device);
    }
    expect_call(ota_check_two_partition_md5(path.c_str(), other.c_str(), 0), 0, {});
    write_partition("other", chunk, "?");
    expect_call(ota_check_two_partition_md5(path.c_str(), other.c_str(), 4096), 0, {});
    expect_call(ota_check_two_partition_md5(path.c_str(), other.c_str(), 0), -1,
                {"error dev:" + path + " md5 not equal dev:" + other});
    expect_call(ota_check_two_partition_md5("/no/such", other.c_str(), 0), -1, {"error md5 /no/such fail"});
    expect_call(ota_check_two_partition_md5("/x", nullptr, 0), -1,
                {"error check two partition md5sum parament error!"});
    close(control), close(file), close(device);
}

TEST_F(Services, one_process_holds_the_lock) {
    char lock[] = "/userdata/ota/lock", other[] = "/userdata/ota/other", nowhere[] = "/no/such/lock";
    const auto is_refused = [&] {
        return get_file_lock(lock) == -1 && log(true) == Lines({"error file /userdata/ota/lock is already locked.",
                                                                "error ota doesn't support multiple processes."});
    };
    const auto crash = [&] { return get_file_lock(lock) == 0 && raise(SIGKILL) == 0; };
    expect_call(get_file_lock(nowhere), -1, {"error open file /no/such/lock failed."});
    umask(022);
    EXPECT_EQ(get_file_lock(lock), 0);
    EXPECT_EQ(std::filesystem::status(lock).permissions(), std::filesystem::perms(0744));
    EXPECT_EQ(log(true), Lines({"debug lock file /userdata/ota/lock successfully."}));
    EXPECT_TRUE(is_refused()) << "in the same process too";
    EXPECT_TRUE(elsewhere(is_refused)) << "and the existing lock was not disturbed";
    expect_call(put_file_lock(other), 0, {"info unlock file /userdata/ota/other successfully"});
    expect_call(put_file_lock(lock), -1, {});
    EXPECT_TRUE(elsewhere(crash) && elsewhere(crash)) << "a lock ends with its process";
    char command[] = "sleep 1000 >/dev/null & echo $! >/userdata/ota/pid";
    EXPECT_TRUE(elsewhere([&] { return get_file_lock(lock) == 0 && ota_system_exe(command) == 0 && raise(SIGKILL); }));
    EXPECT_TRUE(is_refused()) << "a program that the process started still runs";
    kill(std::stoi(read_file("/userdata/ota/pid")), SIGKILL);
}

TEST_F(Services, commands_that_fail) {
    for (std::string command : {"exit 3", "kill -9 $$", "no_such_command 2>/dev/null"}) {
        expect_call(ota_system_exe(command.data()), -1, {"error execute cmd:" + command + " failed!"});
    }
    expect_call(ota_system_exe(nullptr), -1, {"error system cmd is NULL!"});
}

TEST_F(Services, versions_are_compared_by_segment) {
    // Both versions, whether the first is older, and what remains of both if no segment decided.
    const std::tuple<const char*, const char*, int32_t, std::string> rows[] = {
        {"V1.2.3", "V1.2.4", 1, ""}, {"V1.2.4", "V1.2.3", 0, ""}, {"V1.9", "V1.10", 1, ""},
        {"1.2", "V1.2", 1, ""},      {"V1.2", "V1.2", 0, " "},    {"V1-2", "V1.2", 0, " "},
        {"V1.2", "V1.2.1", 0, " 1"}, {"V1.2.1", "V1.2", 0, "1 "}, {"V1_1", "V1_2", 0, "_1 _2"},
        {"V1..2", "V1.0.2", 0, " "}, {"1a", "59", 0, " "},        {"", "V1", 0, " V1"},
        {"2147483648", "0", 1, ""},  {"4294967297", "1", 0, " "}, {"\xC8", "152", 0, " "},
    };
    for (const auto& [v1, v2, older, remains] : rows) {
        SCOPED_TRACE(std::string(v1) + " " + v2);
        expect_call(compare_sys_versions(v1, v2), older,
                    Lines(remains.empty() ? 0 : 1, "error Compare " + remains + " is same version"));
    }
}

TEST_F(Services, versions_are_read_out_of_files) {
    const std::string path = "/userdata/ota/version", too_long = "error read " + path + " version error!", x(125, 'x');
    const std::tuple<std::string, std::string, int32_t, Lines> rows[] = {
        {"board_V1.2.3_20240101\n", "V1.2.3_20240101", 15, {}},
        {"_V1 \n_V2", "V1", 2, {}},
        {"_V1\r\n", "V1\r", 3, {}},
        {"_V1\nnext\r", "V1\nnext", 7, {}},
        {"", "", -1, {"error version: is format error!"}},
        {"_V" + x, "V" + x, 126, {}},
        {"_V" + x + "x", "V" + x, 126, {too_long}},
        {x + "x_V1", "", -1, {too_long, "error version:" + x + "x_ is format error!"}},
    };
    for (const auto& [text, version, result, lines] : rows) {
        char out[128] = "";
        expect_call(get_system_version(write_file(path, text).c_str(), out), result, lines);
        EXPECT_EQ(out, version) << text;
    }
    char out[128] = "";
    std::string line = "a_V" + x + x + " _V2";
    EXPECT_EQ(parse_version_info(line.c_str(), out), 251);
    EXPECT_EQ(out + " "s + line.c_str(), "V" + x + "x a_V" + x + x) << "the rest is lost from the line";
    EXPECT_TRUE(get_system_version("/no/such", out) == -1 && get_system_version(nullptr, out) == -1);
    EXPECT_EQ(log(), Lines({"error open ver_path:/no/such error!", "error version path is NULL!"}));
}

TEST_F(Services, partitions_of_both_slots_are_listed_once) {
    const std::string too_long(128, 'n'), fits(127, 'f');
    char rows[6][128] = {};
    EXPECT_TRUE(get_all_ab_partitions(rows) == 0 && rows[0][0] == '\0');
    for (const char* name : {"boot_a", "boot_b", "system_b", "os_b", "misc", "x", "boot_a1", "odd_A"}) {
        add_partition(name, 1);
    }
    add_partition(too_long + "_a", 1), add_partition(fits + "_b", 1), link_partition("linked_a", "/nowhere");
    EXPECT_TRUE(mkdir((by_name + "dir_a").c_str(), 0700) == 0 && mkfifo((by_name + "fifo_a").c_str(), 0600) == 0);
    EXPECT_EQ(get_all_ab_partitions(rows), 0);
    Lines names(rows, rows + 6);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, Lines({"", "boot", fits, "linked", "os", "system"}));
    std::filesystem::remove_all(by_name);
    expect_call(get_all_ab_partitions(rows), -1,
                {"warning partition name " + too_long + " is too long, passed over", "error Open dir error..."});
}

TEST_F(Services, a_partition_table_by_sgdisk) {
    const std::string disk = add_partition("blk", 4 << 20);
    gpt_entry entries[128] = {};
    output_of("sgdisk -a 1 -n 1:100:199 -c 1:boot_a -n 7:4000:5000 -c 7:user -A 7:set:2 " + disk);
    EXPECT_EQ(emmc_gpt_entry_read(entries), 0);
    for (const auto& [entry, first, last, attributes, name] :
         {std::tuple(entries[0], 100U, 199U, 0U, "boot_a"s), std::tuple(entries[6], 4000U, 5000U, 4U, "user"s)}) {
        std::string text(37, '.');
        convert_partname(const_cast<uint16_t*>(entry.part_name), text.data());
        EXPECT_TRUE(entry.start_lba == first && entry.end_lba == last && entry.attrs == attributes) << name;
        EXPECT_EQ(text, name + std::string(36 - name.size(), '\0') + ".");
    }
    uint16_t units[36] = {'a', 0x141, 0x100, 0x101, '\n', 0xE9, 0, 'z'};
    char text[36];
    convert_partname(units, text);
    EXPECT_EQ(std::string(text, 36), "aA\0!!!\0z"s + std::string(28, '\0'));
    EXPECT_TRUE(truncate(disk.c_str(), 1024 + 128 * 128) == 0 && emmc_gpt_entry_read(entries) == 0);
    EXPECT_TRUE(truncate(disk.c_str(), 1024 + 128 * 128 - 1) == 0 && emmc_gpt_entry_read(entries) == -1);
    EXPECT_TRUE(unlink(disk.c_str()) == 0 && emmc_gpt_entry_read(entries) == -1);
    EXPECT_EQ(log(), Lines({"error read short", "error mmc:" + disk + " not found!"}));
}

TEST_F(Services, a_flash_command_is_checked_before_the_node_is_opened) {
    const std::string magic = bytes_of(0x46434D44), rest = noise(2256), range = "error Misc data out of range";
    char data[] = "data";
    // Command; its bytes but for the size of the area at 12 to 15; that; offset of the data; bytes written; log.
    const std::tuple<std::string, std::string, uint32_t, uint32_t, size_t, Lines> rows[] = {
        {"misc_write_cmd", magic, 4096, 200, 6368, {}},
        {"misc_write_cmd", magic, 204, 200, 2476, {}},
        {"misc_write_cmd", magic, 203, 200, 0, {range}},
        {"misc_write_cmd", magic, 100, UINT32_MAX, 0, {range}}, // the sum does not wrap
        {"other", magic, 4, 0, 2272, {}},                       // checked, but no data is written
        {"other", magic, 3, 0, 0, {range}},
        {"other", "FCMD", 4, 0, 0, {"error Invalid flash cmd magic: 444d4346"}},
    };
    for (const auto& [cmd, stored, area, offset, written, lines] : rows) {
        SCOPED_TRACE(area);
        const std::string record = stored + rest.substr(0, 8) + bytes_of(area) + rest;
        write_file(flashcmds + cmd, record + "surplus");
        add_partition("flashcmd", "");
        expect_call(ota_write_flashcmd(cmd.c_str(), data, 4, offset), written > 0 ? 0 : -1, lines);
        std::string expected = record + std::string(area, '\0');
        if (written > 2272) {
            expected.replace(2272 + offset, 4, data);
        }
        EXPECT_EQ(read_partition("flashcmd"), expected.substr(0, written));
    }
    EXPECT_EQ(ota_write_flashcmd(nullptr, nullptr, 0, 0) + ota_write_flashcmd("misc_write_cmd", nullptr, 1, 0), -12);
    EXPECT_EQ(ota_write_flashcmd("none", nullptr, 0, 0), -1);
    const std::string node = link_partition("flashcmd", "/dev/full");
    EXPECT_EQ(ota_write_flashcmd("misc_write_cmd", nullptr, 0, 0), -1);
    EXPECT_TRUE(unlink(node.c_str()) == 0 && ota_write_flashcmd("misc_write_cmd", nullptr, 0, 0) == -1);
    write_file(flashcmds + "short", magic + rest + rest.substr(0, 11));
    expect_call(ota_write_flashcmd("short", nullptr, 0, 0), -1,
                {"error misc data is null", "error open flashcmd: /usr/velox/share/ota/none failed",
                 "error write cmd failed", "error open flashcmd node: " + node + " failed", "error read cmd failed"});
}

} // namespace

extern "C" int fstat(int fd, struct stat* status) noexcept {
    const int result = fstatat(fd, "", status, AT_EMPTY_PATH);
    if (std::exchange(next_is_device, false)) {
        status->st_mode = S_IFCHR;
        status->st_size = 0;
    }
    return result;
}
