// SPDX-License-Identifier: Apache-2.0
#include "board.h"

#include <algorithm>
#include <android/log.h>
#include <csignal>
#include <cstdarg>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <kastor_efuse.h>
#include <linux/capability.h>
#include <random>
#include <regex>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

Lines log_lines;
Efuses efuse_state;

void must(bool done, const std::string& what) {
    if (!done) {
        std::perror(("no board: " + what).c_str());
        std::_Exit(2);
    }
}

void put(const fs::path& path, std::string_view bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary);
    file << bytes << std::flush;
    must(file.good(), path);
}

/* Binds `from` to `to`. */
void show(const fs::path& from, const fs::path& to) {
    if (fs::is_symlink(from)) {
        fs::copy_symlink(from, to);
        return;
    }
    fs::is_directory(from) ? void(fs::create_directories(to)) : put(to, "");
    must(mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, to);
}

void show_all_but(const std::string& hidden, const fs::path& from, const fs::path& to) {
    fs::create_directories(to);
    for (const fs::directory_entry& entry : fs::directory_iterator(from)) {
        const fs::path name = entry.path().filename();
        if (hidden.find("/" + name.string() + "/") == std::string::npos) {
            show(entry, to / name);
        }
    }
}

void drop_pass_to_any_file() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2];
    must(syscall(SYS_capget, &header, data) == 0, "capget");
    data[0].effective &= ~(1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH);
    must(syscall(SYS_capset, &header, data) == 0, "capset");
}

void move_in() {
    const std::string home = fs::current_path(), root = "/tmp";
    const std::string uid = std::to_string(getuid()), gid = std::to_string(getgid());
    // Without unprivileged user namespaces, root needs none.
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) {
        put("/proc/self/setgroups", "deny");
        put("/proc/self/uid_map", "0 " + uid + " 1");
        put("/proc/self/gid_map", "0 " + gid + " 1");
    } else {
        must(unshare(CLONE_NEWNS) == 0, "unshare");
    }
    must(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
    // A checkout below "/tmp" stays reachable when "/tmp" becomes the new root.
    const std::string kept = home.starts_with("/tmp/") ? home.substr(0, home.find('/', 5)) : "/usr";
    const int kept_dir = open(kept.c_str(), O_PATH | O_CLOEXEC);
    must(mount("tmpfs", root.c_str(), "tmpfs", 0, "mode=0755") == 0, "tmpfs");
    show_all_but("/dev/tmp/usr/userdata/", "/", root);
    show_all_but("/velox/", "/usr", root + "/usr");
    if (kept != "/usr") {
        show("/proc/self/fd/" + std::to_string(kept_dir) + "/.", root + kept);
    }
    close(kept_dir);
    for (const std::string device : {"null", "zero", "full", "random", "urandom", "tty"}) {
        show("/dev/" + device, root + "/dev/" + device);
    }
    fs::create_directories(root + "/tmp");
    put(root + "/board/cmdline", "");
    must(chdir(root.c_str()) == 0 && syscall(SYS_pivot_root, ".", ".") == 0, "pivot_root");
    must(umount2(".", MNT_DETACH) == 0, "umount");
    must(mount("/board/cmdline", "/proc/cmdline", nullptr, MS_BIND, nullptr) == 0, "command line");
    must(chdir(home.c_str()) == 0, home);
    drop_pass_to_any_file();
}

/* Records an operation on a counter. */
int32_t move_efuse(const std::string& call, int32_t result, uint32_t from, uint32_t* to) {
    efuse_state.calls.push_back(call);
    *to = result == 0 ? from : *to;
    return result;
}

} // namespace

/* The board's own libraries, as the library under test finds them. */

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    char text[4096];
    va_list args;
    va_start(args, fmt);
    (void)std::vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    const std::string_view line = text;
    EXPECT_EQ(prio, line.starts_with("[OTA_DEBUG]") ? 3 : line.starts_with("[OTA_INFO]") ? 4 : 6) << line;
    EXPECT_EQ(tag, nullptr);
    log_lines.push_back(text);
    return 1;
}

int32_t kastor_efuse_sec_anti_read(uint32_t* version) {
    return move_efuse("read sec", efuse_state.sec_read_result, efuse_state.sec, version);
}

int32_t kastor_efuse_nosec_anti_read(uint32_t* version) {
    return move_efuse("read nosec", efuse_state.nosec_read_result, efuse_state.nosec, version);
}

int32_t kastor_efuse_sec_anti_write(uint32_t version) {
    const std::string call = "write sec " + std::to_string(version);
    return move_efuse(call, efuse_state.sec_write_result, version, &efuse_state.sec);
}

int32_t kastor_efuse_nosec_anti_write(uint32_t version) {
    const std::string call = "write nosec " + std::to_string(version);
    return move_efuse(call, efuse_state.nosec_write_result, version, &efuse_state.nosec);
}

Board::Board() {
    for (const char* dir : {"/dev/block", "/userdata/ota", "/usr/velox", "/tmp/ota", "/tmp/process"}) {
        fs::remove_all(dir);
    }
    for (const std::string& dir : {by_name, userdata, flashcmds}) {
        fs::create_directories(dir);
    }
    fs::permissions("/board/cmdline", fs::perms(0644));
    set_cmdline("");
    log_lines.clear();
    efuse_state = {};
}

Board::~Board() {
    EXPECT_EQ(open_descriptors(), descriptors_);
    limit_file_size(RLIM_INFINITY);
}

void Board::set_cmdline(std::string_view text) {
    put("/board/cmdline", text);
}

std::string Board::add_partition(const std::string& name, std::string_view bytes) {
    fs::remove(by_name + name);
    return write_file(by_name + name, bytes);
}

std::string Board::add_partition(const std::string& name, size_t size, char fill) {
    return add_partition(name, std::string(size, fill));
}

std::string Board::link_partition(const std::string& name, const std::string& target) {
    fs::remove(by_name + name);
    fs::create_symlink(target, by_name + name);
    return by_name + name;
}

std::string Board::read_partition(const std::string& name) {
    return read_file(by_name + name);
}

void Board::write_partition(const std::string& name, size_t offset, std::string_view bytes) {
    write_file(by_name + name, read_partition(name).replace(offset, bytes.size(), bytes));
}

std::string Board::read_file(const std::string& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

std::string Board::write_file(const std::string& path, std::string_view bytes) {
    put(path, bytes);
    return path;
}

void Board::limit_file_size(uint64_t size) {
    (void)std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {size, RLIM_INFINITY};
    must(setrlimit(RLIMIT_FSIZE, &limit) == 0, "setrlimit");
}

Lines Board::log(bool with_debug) {
    static const std::regex form(R"(\[OTA_(ERROR|WARNING|INFO|DEBUG)\]\[[a-z0-9_]+\.cpp:[0-9]+\] ([^]*?)\n?)");
    Lines lines;
    for (const std::string& line : raw_log()) {
        std::smatch part;
        EXPECT_TRUE(std::regex_match(line, part, form)) << line;
        std::string level = part[1];
        std::transform(level.begin(), level.end(), level.begin(), tolower);
        if (level != "debug" || with_debug) {
            lines.push_back(level + " " + part.str(2));
        }
    }
    return lines;
}

Lines Board::raw_log() {
    return std::exchange(log_lines, {});
}

void Board::expect_call(int64_t result, int64_t wanted, const Lines& lines, int at) {
    EXPECT_EQ(std::pair(result, log()), std::pair(wanted, lines)) << "line " << at;
}

void Board::ended(int64_t result, int64_t wanted, const std::string& line, int at) {
    const Lines lines = log();
    EXPECT_EQ(std::pair(result, lines.empty() ? "" : lines.back()), std::pair(wanted, line)) << "line " << at;
}

size_t Board::open_descriptors() {
    const fs::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all))) - 1; // less the iterator's own
}

Efuses& Board::efuses() {
    return efuse_state;
}

std::string captured(int stream, const std::function<void()>& call) {
    stream == 1 ? testing::internal::CaptureStdout() : testing::internal::CaptureStderr();
    call();
    return stream == 1 ? testing::internal::GetCapturedStdout() : testing::internal::GetCapturedStderr();
}

std::string noise(size_t size) {
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), std::minstd_rand(1));
    return bytes;
}

ota_file_info_t file_info(const std::string& path, uint64_t offset, ota_medium_e medium) {
    ota_file_info_t info = {offset, 0, medium, ""};
    path.copy(info.path, sizeof info.path - 1);
    return info;
}

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!GTEST_FLAG_GET(list_tests)) {
        move_in();
    }
    return RUN_ALL_TESTS();
}
