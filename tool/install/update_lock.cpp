// SPDX-License-Identifier: Apache-2.0
#include "install/update_lock.h"

#include "console/console.h"
#include "console/failure.h"
#include "console/interrupt.h"
#include "console/text.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds between_attempts{500};
constexpr char holder_mark[] = "process ";

/* ---- the file ---- */

/** The hint names what exists: a file that cannot be created is refused by its directory. */
[[noreturn]] void refuse(const std::string& file, const std::string& reason) {
    std::filesystem::path culprit = std::filesystem::absolute(file);
    std::error_code ignored;
    while (!std::filesystem::exists(std::filesystem::symlink_status(culprit, ignored)) && culprit.has_relative_path()) {
        culprit = culprit.parent_path();
    }
    throw Failure(ExitCode::failed, "cannot use the lock file " + file + ": " + reason, "ls -ld " + culprit.string());
}

const char* kind_of(mode_t mode) {
    switch (mode & S_IFMT) {
    case S_IFLNK:
        return "a symbolic link";
    case S_IFDIR:
        return "a directory";
    case S_IFIFO:
        return "a FIFO";
    case S_IFSOCK:
        return "a socket";
    default:
        return "a device";
    }
}

/** A file that others can write to, or that has a second name, is not the command's own. */
void check_status(const std::string& file, const struct stat& status) {
    if (!S_ISREG(status.st_mode)) {
        refuse(file, std::string("it is ") + kind_of(status.st_mode));
    }
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
        refuse(file, format("it belongs to user %u", status.st_uid));
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        refuse(file, "its group or others can write to it");
    }
    if (status.st_nlink > 1) {
        refuse(file, "it has a second name (hard link)");
    }
}

/** Checks before opening: opening a FIFO blocks, and opening a device may have side effects. */
Descriptor open_existing(const std::string& file) {
    check_lock_file(file);
    return Descriptor(open(file.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

/** The mode of a new file does not depend on the umask. */
Descriptor create(const std::string& file) {
    Descriptor fd(open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (fd.get() >= 0 && fchmod(fd.get(), S_IRUSR | S_IWUSR) != 0) {
        refuse(file, std::strerror(errno));
    }
    return fd;
}

Descriptor open_lock_file(const std::string& file) {
    Descriptor fd = create(file);
    if (fd.get() < 0 && errno == EEXIST) {
        fd = open_existing(file);
    }
    if (fd.get() < 0) {
        refuse(file, std::strerror(errno));
    }
    struct stat status {};
    if (fstat(fd.get(), &status) != 0) {
        refuse(file, std::strerror(errno));
    }
    check_status(file, status);
    return fd;
}

/** A lock on a file that was removed or replaced after it was opened excludes no one. */
bool is_still_there(const std::string& file, int fd) {
    struct stat opened {};
    struct stat named {};
    return fstat(fd, &opened) == 0 && lstat(file.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
           opened.st_ino == named.st_ino;
}

/* ---- its holder ---- */

/** The process that holds a flock on the file, from /proc/locks; 0 when it is not visible from here. */
pid_t find_holder(const std::string& file) {
    struct stat status {};
    if (lstat(file.c_str(), &status) != 0) {
        return 0;
    }
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        pid_t pid = 0;
        unsigned major_number = 0;
        unsigned minor_number = 0;
        unsigned long inode = 0;
        if (std::sscanf(line.c_str(), "%*s FLOCK %*s %*s %d %x:%x:%lu", &pid, &major_number, &minor_number, &inode) ==
                4 &&
            inode == status.st_ino && makedev(major_number, minor_number) == status.st_dev) {
            return pid;
        }
    }
    return 0;
}

/** A process's command line with blanks between the words; empty when it cannot be read. */
std::string command_of(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/cmdline");
    std::string words((std::istreambuf_iterator<char>(file)), {});
    for (char& c : words) {
        c = std::isprint(static_cast<unsigned char>(c)) != 0 ? c : ' ';
    }
    words.erase(words.find_last_not_of(' ') + 1);
    return words;
}

std::string read_words(int fd) {
    char words[256];
    const ssize_t length = pread(fd, words, sizeof words, 0);
    const std::string text(words, static_cast<size_t>(std::max<ssize_t>(0, length)));
    return text.substr(0, text.find('\n'));
}

std::string describe_holder(const std::string& file, int fd) {
    const pid_t pid = find_holder(file);
    if (const std::string command = pid > 0 ? command_of(pid) : ""; !command.empty()) {
        return format("process %d (%s)", pid, command.c_str());
    }
    /* A holder in another container is known only by what it wrote to the file. */
    const std::string words = read_words(fd);
    return words.starts_with(holder_mark) ? words : "another process";
}

/** Does not overwrite a file with any other content than a former holder's: --lock may name it by mistake. */
void write_holder(const std::string& file, int fd, const std::string& words) {
    const std::string before = read_words(fd);
    if (!before.empty() && !before.starts_with(holder_mark)) {
        return;
    }
    if (ftruncate(fd, 0) != 0 || pwrite(fd, words.data(), words.size(), 0) < 0) {
        console::note("cannot write to " + file + because(errno));
    }
}

} // namespace

void check_lock_file(const std::string& file) {
    struct stat status {};
    if (lstat(file.c_str(), &status) == 0) {
        check_status(file, status);
    }
}

/** @return false while another process holds the lock */
bool UpdateLock::take() {
    for (int attempt = 0; attempt < 3; ++attempt) {
        fd_ = open_lock_file(file_);
        if (flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK) {
                refuse(file_, std::strerror(errno));
            }
            return false;
        }
        if (is_still_there(file_, fd_.get())) {
            return true;
        }
    }
    refuse(file_, "it keeps being replaced");
}

UpdateLock::UpdateLock(std::string file, const std::string& holder, std::chrono::seconds patience)
    : file_(std::move(file)) {
    watch_interrupts(); /* what needs the lock must not end in the middle of a record */
    const auto deadline = Clock::now() + patience;
    for (bool is_first = true; !take(); is_first = false) {
        const std::string other = describe_holder(file_, fd_.get());
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            throw Failure(ExitCode::failed, "another command is at work: " + other, "", "this command has not started");
        }
        if (is_first) {
            console::note("waiting for " + other);
        }
        std::this_thread::sleep_for(std::min(left, between_attempts));
        stop_if_interrupted();
    }
    write_holder(file_, fd_.get(), format("%s%d (%s)\n", holder_mark, getpid(), holder.c_str()));
}

UpdateLock::~UpdateLock() {
    write_holder(file_, fd_.get(), ""); /* closing the file releases the lock */
}
