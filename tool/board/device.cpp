// SPDX-License-Identifier: Apache-2.0
#include "board/device.h"

#include "console/failure.h"
#include "console/text.h"
#include "ubi_repair.h"

#include <cerrno>

namespace {

std::string sentence(const medium_result& result, const std::string& path) {
    const std::string cause = because(result.error);
    switch (result.failed) {
    case medium_step::open:
        return "cannot open " + path + cause;
    case medium_step::identify:
        return "cannot examine " + path + cause;
    case medium_step::size:
        return "cannot determine the size of " + path;
    case medium_step::good_blocks:
        return path + " has too few good blocks";
    case medium_step::read:
        return "cannot read " + path + format(" at byte %llu", static_cast<unsigned long long>(result.place)) + cause;
    case medium_step::end:
        return "cannot read " + path +
               format(" at byte %llu: unexpected end", static_cast<unsigned long long>(result.place));
    case medium_step::sync:
        return "cannot sync " + path + cause;
    default:
        return "cannot use " + path + cause;
    }
}

void demand(const medium_result& result, const std::string& path) {
    if (!result.is_ok()) {
        throw Failure(ExitCode::device, sentence(result, path));
    }
}

const char* repair_step(medium_step step) {
    switch (step) {
    case medium_step::prepare:
        return "prepare";
    case medium_step::erase:
        return "erase";
    default:
        return "write";
    }
}

} // namespace

Device::Device(const std::string& path) : path_(path) {
    demand(medium_.open(path.c_str()), path_);
    demand(medium_.identify(), path_);
}

uint64_t Device::capacity() const {
    demand(medium_.find_bad_blocks(), path_);
    return medium_.capacity();
}

bool Device::is_straight(uint64_t end) const {
    demand(medium_.find_bad_blocks(), path_);
    return medium_.is_straight(end);
}

void Device::read(uint64_t offset, std::span<uint8_t> bytes) const {
    demand(medium_.read(offset, bytes), path_);
}

void Device::read_raw(uint64_t offset, std::span<uint8_t> bytes) const {
    demand(medium_.read_raw(offset, bytes), path_);
}

void Device::sync() const {
    demand(medium_.sync(), path_);
}

void Device::pass_on(uint64_t begin, uint64_t end) const {
    const medium_result result = medium_.pass_on(begin, end);
    if (!result.is_ok()) {
        throw Failure(ExitCode::device, "cannot write to " + path_ + because(result.error));
    }
}

void Device::read_stored(uint64_t offset, std::span<uint8_t> bytes) {
    if (!direct_ && !has_no_direct_ && !is_flash()) {
        has_no_direct_ = !direct_.emplace().open_direct(path_.c_str()).is_ok();
    }
    const bool is_aligned = (offset | bytes.size() | reinterpret_cast<uintptr_t>(bytes.data())) % direct_alignment == 0;
    if (is_aligned && direct_ && !has_no_direct_) {
        const medium_result result = direct_->read_raw(offset, bytes);
        if (result.error != EINVAL) { /* which some file systems return for every direct read */
            demand(result, path_);
            return;
        }
    }
    read(offset, bytes);
}

bool Device::lost_reads_since(std::optional<uint32_t> before) const {
    const auto now = uncorrectable_reads();
    return before && now && *now > *before;
}

void sync_device(const std::string& path) {
    medium_device device;
    demand(device.open(path.c_str()), path);
    demand(device.sync(), path);
}

bool repair_device(const std::string& path) {
    bool repaired = false;
    const medium_result result = ubi_repair(path.c_str(), &repaired);
    if (result.failed == medium_step::memory) {
        demand(result, path);
    }
    if (!result.is_ok()) {
        throw Failure(ExitCode::device,
                      format("cannot %s LEB %llu of %s", repair_step(result.failed),
                             static_cast<unsigned long long>(result.place), path.c_str()) +
                          because(result.error),
                      "", "the contents of " + path + " are unknown");
    }
    return repaired;
}
