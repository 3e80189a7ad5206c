// SPDX-License-Identifier: Apache-2.0
#include "medium_writer.h"

#include "device_request.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace {

constexpr size_t smallest_page = 512;

/** A positive result leaves errno as an earlier call set it. */
medium_result after_request(medium_step step, int result, uint64_t place = 0) {
    return result == 0 ? medium_result{} : medium_result{step, result < 0 ? errno : 0, place};
}

} // namespace

medium_result medium_writer::open(const char* path) {
    path_ = path;
    const medium_result opened = device_.open(path);
    if (!opened.is_ok()) {
        return opened;
    }
    const medium_result found = device_.find_bad_blocks();
    if (!found.is_ok()) {
        return found;
    }
    const bool is_without_lebs = device_.kind() == medium_kind::ubi && device_.erase_size() == 0;
    return is_without_lebs ? medium_result{medium_step::size} : medium_result{};
}

/* ---- comparing ---- */

medium_result medium_writer::reserve(size_t length) {
    if (length > capacity_) {
        loaded_.reset(static_cast<uint8_t*>(std::malloc(length)));
        capacity_ = loaded_ != nullptr ? length : 0;
    }
    return capacity_ >= length ? medium_result{} : medium_result{medium_step::memory, ENOMEM};
}

/** Reads what can be read of a block, piece by piece. The rest is as erased. */
void medium_writer::collect(uint64_t offset, std::span<uint8_t> bytes) {
    for (size_t at = 0; at < bytes.size(); at += smallest_page) {
        const auto piece = bytes.subspan(at, std::min(smallest_page, bytes.size() - at));
        if (!device_.read(offset + at, piece).is_ok()) {
            std::fill(piece.begin(), piece.end(), uint8_t{0xFF});
        }
    }
}

medium_result medium_writer::load(uint64_t offset, size_t length, bool compares) {
    const bool keeps_rest = is_flash() && length < device_.erase_size();
    is_known_ = false;
    if (!compares && !keeps_rest) {
        return {};
    }
    const size_t needed = is_flash() ? device_.erase_size() : length;
    const medium_result reserved = reserve(needed);
    if (!reserved.is_ok()) {
        return reserved;
    }
    const std::span<uint8_t> held(loaded_.get(), needed);
    const auto lost = device_.uncorrectable_reads();
    const bool is_read = device_.read(offset, held).is_ok();
    if (!is_read && keeps_rest) {
        collect(offset, held);
    }
    const auto lost_now = device_.uncorrectable_reads();
    is_known_ = compares && is_read && (!lost || !lost_now || *lost_now == *lost);
    return {};
}

chunk_range medium_writer::difference(std::span<const uint8_t> chunk, size_t from) const {
    if (!is_known_) {
        return {from, chunk.size()};
    }
    const size_t unit = unit_size();
    const auto differs = [&](size_t at) {
        return std::memcmp(chunk.data() + at, loaded_.get() + at, std::min(unit, chunk.size() - at)) != 0;
    };
    size_t begin = from;
    while (begin < chunk.size() && !differs(begin)) {
        begin += unit;
    }
    size_t end = begin;
    while (end < chunk.size() && differs(end)) {
        end += unit;
    }
    return {std::min(begin, chunk.size()), std::min(end, chunk.size())};
}

/* ---- writing ---- */

medium_result medium_writer::open_for_writing() {
    fd_.reset(::open(path_, O_RDWR | O_CLOEXEC));
    if (!fd_.is_open()) {
        return {medium_step::open, errno};
    }
    const bool is_volume = device_.kind() == medium_kind::ubi;
    return is_volume ? after_request(medium_step::prepare, ubi_allow_direct_writes(fd_.get())) : medium_result{};
}

medium_result medium_writer::erase(uint64_t start) const {
    const uint32_t size = device_.erase_size();
    const int result = device_.kind() == medium_kind::mtd
                           ? mtd_erase(fd_.get(), start, size)
                           : ubi_erase_leb(fd_.get(), static_cast<int32_t>(start / size));
    return after_request(medium_step::erase, result, start);
}

medium_result medium_writer::write_all(uint64_t start, std::span<const uint8_t> bytes) const {
    while (!bytes.empty()) {
        const ssize_t written = pwrite(fd_.get(), bytes.data(), bytes.size(), static_cast<off_t>(start));
        if (written < 0 && errno == EINTR) {
            continue;
        }
        /* The driver of a flash device writes whole blocks: a short count is an error that a second write would hide.
         */
        if (written <= 0 || (is_flash() && static_cast<size_t>(written) != bytes.size())) {
            return {medium_step::write, written < 0 ? errno : EIO, start};
        }
        start += static_cast<uint64_t>(written);
        bytes = bytes.subspan(static_cast<size_t>(written));
    }
    return {};
}

medium_result medium_writer::write(uint64_t offset, std::span<const uint8_t> bytes) {
    if (!fd_.is_open()) {
        const medium_result opened = open_for_writing();
        if (!opened.is_ok()) {
            return opened;
        }
    }
    if (!is_flash()) {
        return write_all(offset, bytes);
    }
    const uint64_t start = device_.start_of(offset / device_.erase_size());
    if (start >= device_.raw_size()) {
        return {medium_step::good_blocks};
    }
    const medium_result erased = erase(start);
    if (!erased.is_ok()) {
        return erased;
    }
    if (bytes.size() == device_.erase_size()) {
        return write_all(start, bytes);
    }
    std::memcpy(loaded_.get(), bytes.data(), bytes.size());
    return write_all(start, {loaded_.get(), device_.erase_size()});
}

medium_result medium_writer::repair_volume(const char* path, bool* repaired) {
    *repaired = false;
    path_ = path;
    if (!device_.open(path).is_ok() || !device_.identify().is_ok() || device_.kind() != medium_kind::ubi ||
        !is_flash()) {
        return {};
    }
    const size_t size = device_.erase_size();
    medium_result result = reserve(size);
    for (uint64_t start = 0; result.is_ok() && start < device_.raw_size(); start += size) {
        const std::span<uint8_t> leb(loaded_.get(), size);
        if (device_.read_raw(start, leb).failed == medium_step::read) {
            collect(start, leb);
            result = write(start, leb);
            *repaired = *repaired || result.is_ok();
        }
    }
    return result;
}

void medium_writer::begin_storing(uint64_t begin, uint64_t end) const {
    if (fd_.is_open() && !is_flash()) { /* errors are reported when the device is synced */
        (void)sync_file_range(fd_.get(), static_cast<off64_t>(begin), static_cast<off64_t>(end - begin),
                              SYNC_FILE_RANGE_WRITE);
    }
}
