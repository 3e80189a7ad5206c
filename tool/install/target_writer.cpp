// SPDX-License-Identifier: Apache-2.0
#include "install/target_writer.h"

#include <algorithm>
#include <utility>

TargetWriter::TargetWriter(const Target& target, bool compares, std::function<void()> before_write)
    : target_(target), compares_(compares), before_write_(std::move(before_write)) {
    check_result(medium_.open(target.device.c_str()), target.partition());
}

void TargetWriter::store(std::span<const uint8_t> chunk) {
    check_result(medium_.load(stored_, chunk.size(), compares_), target_.partition());
    for (auto range = medium_.difference(chunk, 0); !range.is_empty(); range = medium_.difference(chunk, range.end)) {
        if (before_write_) {
            std::exchange(before_write_, nullptr)();
        }
        const auto units = chunk.subspan(range.begin, range.end - range.begin);
        check_result(medium_.write(stored_ + range.begin, units), target_.partition());
        medium_.begin_storing(stored_ + range.begin, stored_ + range.end);
        written_ += units.size();
    }
    stored_ += chunk.size();
}

void TargetWriter::add(std::span<const uint8_t> bytes) {
    if (bytes.size() > target_.size - added_) {
        throw Failure(ExitCode::refused, target_.image.file + " unpacks to more bytes than the package states");
    }
    added_ += bytes.size();
    if (!medium_.is_flash()) {
        store(bytes);
        return;
    }
    const size_t unit = medium_.unit_size();
    while (!bytes.empty()) {
        const auto piece = bytes.first(std::min(bytes.size(), unit - chunk_.size()));
        bytes = bytes.subspan(piece.size());
        if (piece.size() == unit) {
            store(piece);
            continue;
        }
        chunk_.reserve(unit);
        chunk_.insert(chunk_.end(), piece.begin(), piece.end());
        if (chunk_.size() == unit) {
            store(chunk_);
            chunk_.clear();
        }
    }
}

void TargetWriter::finish() {
    if (added_ != target_.size) {
        throw Failure(ExitCode::refused, target_.image.file + " unpacks to fewer bytes than the package states");
    }
    if (!chunk_.empty()) {
        store(chunk_);
        chunk_.clear();
    }
}
