// SPDX-License-Identifier: Apache-2.0
/**
 * A block device, MTD device, UBI volume or plain file that images and records are stored on, open for reading.
 *
 * Raw offsets count all bytes. Logical offsets skip the bad blocks of MTD, as writing does: byte n is byte n of what
 * was written. On everything else the two are the same.
 *
 * The device is asked for its kind and its bad blocks only once, when they are first needed. One thread at a time.
 */
#ifndef MEDIUM_DEVICE_H
#define MEDIUM_DEVICE_H

#include "medium_result.h"
#include "ota_owner.h"

#include <optional>
#include <span>

enum class medium_kind { file, block, mtd, ubi };

class medium_device {
public:
    /** Opens it without any request. Fails at `open`. To be called once, before anything else. */
    medium_result open(const char* path);

    /**
     * Determines kind and size. The kind of a node is the one whose requests it answers, whatever its type in the
     * file system. Fails at `identify`, or at `size` for a device that reports none: nothing would be read of it, so
     * it would compare equal to every other.
     */
    medium_result identify();
    /** Valid once identified. */
    [[nodiscard]] medium_kind kind() const {
        return kind_;
    }
    /** Bytes from the first to the last, bad blocks included. Valid once identified. */
    [[nodiscard]] uint64_t raw_size() const {
        return size_;
    }

    /** Identifies it, and on MTD asks every block whether it is bad; an error counts as bad. Fails at `memory` too. */
    medium_result find_bad_blocks();
    /** Bytes that can be written. Valid once the bad blocks are known. */
    [[nodiscard]] uint64_t capacity() const;
    /** Whether raw and logical offsets are the same up to `end`. Valid once the bad blocks are known. */
    [[nodiscard]] bool is_straight(uint64_t end) const;

    /** Reads all of `bytes` at a logical offset. Fails like find_bad_blocks() and read_raw(), or at `good_blocks`. */
    medium_result read(uint64_t offset, std::span<uint8_t> bytes);
    /** Reads all of `bytes` at a raw offset. Fails at `read` or `end`, with `place` set. */
    medium_result read_raw(uint64_t offset, std::span<uint8_t> bytes) const;

    /**
     * Waits until the medium holds everything, and drops its pages from the page cache. MTD devices write through
     * and refuse the request, which counts as success. Fails at `sync`.
     */
    medium_result sync() const;
    /**
     * Makes the kernel start storing the bytes from `begin` to `end`, and waits for those before `begin`.
     * Fails at `write` with a device's error, which sync() will not report again.
     */
    medium_result push(uint64_t begin, uint64_t end) const;

    /** Reads that the ECC could not correct so far; nullopt without such a counter. Valid once identified. */
    [[nodiscard]] std::optional<uint32_t> uncorrectable_reads() const;

private:
    medium_result ask_kind();
    [[nodiscard]] bool add_bad_block(uint32_t block);
    [[nodiscard]] uint64_t good_blocks() const;
    [[nodiscard]] uint64_t start_of(uint64_t good_block) const;

    ota_descriptor fd_{-1};
    medium_kind kind_ = medium_kind::file;
    bool is_identified_ = false;
    bool is_mapped_ = false;
    uint64_t size_ = 0;
    uint32_t block_size_ = 0; /* MTD only, and then not 0 */
    uint32_t bad_count_ = 0;
    ota_memory<uint32_t> bad_blocks_; /* their numbers, ascending */
};

#endif
