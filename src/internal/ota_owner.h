// SPDX-License-Identifier: Apache-2.0
/** Owners of what a unit opens or allocates: released when they go out of scope, on every path. */
#ifndef OTA_OWNER_H
#define OTA_OWNER_H

#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <utility>

template <auto Release>
struct ota_releaser {
    template <class T>
    void operator()(T* resource) const {
        Release(resource);
    }
};

using ota_stream = std::unique_ptr<FILE, ota_releaser<std::fclose>>;
using ota_directory = std::unique_ptr<DIR, ota_releaser<closedir>>;

/** Memory from malloc or calloc: a failed allocation gives a null pointer, not an exception. */
template <class T>
using ota_memory = std::unique_ptr<T, ota_releaser<std::free>>;

/** An open file descriptor, or -1. */
class ota_descriptor {
public:
    explicit ota_descriptor(int fd) : fd_(fd) {
    }
    ota_descriptor(ota_descriptor&& other) noexcept : fd_(other.release()) {
    }
    ota_descriptor& operator=(ota_descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ota_descriptor(const ota_descriptor&) = delete;
    ota_descriptor& operator=(const ota_descriptor&) = delete;
    ~ota_descriptor() {
        reset(-1);
    }

    [[nodiscard]] int get() const {
        return fd_;
    }
    [[nodiscard]] bool is_open() const {
        return fd_ >= 0;
    }
    /** Closes the descriptor held and takes ownership of `fd`. */
    void reset(int fd) {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = fd;
    }
    /** Hands the descriptor to the caller, who closes it. */
    int release() {
        return std::exchange(fd_, -1);
    }

private:
    int fd_;
};

#endif
