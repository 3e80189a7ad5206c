// SPDX-License-Identifier: Apache-2.0
/**
 * Loaded into a program before the C library: lists the operations that change or sync a device, and ends the program
 * after one of them or within it, or leaves one out.
 *
 *     POWER_CUT_LOG=FILE     each operation, one line: DEVICE KIND OFFSET LENGTH
 *     POWER_CUT=N[:BYTES]    ends the program with SIGKILL after the N-th operation. Of a write, only BYTES take place;
 *                            with BYTES, an erase or a request does not take place
 *     LOSE_OPERATION=N       the N-th operation succeeds and does nothing
 *     LOSE_SYNC=N            the N-th sync succeeds and does nothing
 */
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/limits.h>
#include <mtd/mtd-user.h>
#include <mtd/ubi-user.h>
#include <mutex>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr long whole = -1;

std::mutex in_operation; /* none begins between the last one and the end of the process */
long operations, syncs;

template <class Function>
Function* next(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/** @return the number that a variable begins with, 0 without it */
long number_in(const char* variable) {
    const char* const text = getenv(variable);
    return text != nullptr ? atol(text) : 0;
}

bool is_device(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode));
}

void log_operation(int fd, const char* kind, off_t offset, size_t length) {
    const char* const path = getenv("POWER_CUT_LOG");
    FILE* const log = path != nullptr ? fopen(path, "ae") : nullptr;
    if (log == nullptr) {
        return;
    }
    char device[PATH_MAX] = {};
    (void)!readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), device, sizeof device - 1);
    fprintf(log, "%s %s %lld %zu\n", device, kind, static_cast<long long>(offset), length);
    fclose(log);
}

/** @return how many bytes of the next operation take place; `whole` if nothing happens to it */
long begin_operation() {
    ++operations;
    if (operations == number_in("LOSE_OPERATION")) {
        return 0;
    }
    const char* const cut = getenv("POWER_CUT");
    const char* const colon = cut != nullptr ? strchr(cut, ':') : nullptr;
    return colon != nullptr && operations == atol(cut) ? atol(colon + 1) : whole;
}

void end_operation() {
    if (operations == number_in("POWER_CUT")) {
        raise(SIGKILL);
    }
}

/** Performs a request or, if the power fails in it, none. */
template <class Perform>
int change(int fd, const char* kind, off_t offset, size_t length, Perform perform) {
    const std::lock_guard lock(in_operation);
    log_operation(fd, kind, offset, length);
    const int result = begin_operation() == whole ? perform() : 0;
    const int cause = errno;
    end_operation();
    errno = cause;
    return result;
}

template <class Perform>
int sync_device(int fd, const char* kind, Perform perform) {
    if (!is_device(fd)) {
        return perform();
    }
    const std::lock_guard lock(in_operation);
    log_operation(fd, kind, 0, 0);
    return ++syncs == number_in("LOSE_SYNC") ? 0 : perform();
}

} // namespace

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED ssize_t pwrite(int fd, const void* data, size_t length, off_t offset) {
    static auto* const perform = next(pwrite, "pwrite");
    if (!is_device(fd)) {
        return perform(fd, data, length, offset);
    }
    const std::lock_guard lock(in_operation);
    log_operation(fd, "write", offset, length);
    const long stored = begin_operation();
    const ssize_t result = perform(fd, data, stored == whole ? length : static_cast<size_t>(stored), offset);
    const int cause = errno;
    end_operation();
    errno = cause;
    return stored == whole || result < 0 ? result : static_cast<ssize_t>(length);
}

EXPORTED int ioctl(int fd, unsigned long request, ...) noexcept {
    static auto* const perform = next(ioctl, "ioctl");
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    const auto pass_on = [&] { return perform(fd, request, argument); };
    if (request == MEMERASE64) {
        const auto* const range = static_cast<const erase_info_user64*>(argument);
        return change(fd, "erase", static_cast<off_t>(range->start), range->length, pass_on);
    }
    if (request == UBI_IOCEBER) {
        return change(fd, "erase-leb", *static_cast<const int32_t*>(argument), 0, pass_on);
    }
    if (request == UBI_IOCSETVOLPROP) {
        return change(fd, "property", 0, 0, pass_on);
    }
    return pass_on();
}

EXPORTED int fsync(int fd) {
    static auto* const perform = next(fsync, "fsync");
    return sync_device(fd, "fsync", [&] { return perform(fd); });
}

EXPORTED int fdatasync(int fd) {
    static auto* const perform = next(fdatasync, "fdatasync");
    return sync_device(fd, "fdatasync", [&] { return perform(fd); });
}

EXPORTED int sync_file_range(int fd, off64_t offset, off64_t length, unsigned flags) {
    static auto* const perform = next(sync_file_range, "sync_file_range");
    return sync_device(fd, "sync_file_range", [&] { return perform(fd, offset, length, flags); });
}
