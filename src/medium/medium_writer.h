// SPDX-License-Identifier: Apache-2.0
/**
 * Writes an image to a block device, MTD device, UBI volume or plain file, and only what differs.
 *
 * An image is written in chunks, in order. A chunk is one erase block or LEB on flash; elsewhere it is any multiple of
 * the unit. Only the last one may be shorter. For each chunk: load(), then difference() and write() until there is no
 * further difference. Offsets are logical: bad blocks of MTD do not count. One thread at a time.
 */
#ifndef MEDIUM_WRITER_H
#define MEDIUM_WRITER_H

#include "medium_device.h"

/** Bytes of a chunk, from `begin` to before `end`; both are multiples of the unit, or the end of the chunk. */
struct chunk_range {
    size_t begin;
    size_t end;

    [[nodiscard]] bool is_empty() const {
        return begin == end;
    }
};

class medium_writer {
public:
    /**
     * Opens the device for reading only, and asks it for its geometry. Fails like medium_device.
     * @param path  has to stay valid as long as the writer
     */
    medium_result open(const char* path);
    [[nodiscard]] bool is_flash() const {
        return device_.erase_size() > 0;
    }
    /** Bytes that are compared and written as a whole. */
    [[nodiscard]] size_t unit_size() const {
        return is_flash() ? device_.erase_size() : block_unit;
    }

    /**
     * Reads what the device holds in place of the next chunk. What cannot be read, or was read with an error that the
     * ECC could not correct, counts as different. Fails at `memory`.
     * @param compares  false: all of the chunk counts as different, and is only read where part of it is kept
     */
    medium_result load(uint64_t offset, size_t length, bool compares);
    /** The first units, at or after `from`, that differ from what was loaded. */
    [[nodiscard]] chunk_range difference(std::span<const uint8_t> chunk, size_t from) const;
    /**
     * Writes units of the loaded chunk: on flash one erase and one write, and what the block holds after the end of the
     * image is written back. The device is opened for writing by the first call. Fails at `open`, `prepare`, `erase` or
     * `write`: the contents of these units are then undefined.
     * @param bytes  at a multiple of the unit; on flash the whole chunk
     */
    medium_result write(uint64_t offset, std::span<const uint8_t> bytes);
    /**
     * Repairs what a power cut during a write leaves on a UBI volume: a LEB with a page that can no longer be read. A
     * save reads the rest of the LEB first, so every later save to it would fail too. Rewrites every LEB that cannot be
     * read completely: what can be read is kept, the rest is as erased. A readable volume, and anything that is not a
     * volume or cannot be opened, is left alone. To be called in place of open().
     * @param repaired  out: whether a LEB was rewritten
     * @return fails at `memory`, or like write()
     */
    medium_result repair_volume(const char* path, bool* repaired);
    /** Has the kernel begin to store what was written from `begin` to `end`. Does not wait for the device. */
    void begin_storing(uint64_t begin, uint64_t end) const;

private:
    static constexpr size_t block_unit = 4096;

    medium_result reserve(size_t length);
    void collect(uint64_t offset, std::span<uint8_t> bytes);
    medium_result open_for_writing();
    medium_result erase(uint64_t start) const;
    medium_result write_all(uint64_t start, std::span<const uint8_t> bytes) const;

    const char* path_ = nullptr;
    medium_device device_;
    ota_descriptor fd_{-1}; /* for writing */
    ota_memory<uint8_t> loaded_;
    size_t capacity_ = 0; /* of `loaded_` */
    bool is_known_ = false;
};

#endif
