// SPDX-License-Identifier: Apache-2.0
/** Writes the bytes of one image to its device, where they differ from what the device holds. */
#ifndef TOOL_TARGET_WRITER_H
#define TOOL_TARGET_WRITER_H

#include "install/install_plan.h"
#include "medium_writer.h"

#include <functional>
#include <span>
#include <vector>

class TargetWriter {
public:
    /**
     * @param target        has to live as long as the writer
     * @param compares      false: everything is written
     * @param before_write  called once, before the first byte of the device changes; may throw
     */
    TargetWriter(const Target& target, bool compares, std::function<void()> before_write);

    /** The next bytes of the image. Throws Failure. */
    void add(std::span<const uint8_t> bytes);
    /** To be called after the last bytes. Throws Failure, also if the image has another size than the target. */
    void finish();

    /** Bytes at the beginning of the image that the device, or the kernel for it, has now. */
    [[nodiscard]] uint64_t stored() const {
        return stored_;
    }
    /** Those of them that were written. */
    [[nodiscard]] uint64_t written() const {
        return written_;
    }

private:
    void store(std::span<const uint8_t> chunk);

    const Target& target_;
    bool compares_;
    std::function<void()> before_write_; /* empty after its call */
    medium_writer medium_;
    std::vector<uint8_t> chunk_; /* the beginning of an erase block or LEB */
    uint64_t added_ = 0;
    uint64_t stored_ = 0;
    uint64_t written_ = 0;
};

#endif
