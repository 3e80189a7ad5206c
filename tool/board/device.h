// SPDX-License-Identifier: Apache-2.0
/** Devices for the verbs: errors that src/medium returns as values are thrown here as Failure. */
#ifndef TOOL_DEVICE_H
#define TOOL_DEVICE_H

#include "medium_device.h"

#include <string>

using Descriptor = ota_descriptor;
using DeviceKind = medium_kind;

/** Throws Failure with the step that failed, the byte and the cause. @param name  of the device, for the message */
void check_result(const medium_result& result, const std::string& name);

/** A medium_device that throws Failure. On MTD, reads skip bad blocks, as the library's writes do. */
class Device {
public:
    /** Opens and identifies the device. Bad blocks are looked up on first use. */
    explicit Device(const std::string& path);

    [[nodiscard]] DeviceKind kind() const {
        return medium_.kind();
    }
    [[nodiscard]] bool is_flash() const {
        return kind() == DeviceKind::mtd || kind() == DeviceKind::ubi;
    }
    /** Bytes that can be written: on MTD those of the good blocks. */
    [[nodiscard]] uint64_t capacity() const;
    /** Bytes from the first to the last, bad blocks included. */
    [[nodiscard]] uint64_t raw_size() const {
        return medium_.raw_size();
    }

    /** Whether no bad block precedes byte `end`, so that skipping them makes no difference. */
    [[nodiscard]] bool is_straight(uint64_t end) const;

    /** Reads the bytes at `offset`, all of them. */
    void read(uint64_t offset, std::span<uint8_t> bytes) const;
    /** The same without skipping bad blocks. */
    void read_raw(uint64_t offset, std::span<uint8_t> bytes) const;

    /** Waits until the medium holds everything, and drops its pages from the page cache. */
    void sync() const;
    /** Waits until the device has the bytes from `begin` to `end`, which it may hold in a volatile cache. */
    void pass_on(uint64_t begin, uint64_t end) const;
    /**
     * Reads the device itself and not the page cache, where the kernel supports that and offset, length and address are
     * multiples of direct_alignment.
     */
    void read_stored(uint64_t offset, std::span<uint8_t> bytes);

    /** Count of reads that the ECC could not correct so far; nullopt if the device does not count them. */
    [[nodiscard]] std::optional<uint32_t> uncorrectable_reads() const {
        return medium_.uncorrectable_reads();
    }
    /** Whether the count has risen above `before`. */
    [[nodiscard]] bool lost_reads_since(std::optional<uint32_t> before) const;

private:
    std::string path_;
    mutable medium_device medium_; /* caching the bad blocks does not change the device */
    std::optional<medium_device> direct_;
    bool has_no_direct_ = false;
};

/** Waits until the medium holds everything. Asks the device nothing else. */
void sync_device(const std::string& path);

/**
 * Rewrites the parts of a UBI volume that a power cut has made unreadable, so that it can be written again; see
 * medium_writer::repair_volume().
 * @return whether anything had to be written
 */
bool repair_device(const std::string& path);

#endif
