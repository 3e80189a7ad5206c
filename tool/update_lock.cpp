#include "update_lock.h"

#include "console.h"
#include "device.h"
#include "failure.h"
#include "interrupt.h"
#include "text.h"
#include "velox_ota_hl.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr std::chrono::milliseconds between_attempts{500};

/** The process that holds a flock on the file, from /proc/locks; 0 when it is not to be seen from here. */
pid_t find_holder(const std::string& file) {
    struct stat status {};
    if (stat(file.c_str(), &status) != 0) {
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

std::string describe_holder(const std::string& file) {
    const pid_t pid = find_holder(file);
    if (const std::string command = pid > 0 ? command_of(pid) : ""; !command.empty()) {
        return format("process %d (%s)", pid, command.c_str());
    }
    /* A holder in another container leaves no trace but its own words. */
    std::string words;
    std::getline(std::ifstream(file), words);
    return words.empty() ? "another process" : words;
}

/**
 * Writes who holds the lock into its file. The file may lie in a directory that everybody can write to:
 * one that is a link, or that somebody else made, is left alone.
 */
void write_holder(const std::string& file, const std::string& words) {
    const Descriptor fd(open(file.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    const bool is_ours =
        fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_uid == geteuid();
    if (is_ours && ftruncate(fd.get(), 0) == 0 && write(fd.get(), words.data(), words.size()) < 0) {
        console::note("cannot write to " + file + because(errno));
    }
}

/** @return false while somebody else holds the lock */
bool take(std::string& file) {
    if (get_file_lock(file.data()) == 0) {
        return true;
    }
    {
        const Descriptor again(open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0766)); /* for the reason */
        const bool is_free = again.get() >= 0 && flock(again.get(), LOCK_EX | LOCK_NB) == 0;
        if (!is_free && errno == EWOULDBLOCK) {
            return false;
        }
        if (!is_free) {
            throw Failure(ExitCode::failed, "cannot use the lock file " + file + because(errno));
        }
    }
    return get_file_lock(file.data()) == 0; /* its holder has just let go */
}

} // namespace

UpdateLock::UpdateLock(std::string file, const std::string& holder, std::chrono::seconds patience)
    : file_(std::move(file)) {
    watch_interrupts(); /* what needs the lock must not end in the middle of a record */
    const auto deadline = std::chrono::steady_clock::now() + patience;
    for (bool is_first = true; !take(file_); is_first = false) {
        const std::string other = describe_holder(file_);
        if (std::chrono::steady_clock::now() >= deadline) {
            throw Failure(ExitCode::failed, "another command is at work: " + other, "", "this command has not begun");
        }
        if (is_first) {
            console::note("waiting for " + other);
        }
        std::this_thread::sleep_for(between_attempts);
        stop_if_interrupted();
    }
    write_holder(file_, format("process %d (%s)\n", getpid(), holder.c_str()));
}

UpdateLock::~UpdateLock() {
    write_holder(file_, "");
    (void)put_file_lock(file_.data());
}
