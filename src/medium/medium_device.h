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

/** At least the size of a page and of a block of any block device. */
inline constexpr size_t direct_alignment = 4096;

class medium_device {
public:
    /** Opens it without any request. Fails at `open`. To be called once, before anything else. */
    medium_result open(const char* path);
    /**
     * The same, for reads that bypass the page cache. Offsets, lengths and addresses must then be multiples of
     * direct_alignment. Fails at `open` where the file system does not support that.
     */
    medium_result open_direct(const char* path);

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

    /** Bytes that are erased together: an erase block or a LEB; 0 where nothing is erased. Valid once identified. */
    [[nodiscard]] uint32_t erase_size() const {
        return block_size_;
    }

    /** Identifies it, and on MTD asks every block whether it is bad; an error counts as bad. Fails at `memory` too. */
    medium_result find_bad_blocks();
    /** Bytes that can be written. Valid once the bad blocks are known. */
    [[nodiscard]] uint64_t capacity() const;
    /**
     * Raw offset of an erase block or LEB that is numbered without the bad blocks. It has to be inside the capacity.
     * Valid once the bad blocks are known.
     */
    [[nodiscard]] uint64_t start_of(uint64_t good_block) const;
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
     * Waits until the kernel has handed the bytes from `begin` to `end` to the device, and drops them from the page
     * cache. The device may still hold them in a volatile cache, which only sync() empties. Fails at `write` with the
     * device's error, which sync() of the same object may not report again.
     */
    medium_result pass_on(uint64_t begin, uint64_t end) const;

    /** Reads that the ECC could not correct so far; nullopt without such a counter. Valid once identified. */
    [[nodiscard]] std::optional<uint32_t> uncorrectable_reads() const;

private:
    medium_result ask_kind();
    [[nodiscard]] bool add_bad_block(uint32_t block);
    [[nodiscard]] uint64_t good_blocks() const;

    ota_descriptor fd_{-1};
    medium_kind kind_ = medium_kind::file;
    bool is_identified_ = false;
    bool is_mapped_ = false;
    uint64_t size_ = 0;
    uint32_t block_size_ = 0; /* flash only; on MTD never 0 */
    uint32_t bad_count_ = 0;
    ota_memory<uint32_t> bad_blocks_; /* their numbers, ascending */
};

#endif
