// SPDX-License-Identifier: Apache-2.0
/** The images of a package, frame by frame. */
#ifndef TOOL_IMAGE_READER_H
#define TOOL_IMAGE_READER_H

#include "format/block_map.h"
#include "package/description.h"
#include "package/package.h"

#include <cstdint>
#include <memory>
#include <vector>

/** A part of an image, in order, as it is in the package. */
struct PackedFrame {
    enum class Packing { plain, deflated } packing; /* deflated: a raw deflate stream, complete in itself */
    std::vector<uint8_t> bytes;
    uint64_t offset;                /* of its first byte in the image */
    uint32_t size;                  /* bytes of the image that it holds, at most block_map_frame_size */
    std::vector<block_hash> hashes; /* one per block of block_map_block_size bytes, of which the last may be shorter;
                                       empty without a map */
};

/** One image of a package, read once from the first byte to the last. One thread at a time. */
class ImageReader {
public:
    ImageReader() = default;
    ImageReader(const ImageReader&) = delete;
    ImageReader& operator=(const ImageReader&) = delete;
    virtual ~ImageReader() = default;

    /** Bytes of the image. */
    [[nodiscard]] virtual uint64_t size() const = 0;

    /**
     * Reads the next frame into the memory of an earlier one. Every frame but the last has block_map_frame_size bytes.
     * Length and checksum of a plain entry have been checked when its last frame is returned; the length and hashes of
     * a deflated frame are for the caller to check.
     * @return false at the end. Throws Failure where the package is damaged.
     */
    virtual bool next(PackedFrame& frame) = 0;

    /** Whether frames have hashes. */
    [[nodiscard]] virtual bool has_hashes() const = 0;
};

/** The package has to live as long as the reader. Throws Failure where the entry is missing or damaged. */
std::unique_ptr<ImageReader> open_image(const Package& package, const Image& image);

#endif
