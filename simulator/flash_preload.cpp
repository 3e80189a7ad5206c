// SPDX-License-Identifier: Apache-2.0
/**
 * The C library calls that reach a simulated device instead of its backing file.
 *
 * Every call looks up its descriptor by the file that it refers to, so it does not matter how the program
 * obtained it. Everything else is passed to the next definition of the call, which may be that of another
 * preloaded library.
 */
#include "flash_sim.h"
#include "flash_simulation.h"

#include <cerrno>
#include <cstdarg>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

static_assert(sizeof(off_t) == 8, "the 64-bit calls are served by the plain ones");

namespace {

/** The device that a descriptor refers to; null if it is not one. */
named_device* device_of(int fd) {
    simulation* const now = running_simulation;
    struct stat status {};
    return now != nullptr && fstat(fd, &status) == 0 ? now->find(status) : nullptr;
}

/** A device ignores O_TRUNC; its backing file would not. */
int without_truncation(int dir, const char* path, int flags) {
    simulation* const now = running_simulation;
    struct stat status {};
    const bool is_device =
        now != nullptr && (flags & O_TRUNC) != 0 && fstatat(dir, path, &status, 0) == 0 && now->find(status) != nullptr;
    return is_device ? flags & ~O_TRUNC : flags;
}

bool is_open_for(int fd, int other_mode) {
    return (fcntl(fd, F_GETFL) & O_ACCMODE) != other_mode;
}

/** Returns a result as the C library does: -1 with errno set on failure. */
ssize_t as_c_result(long result) {
    if (result < 0) {
        errno = static_cast<int>(-result);
        return -1;
    }
    return result;
}

ssize_t read_device(const named_device& named, int fd, void* buffer, size_t count, off_t offset) {
    if (!is_open_for(fd, O_WRONLY) || offset < 0) {
        return as_c_result(offset < 0 ? -EINVAL : -EBADF);
    }
    const auto position = static_cast<uint64_t>(offset);
    return as_c_result(running_simulation.load()->perform(named, {"pread", position, count}, [&](size_t limit) {
        return named.device->read(position, {static_cast<uint8_t*>(buffer), limit});
    }));
}

ssize_t write_device(const named_device& named, int fd, const void* buffer, size_t count, off_t offset) {
    if (!is_open_for(fd, O_RDONLY) || offset < 0) {
        return as_c_result(offset < 0 ? -EINVAL : -EBADF);
    }
    const auto position = static_cast<uint64_t>(offset);
    return as_c_result(running_simulation.load()->perform(named, {"pwrite", position, count}, [&](size_t limit) {
        const ssize_t moved = named.device->write(position, {static_cast<const uint8_t*>(buffer), limit});
        if ((fcntl(fd, F_GETFL) & O_DSYNC) != 0) {
            (void)named.device->sync();
        }
        return moved;
    }));
}

/** Moves the file position by what `transfer` moved from there. */
template <class Transfer>
ssize_t at_file_position(int fd, Transfer transfer) {
    const off_t position = lseek(fd, 0, SEEK_CUR);
    const ssize_t moved = transfer(position);
    if (moved > 0) {
        lseek(fd, position + moved, SEEK_SET);
    }
    return moved;
}

int sync_device(const named_device& named) {
    return static_cast<int>(as_c_result(running_simulation.load()->perform(
        named, {"fsync"}, [&](size_t /*limit*/) { return static_cast<long>(named.device->sync()); })));
}

int request_device(const named_device& named, const flash_request& request) {
    const std::optional<flash_operation> operation = named.device->describe(request);
    if (!operation) {
        return static_cast<int>(as_c_result(-ENOTTY));
    }
    return static_cast<int>(as_c_result(running_simulation.load()->perform(
        named, *operation, [&](size_t /*limit*/) { return static_cast<long>(named.device->carry_out(request)); })));
}

/** The next definition of a call that is defined here. */
template <class Call>
Call* next_definition(const char* name) {
    return reinterpret_cast<Call*>(dlsym(RTLD_NEXT, name));
}

/** The mode of an open, which is passed only when a file may be created. */
mode_t mode_of(int flags, va_list arguments) {
    const bool has_mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return has_mode ? va_arg(arguments, mode_t) : 0;
}

} // namespace

/* ---- the calls of the C library ---- */

#define NEXT(call) static auto* const next = next_definition<decltype(call)>(#call)

extern "C" {

FLASH_SIM_API int open(const char* path, int flags, ...) {
    NEXT(open);
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_of(flags, arguments);
    va_end(arguments);
    return next(path, without_truncation(AT_FDCWD, path, flags), mode);
}

FLASH_SIM_API int open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_of(flags, arguments);
    va_end(arguments);
    return open(path, flags, mode);
}

FLASH_SIM_API int openat(int dir, const char* path, int flags, ...) {
    NEXT(openat);
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_of(flags, arguments);
    va_end(arguments);
    return next(dir, path, without_truncation(dir, path, flags), mode);
}

FLASH_SIM_API int openat64(int dir, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_of(flags, arguments);
    va_end(arguments);
    return openat(dir, path, flags, mode);
}

/* What a fortified program calls instead. */
FLASH_SIM_API int __open_2(const char* path, int flags);
FLASH_SIM_API int __open64_2(const char* path, int flags);
FLASH_SIM_API ssize_t __read_chk(int fd, void* buffer, size_t count, size_t room);
FLASH_SIM_API ssize_t __pread_chk(int fd, void* buffer, size_t count, off_t offset, size_t room);
FLASH_SIM_API ssize_t __pread64_chk(int fd, void* buffer, size_t count, off_t offset, size_t room);

int __open_2(const char* path, int flags) {
    return open(path, flags);
}

int __open64_2(const char* path, int flags) {
    return open(path, flags);
}

FLASH_SIM_API ssize_t pread(int fd, void* buffer, size_t count, off_t offset) {
    NEXT(pread);
    const named_device* const device = device_of(fd);
    return device != nullptr ? read_device(*device, fd, buffer, count, offset) : next(fd, buffer, count, offset);
}

FLASH_SIM_API ssize_t pread64(int fd, void* buffer, size_t count, off64_t offset) {
    return pread(fd, buffer, count, offset);
}

ssize_t __pread_chk(int fd, void* buffer, size_t count, off_t offset, size_t room) {
    NEXT(__pread_chk);
    return count <= room ? pread(fd, buffer, count, offset) : next(fd, buffer, count, offset, room);
}

ssize_t __pread64_chk(int fd, void* buffer, size_t count, off_t offset, size_t room) {
    return __pread_chk(fd, buffer, count, offset, room);
}

FLASH_SIM_API ssize_t read(int fd, void* buffer, size_t count) {
    NEXT(read);
    const named_device* const device = device_of(fd);
    if (device == nullptr) {
        return next(fd, buffer, count);
    }
    return at_file_position(fd, [&](off_t position) { return read_device(*device, fd, buffer, count, position); });
}

ssize_t __read_chk(int fd, void* buffer, size_t count, size_t room) {
    NEXT(__read_chk);
    return count <= room ? read(fd, buffer, count) : next(fd, buffer, count, room);
}

FLASH_SIM_API ssize_t pwrite(int fd, const void* buffer, size_t count, off_t offset) {
    NEXT(pwrite);
    const named_device* const device = device_of(fd);
    return device != nullptr ? write_device(*device, fd, buffer, count, offset) : next(fd, buffer, count, offset);
}

FLASH_SIM_API ssize_t pwrite64(int fd, const void* buffer, size_t count, off64_t offset) {
    return pwrite(fd, buffer, count, offset);
}

FLASH_SIM_API ssize_t write(int fd, const void* buffer, size_t count) {
    NEXT(write);
    const named_device* const device = device_of(fd);
    if (device == nullptr) {
        return next(fd, buffer, count);
    }
    return at_file_position(fd, [&](off_t position) { return write_device(*device, fd, buffer, count, position); });
}

FLASH_SIM_API int ioctl(int fd, unsigned long number, ...) noexcept {
    NEXT(ioctl);
    va_list arguments;
    va_start(arguments, number);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    const named_device* const device = device_of(fd);
    return device != nullptr ? request_device(*device, {number, argument, is_open_for(fd, O_RDONLY)})
                             : next(fd, number, argument);
}

FLASH_SIM_API int fsync(int fd) {
    NEXT(fsync);
    const named_device* const device = device_of(fd);
    return device != nullptr ? sync_device(*device) : next(fd);
}

FLASH_SIM_API int fdatasync(int fd) {
    NEXT(fdatasync);
    const named_device* const device = device_of(fd);
    return device != nullptr ? sync_device(*device) : next(fd);
}

/* Reaches the devices of the board. The host's own disks have nothing to do with it. */
FLASH_SIM_API void sync() noexcept {
    NEXT(sync);
    simulation* const now = running_simulation;
    now != nullptr ? now->sync() : next();
}

/* A character device supports neither of these two: programs then fall back to reading and writing. */
FLASH_SIM_API ssize_t copy_file_range(int in, off64_t* in_offset, int out, off64_t* out_offset, size_t length,
                                      unsigned flags) {
    NEXT(copy_file_range);
    const bool is_device = device_of(in) != nullptr || device_of(out) != nullptr;
    return is_device ? as_c_result(-EINVAL) : next(in, in_offset, out, out_offset, length, flags);
}

FLASH_SIM_API ssize_t sendfile(int out, int in, off_t* offset, size_t count) noexcept {
    NEXT(sendfile);
    const bool is_device = device_of(in) != nullptr || device_of(out) != nullptr;
    return is_device ? as_c_result(-EINVAL) : next(out, in, offset, count);
}

} // extern "C"
