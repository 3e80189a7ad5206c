// SPDX-License-Identifier: Apache-2.0
#include "board/device.h"

#include "console/failure.h"
#include "console/text.h"
#include "medium_writer.h"

#include <cerrno>

namespace {

std::string sentence(const medium_result& result, const std::string& name) {
    const std::string at = name + " at byte " + std::to_string(result.place);
    switch (result.failed) {
    case medium_step::open:
        return "cannot open " + name;
    case medium_step::identify:
        return "cannot examine " + name;
    case medium_step::size:
        return "cannot determine the size of " + name;
    case medium_step::good_blocks:
        return name + " has too few good blocks";
    case medium_step::read:
        return "cannot read " + at;
    case medium_step::end:
        return "cannot read " + at + ": unexpected end";
    case medium_step::sync:
        return "cannot sync " + name;
    case medium_step::prepare:
        return "cannot allow direct writes to " + name;
    case medium_step::erase:
        return "cannot erase " + at;
    case medium_step::write:
        return "cannot write to " + at;
    default:
        return "cannot use " + name;
    }
}

} // namespace

void check_result(const medium_result& result, const std::string& name) {
    if (!result.is_ok()) {
        throw Failure(ExitCode::device, sentence(result, name) + because(result.error));
    }
}

Device::Device(const std::string& path) : path_(path) {
    check_result(medium_.open(path.c_str()), path_);
    check_result(medium_.identify(), path_);
}

uint64_t Device::capacity() const {
    check_result(medium_.find_bad_blocks(), path_);
    return medium_.capacity();
}

bool Device::is_straight(uint64_t end) const {
    check_result(medium_.find_bad_blocks(), path_);
    return medium_.is_straight(end);
}

void Device::read(uint64_t offset, std::span<uint8_t> bytes) const {
    check_result(medium_.read(offset, bytes), path_);
}

void Device::read_raw(uint64_t offset, std::span<uint8_t> bytes) const {
    check_result(medium_.read_raw(offset, bytes), path_);
}

void Device::sync() const {
    check_result(medium_.sync(), path_);
}

void Device::pass_on(uint64_t begin, uint64_t end) const {
    check_result(medium_.pass_on(begin, end), path_);
}

void Device::read_stored(uint64_t offset, std::span<uint8_t> bytes) {
    if (!direct_ && !has_no_direct_ && !is_flash()) {
        has_no_direct_ = !direct_.emplace().open_direct(path_.c_str()).is_ok();
    }
    const bool is_aligned = (offset | bytes.size() | reinterpret_cast<uintptr_t>(bytes.data())) % direct_alignment == 0;
    if (is_aligned && direct_ && !has_no_direct_) {
        const medium_result result = direct_->read_raw(offset, bytes);
        if (result.error != EINVAL) { /* which some file systems return for every direct read */
            check_result(result, path_);
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
    check_result(device.open(path.c_str()), path);
    check_result(device.sync(), path);
}

bool repair_device(const std::string& path) {
    bool repaired = false;
    const medium_result result = medium_writer().repair_volume(path.c_str(), &repaired);
    try {
        check_result(result, path);
    } catch (Failure& failure) {
        if (result.failed == medium_step::erase || result.failed == medium_step::write) {
            failure.state = "the contents of " + path + " are unknown";
        }
        throw;
    }
    return repaired;
}
