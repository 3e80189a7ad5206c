// SPDX-License-Identifier: Apache-2.0
#include "kastor_efuse.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Counters {
    uint32_t sec = 0;
    uint32_t nosec = 0;
};

using Counter = uint32_t Counters::*;

class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    int get() const {
        return fd_;
    }

private:
    int fd_;
};

int last_error() {
    return errno > 0 ? -errno : -EIO;
}

constexpr char default_directory[] = "/var/lib/tessera";

std::string counter_file() {
    const char* path = std::getenv("TESSERA_EFUSE_FILE");
    return path != nullptr && *path != '\0' ? path : std::string(default_directory) + "/efuse";
}

std::string to_text(const Counters& counters) {
    return "sec " + std::to_string(counters.sec) + "\nnosec " + std::to_string(counters.nosec) + "\n";
}

/* Removes one line "<name> <number>" from the start of `text`. */
bool take_line(std::string_view& text, std::string_view name, uint32_t& value) {
    if (!text.starts_with(name)) {
        return false;
    }
    text.remove_prefix(name.size());
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc()) {
        return false;
    }
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    if (!text.starts_with('\n')) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

int from_text(std::string_view text, Counters& counters) {
    Counters found;
    if (!take_line(text, "sec ", found.sec) || !take_line(text, "nosec ", found.nosec) || !text.empty()) {
        return -EBADMSG;
    }
    counters = found;
    return 0;
}

int load(const std::string& path, Counters& counters) {
    const Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) {
        return errno == ENOENT ? 0 : last_error();
    }
    std::array<char, 64> text; // both lines take at most 34 bytes, so a file that fills it is not a counter file
    size_t filled = 0;
    while (filled < text.size()) {
        const ssize_t got = read(file.get(), text.data() + filled, text.size() - filled);
        if (got < 0) {
            return last_error();
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<size_t>(got);
    }
    return from_text({text.data(), filled}, counters);
}

int write_synced(const std::string& path, std::string_view text) {
    const Fd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (file.get() < 0) {
        return last_error();
    }
    const ssize_t written = write(file.get(), text.data(), text.size());
    if (written < 0) {
        return last_error();
    }
    if (static_cast<size_t>(written) != text.size()) {
        return -ENOSPC;
    }
    return fsync(file.get()) == 0 ? 0 : last_error();
}

int sync_directory_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const Fd dir(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return dir.get() >= 0 && fsync(dir.get()) == 0 ? 0 : last_error();
}

/* A power cut leaves either the old counters or the new ones. */
int store(const std::string& path, const Counters& counters) {
    const std::string fresh = path + ".new";
    int result = write_synced(fresh, to_text(counters));
    if (result == 0 && std::rename(fresh.c_str(), path.c_str()) != 0) {
        result = last_error();
    }
    if (result != 0) {
        unlink(fresh.c_str());
        return result;
    }
    return sync_directory_of(path);
}

int read_counter(Counter counter, uint32_t* version) {
    if (version == nullptr) {
        return -EINVAL;
    }
    Counters counters;
    const int result = load(counter_file(), counters);
    if (result == 0) {
        *version = counters.*counter;
    }
    return result;
}

int raise_counter(Counter counter, uint32_t version) {
    const std::string path = counter_file();
    if (path.starts_with(std::string(default_directory) + "/")) {
        (void)mkdir(default_directory, 0755); // if it cannot be created, the open reports the reason
    }
    // The counter file is replaced by each write, so the lock needs a separate file.
    const Fd lock(open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (lock.get() < 0 || flock(lock.get(), LOCK_EX) != 0) {
        return last_error();
    }
    Counters counters;
    if (const int result = load(path, counters); result != 0) {
        return result;
    }
    if (version < counters.*counter) {
        return -EPERM;
    }
    counters.*counter = version;
    return store(path, counters);
}

} // namespace

/* Distinguishes this library from a board's own: tessera board --check looks for the name. A function, because the
 * sanitizer rejects the same variable in two libraries. */
extern "C" __attribute__((visibility("default"))) const char* tessera_stand_in() {
    return "eFuse counters in a file";
}

int32_t kastor_efuse_sec_anti_read(uint32_t* version) {
    return read_counter(&Counters::sec, version);
}

int32_t kastor_efuse_nosec_anti_read(uint32_t* version) {
    return read_counter(&Counters::nosec, version);
}

int32_t kastor_efuse_sec_anti_write(uint32_t version) {
    return raise_counter(&Counters::sec, version);
}

int32_t kastor_efuse_nosec_anti_write(uint32_t version) {
    return raise_counter(&Counters::nosec, version);
}
