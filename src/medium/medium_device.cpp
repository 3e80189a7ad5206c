// SPDX-License-Identifier: Apache-2.0
#include "medium_device.h"

#include "device_request.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

/** Of sync_file_range(), by character devices and by some file systems. */
bool is_unsupported_request(int error) {
    return error == ESPIPE || error == EINVAL || error == ENOSYS;
}

} // namespace

medium_result medium_device::open(const char* path) {
    fd_.reset(::open(path, O_RDONLY | O_CLOEXEC));
    return fd_.is_open() ? medium_result{} : medium_result{medium_step::open, errno};
}

medium_result medium_device::open_direct(const char* path) {
    fd_.reset(::open(path, O_RDONLY | O_CLOEXEC | O_DIRECT));
    return fd_.is_open() ? medium_result{} : medium_result{medium_step::open, errno};
}

/* ---- identification ---- */

medium_result medium_device::identify() {
    if (is_identified_) {
        return {};
    }
    const medium_result asked = ask_kind();
    if (!asked.is_ok()) {
        return asked;
    }
    if (size_ == 0 && kind_ != medium_kind::file) {
        return {medium_step::size};
    }
    is_identified_ = true;
    return {};
}

medium_result medium_device::ask_kind() {
    mtd_geometry mtd{};
    if (mtd_get_geometry(fd_.get(), &mtd) == 0 && mtd.erase_size > 0) {
        kind_ = medium_kind::mtd;
        size_ = mtd.size;
        block_size_ = mtd.erase_size;
        return {};
    }
    ubi_geometry volume{};
    if (ubi_get_geometry(fd_.get(), &volume) == 0) {
        kind_ = medium_kind::ubi;
        size_ = static_cast<uint64_t>(std::max<int64_t>(0, volume.used_size));
        block_size_ = static_cast<uint32_t>(std::max<int32_t>(0, volume.leb_size));
        return {};
    }
    struct stat status {};
    if (fstat(fd_.get(), &status) != 0) {
        return {medium_step::identify, errno};
    }
    if (S_ISREG(status.st_mode)) {
        size_ = static_cast<uint64_t>(status.st_size);
        return {};
    }
    kind_ = medium_kind::block;
    if (!S_ISBLK(status.st_mode) || block_get_size(fd_.get(), &size_) != 0) {
        size_ = 0;
    }
    return {};
}

/* ---- bad blocks ---- */

medium_result medium_device::find_bad_blocks() {
    const medium_result identified = identify();
    if (!identified.is_ok() || is_mapped_ || kind_ != medium_kind::mtd) {
        return identified;
    }
    bad_count_ = 0;
    for (uint32_t block = 0; block < size_ / block_size_; ++block) {
        if (mtd_get_bad_block(fd_.get(), uint64_t{block} * block_size_) != 0 && !add_bad_block(block)) {
            return {medium_step::memory, ENOMEM};
        }
    }
    is_mapped_ = true;
    return {};
}

bool medium_device::add_bad_block(uint32_t block) {
    auto* const grown =
        static_cast<uint32_t*>(std::realloc(bad_blocks_.get(), (size_t{bad_count_} + 1) * sizeof(uint32_t)));
    if (grown == nullptr) {
        return false;
    }
    (void)bad_blocks_.release();
    bad_blocks_.reset(grown);
    grown[bad_count_++] = block;
    return true;
}

uint64_t medium_device::good_blocks() const {
    return size_ / block_size_ - bad_count_;
}

/** Each bad block before a good one shifts it by one block; a volume has none. */
uint64_t medium_device::start_of(uint64_t good_block) const {
    uint64_t block = good_block;
    for (uint32_t i = 0; i < bad_count_ && bad_blocks_.get()[i] <= block; ++i) {
        ++block;
    }
    return block * block_size_;
}

uint64_t medium_device::capacity() const {
    return kind_ == medium_kind::mtd ? good_blocks() * block_size_ : size_;
}

bool medium_device::is_straight(uint64_t end) const {
    if (kind_ != medium_kind::mtd || end == 0) {
        return true;
    }
    const uint64_t last = (end - 1) / block_size_;
    return last < good_blocks() && start_of(last) == last * block_size_;
}

/* ---- transfers ---- */

medium_result medium_device::read_raw(uint64_t offset, std::span<uint8_t> bytes) const {
    while (!bytes.empty()) {
        const ssize_t got = pread(fd_.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return {medium_step::read, errno, offset};
        }
        if (got == 0) {
            return {medium_step::end, 0, offset};
        }
        offset += static_cast<uint64_t>(got);
        bytes = bytes.subspan(static_cast<size_t>(got));
    }
    return {};
}

medium_result medium_device::read(uint64_t offset, std::span<uint8_t> bytes) {
    const medium_result mapped = find_bad_blocks();
    if (!mapped.is_ok()) {
        return mapped;
    }
    if (kind_ != medium_kind::mtd) {
        return read_raw(offset, bytes);
    }
    while (!bytes.empty()) {
        const uint64_t block = offset / block_size_;
        const uint64_t within = offset % block_size_;
        if (block >= good_blocks()) {
            return {medium_step::good_blocks};
        }
        const size_t length = std::min<size_t>(bytes.size(), block_size_ - within);
        const medium_result piece = read_raw(start_of(block) + within, bytes.first(length));
        if (!piece.is_ok()) {
            return piece;
        }
        offset += length;
        bytes = bytes.subspan(length);
    }
    return {};
}

medium_result medium_device::sync() const {
    if (fsync(fd_.get()) != 0 && errno != EINVAL && errno != ENOTSUP) {
        return {medium_step::sync, errno};
    }
    (void)posix_fadvise(fd_.get(), 0, 0, POSIX_FADV_DONTNEED);
    return {};
}

medium_result medium_device::pass_on(uint64_t begin, uint64_t end) const {
    const auto from = static_cast<off64_t>(begin);
    const auto length = static_cast<off64_t>(end - begin);
    constexpr unsigned wait = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    if (sync_file_range(fd_.get(), from, length, wait) != 0 && !is_unsupported_request(errno)) {
        return {medium_step::write, errno, begin};
    }
    (void)posix_fadvise(fd_.get(), from, length, POSIX_FADV_DONTNEED);
    return {};
}

std::optional<uint32_t> medium_device::uncorrectable_reads() const {
    uint32_t failed = 0;
    if (kind_ != medium_kind::mtd || mtd_get_failed_reads(fd_.get(), &failed) != 0) {
        return std::nullopt;
    }
    return failed;
}
