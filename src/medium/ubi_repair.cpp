// SPDX-License-Identifier: Apache-2.0
#include "ubi_repair.h"

#include "device_request.h"
#include "ota_owner.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <span>

namespace {

constexpr size_t piece_size = 512; /* no page is smaller */

/** A LEB and a buffer for its bytes. */
struct logical_block {
    int fd;
    int32_t number;
    std::span<uint8_t> bytes;

    [[nodiscard]] off_t start() const {
        return static_cast<off_t>(number) * static_cast<off_t>(bytes.size());
    }
};

bool is_readable(const logical_block& leb) {
    return pread(leb.fd, leb.bytes.data(), leb.bytes.size(), leb.start()) >= 0;
}

/** Reads what can be read, piece by piece. */
void collect(const logical_block& leb) {
    for (size_t at = 0; at < leb.bytes.size(); at += piece_size) {
        const auto piece = leb.bytes.subspan(at, std::min(piece_size, leb.bytes.size() - at));
        const ssize_t got = pread(leb.fd, piece.data(), piece.size(), leb.start() + static_cast<off_t>(at));
        if (got != static_cast<ssize_t>(piece.size())) {
            std::fill(piece.begin(), piece.end(), uint8_t{0xFF});
        }
    }
}

medium_result failure(medium_step step, const logical_block& leb) {
    return {step, errno, static_cast<uint64_t>(leb.number)};
}

medium_result rewrite(const logical_block& leb) {
    collect(leb);
    if (ubi_allow_direct_writes(leb.fd) != 0) {
        return failure(medium_step::prepare, leb);
    }
    if (ubi_erase_leb(leb.fd, leb.number) != 0) {
        return failure(medium_step::erase, leb);
    }
    const ssize_t written = pwrite(leb.fd, leb.bytes.data(), leb.bytes.size(), leb.start());
    if (written != static_cast<ssize_t>(leb.bytes.size())) {
        return {medium_step::write, written < 0 ? errno : EIO, static_cast<uint64_t>(leb.number)};
    }
    return {};
}

} // namespace

medium_result ubi_repair(const char* path, bool* repaired) {
    *repaired = false;
    const ota_descriptor fd(open(path, O_RDWR | O_CLOEXEC));
    ubi_geometry volume{};
    if (!fd.is_open() || ubi_get_geometry(fd.get(), &volume) != 0 || volume.leb_size <= 0) {
        return {};
    }
    const auto leb_size = static_cast<size_t>(volume.leb_size);
    const ota_memory<uint8_t> memory(static_cast<uint8_t*>(std::malloc(leb_size)));
    if (memory == nullptr) {
        return {medium_step::memory, ENOMEM};
    }
    logical_block leb{fd.get(), 0, {memory.get(), leb_size}};
    for (; leb.start() < volume.used_size; ++leb.number) {
        if (is_readable(leb)) {
            continue;
        }
        const medium_result rewritten = rewrite(leb);
        if (!rewritten.is_ok()) {
            return rewritten;
        }
        *repaired = true;
    }
    return {};
}
