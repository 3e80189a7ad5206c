// SPDX-License-Identifier: Apache-2.0
/** The images of a package, frame by frame. */
#ifndef TOOL_IMAGE_READER_H
#define TOOL_IMAGE_READER_H

#include "board/digest.h"
#include "format/block_map.h"
#include "package/description.h"
#include "package/package.h"

#include <cstdint>
#include <libdeflate.h>
#include <memory>
#include <string>
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

    /** The entry that is read, whose size is that of the image. */
    [[nodiscard]] virtual const Entry& entry() const = 0;

    /**
     * Reads the next frame into the memory of an earlier one. Every frame but the last has block_map_frame_size bytes.
     * Length and checksum of a plain entry have been checked when its last frame is returned; the length and hashes of
     * a deflated frame are for the caller to check.
     * @return false at the end. Throws Failure where the package is damaged.
     */
    virtual bool next(PackedFrame& frame) = 0;

    /** Whether frames have hashes. */
    [[nodiscard]] virtual bool has_hashes() const = 0;

    /** From any thread: a next() that waits for more bytes need not wait any longer, since no one needs its frame. */
    virtual void abandon() {
    }
};

/**
 * Inflates frames and checks their lengths and hashes. Each thread needs its own.
 */
class FrameUnpacker {
public:
    explicit FrameUnpacker(std::string file) : file_(std::move(file)) {
    }

    /**
     * @param memory  for the bytes of a deflated frame; may be used again
     * @return the image's bytes: those of a plain frame, or of `memory`
     * Throws Failure that names the image's file, where the frame is damaged.
     */
    std::span<const uint8_t> unpack(const PackedFrame& frame, std::vector<uint8_t>& memory);

private:
    void inflate(const PackedFrame& frame, std::span<uint8_t> bytes);

    struct Releaser {
        void operator()(libdeflate_decompressor* inflater) const {
            libdeflate_free_decompressor(inflater);
        }
    };
    std::string file_;
    std::unique_ptr<libdeflate_decompressor, Releaser> inflater_; /* null until the first deflated frame */
    BlockHasher hasher_;
};

/**
 * Checks the block map of an image: its checksum and SHA-256, and that its frames are exactly the image's entry.
 * Throws Failure that names the map.
 * @param map     the map's entry
 * @param source  begins at the map's data
 */
void check_map(const Image& image, const Entry& entry, const Entry& map, ByteSource& source);

/**
 * A framed image whose map has been checked.
 * @param data     begins at the data of the image's entry
 * @param lengths  begins at the lengths in the map
 * @param hashes   begins at the hashes in the map
 */
std::unique_ptr<ImageReader> open_framed_image(const Entry& entry, std::unique_ptr<ByteSource> data,
                                               std::unique_ptr<ByteSource> lengths, std::unique_ptr<ByteSource> hashes);

/** An image without a map. @param data  begins at the data of the image's entry */
std::unique_ptr<ImageReader> open_plain_image(const Entry& entry, std::unique_ptr<ByteSource> data);

/** The package has to live as long as the reader. Checks the map first. Throws Failure where the entry is missing or
 * damaged. */
std::unique_ptr<ImageReader> open_image(const Package& package, const Image& image);

#endif
