#include "board.h"

#include <algorithm>
#include <android/log.h>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <kastor_efuse.h>
#include <linux/capability.h>
#include <regex>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

namespace {

std::vector<LogLine> log_lines;
Efuses efuse_state;

void must(bool done, const std::string& what) {
    if (!done) {
        std::perror(("no board: " + what).c_str());
        std::_Exit(2);
    }
}

void put(const std::string& path, std::string_view bytes) {
    std::ofstream file(path, std::ios::binary);
    file << bytes;
    must(file.good(), path);
}

void bind_mount(const std::string& from, const fs::path& to) {
    if (fs::is_directory(from)) {
        fs::create_directories(to);
    } else {
        fs::create_directories(to.parent_path());
        put(to, "");
    }
    must(mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, "bind " + from);
}

/* Shows everything in `from` also in `to`, except what is named. */
void show(const std::string& from, const std::string& to, const std::vector<std::string>& hidden) {
    for (const fs::directory_entry& entry : fs::directory_iterator(from)) {
        const std::string name = entry.path().filename();
        if (std::find(hidden.begin(), hidden.end(), name) != hidden.end()) {
            continue;
        }
        if (entry.is_symlink()) {
            fs::copy_symlink(entry.path(), to + name);
        } else if (entry.is_directory() || entry.is_regular_file()) {
            bind_mount(entry.path(), to + name);
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
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    const std::string home = fs::current_path();
    // Where unprivileged user namespaces are switched off, root does without.
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) {
        put("/proc/self/setgroups", "deny");
        put("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        put("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    } else {
        must(unshare(CLONE_NEWNS) == 0, "unshare");
    }
    must(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");

    // A checkout below "/tmp" stays reachable when "/tmp" becomes the new root.
    const std::string kept = home.starts_with("/tmp/") ? home.substr(0, home.find('/', 5)) : "";
    const int kept_dir = kept.empty() ? -1 : open(kept.c_str(), O_PATH | O_CLOEXEC);
    const std::string root = "/tmp";
    must(mount("tmpfs", root.c_str(), "tmpfs", 0, "mode=0755") == 0, "tmpfs");
    show("/", root + "/", {"dev", "tmp", "usr", "userdata"});
    show("/usr/", root + "/usr/", {"velox"});
    for (const char* device : {"null", "zero", "full", "random", "urandom", "tty"}) {
        bind_mount(std::string("/dev/") + device, root + "/dev/" + device);
    }
    if (!kept.empty()) {
        bind_mount("/proc/self/fd/" + std::to_string(kept_dir), root + kept);
        close(kept_dir);
    }
    for (const char* dir : {"/board", "/dev/block", "/userdata", "/usr/velox"}) {
        fs::create_directories(root + dir);
    }
    fs::create_directory_symlink("/proc/self/fd", root + "/dev/fd");
    put(root + "/board/cmdline", "");

    must(chdir(root.c_str()) == 0 && syscall(SYS_pivot_root, ".", ".") == 0, "pivot_root");
    must(umount2(".", MNT_DETACH) == 0, "umount");
    must(mount("/board/cmdline", "/proc/cmdline", nullptr, MS_BIND, nullptr) == 0, "command line");
    must(chdir(home.c_str()) == 0, home);
    drop_pass_to_any_file();
}

int32_t read_efuse(const char* name, int32_t result, uint32_t counter, uint32_t* version) {
    efuse_state.calls.push_back(std::string("read ") + name);
    *version = result == 0 ? counter : *version;
    return result;
}

int32_t write_efuse(const char* name, int32_t result, uint32_t& counter, uint32_t version) {
    efuse_state.calls.push_back(std::string("write ") + name + " " + std::to_string(version));
    counter = result == 0 ? version : counter;
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
    EXPECT_EQ(tag, nullptr);
    log_lines.push_back({prio, text});
    return 1;
}

int32_t kastor_efuse_sec_anti_read(uint32_t* version) {
    return read_efuse("sec", efuse_state.sec_read_result, efuse_state.sec, version);
}

int32_t kastor_efuse_nosec_anti_read(uint32_t* version) {
    return read_efuse("nosec", efuse_state.nosec_read_result, efuse_state.nosec, version);
}

int32_t kastor_efuse_sec_anti_write(uint32_t version) {
    return write_efuse("sec", efuse_state.sec_write_result, efuse_state.sec, version);
}

int32_t kastor_efuse_nosec_anti_write(uint32_t version) {
    return write_efuse("nosec", efuse_state.nosec_write_result, efuse_state.nosec, version);
}

std::string captured(int stream, const std::function<void()>& call) {
    std::fflush(nullptr);
    const int saved = dup(stream);
    const int file = memfd_create("captured", MFD_CLOEXEC);
    dup2(file, stream);
    call();
    std::fflush(nullptr);
    dup2(saved, stream);
    close(saved);
    std::string text(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(file, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    close(file);
    return text;
}

Board::Board() {
    for (const fs::path dir : {by_name, userdata, flashcmds, std::string("/tmp/ota"), std::string("/tmp/process")}) {
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

void Board::set_cmdline(std::string_view text) {
    put("/board/cmdline", text);
}

std::string Board::add_partition(const std::string& name, std::string_view bytes) {
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
    std::fstream file(by_name + name, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(offset));
    file << bytes;
    ASSERT_TRUE(file.good()) << name;
}

std::string Board::read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.good()) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string Board::write_file(const std::string& path, std::string_view bytes) {
    put(path, bytes);
    return path;
}

std::vector<std::string> Board::log(bool with_debug) {
    static const std::regex form(R"(\[OTA_(ERROR|WARNING|INFO|DEBUG)\]\[[a-z0-9_]+\.cpp:[0-9]+\] ([^]*?)\n?)");
    std::vector<std::string> lines;
    for (const LogLine& line : raw_log()) {
        std::smatch part;
        EXPECT_TRUE(std::regex_match(line.text, part, form)) << line.text;
        const std::string level = part[1];
        EXPECT_EQ(line.priority, level == "DEBUG" ? 3 : level == "INFO" ? 4 : 6) << line.text;
        if (level != "DEBUG" || with_debug) {
            std::string text = level + " " + std::string(part[2]);
            std::transform(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(level.size()), text.begin(),
                           tolower);
            lines.push_back(text);
        }
    }
    return lines;
}

std::vector<LogLine> Board::raw_log() {
    return std::exchange(log_lines, {});
}

size_t Board::open_descriptors() {
    const fs::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all))) - 1; // less the iterator's own
}

Efuses& Board::efuses() {
    return efuse_state;
}

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!GTEST_FLAG_GET(list_tests)) {
        move_in();
    }
    return RUN_ALL_TESTS();
}
