// SPDX-License-Identifier: Apache-2.0
/**
 * The block map of a framed image: an entry of its own in the package, little-endian. The image's entry is deflated in
 * frames: the bytes of each but the last end in a full flush, so each can be inflated by itself.
 *
 *   offset  size  meaning
 *        0     4  magic, 0x4D425354: the bytes "TSBM"
 *        4     4  version, 1
 *        8     8  size of the image in bytes, above 0
 *       16     4  size of a block, 4096
 *       20     4  size of a frame before it is deflated, 131072; the last frame may be shorter
 *       24   4 f  deflated length of each of the f frames
 *  24 + 4 f 16 b  the first 16 bytes of the SHA-256 of each of the b blocks; a shorter last block is hashed as it is
 *
 * The frames follow each other without gaps. The bytes 03 00, an empty last block of deflate, end the entry after the
 * last frame, as they end each frame that is inflated by itself.
 */
#ifndef BLOCK_MAP_FORMAT_H
#define BLOCK_MAP_FORMAT_H

#include "format.h"

#include <array>

inline constexpr uint32_t block_map_magic = 0x4D425354;
inline constexpr uint32_t block_map_version = 1;
inline constexpr uint32_t block_map_block_size = 4096;
inline constexpr uint32_t block_map_frame_size = 131072;
/** Deflating cannot lengthen a frame by more: a reader may rely on it for its memory. */
inline constexpr uint32_t block_map_longest_frame = block_map_frame_size + 1024;
inline constexpr std::array<uint8_t, 2> block_map_stream_end = {0x03, 0x00};

/** The first 16 bytes of the SHA-256 of a block. */
using block_hash = std::array<uint8_t, 16>;

struct block_map_header {
    uint32_t magic;
    uint32_t version;
    uint64_t image_size;
    uint32_t block_size;
    uint32_t frame_size;
};
static_assert(sizeof(block_map_header) == 24 && offsetof(block_map_header, image_size) == 8);
static_assert(sizeof(block_hash) == 16);

/** Counts of an image; also right for one of 0 bytes. */
constexpr uint64_t block_map_frames(uint64_t image_size) {
    return image_size / block_map_frame_size + (image_size % block_map_frame_size != 0 ? 1 : 0);
}
constexpr uint64_t block_map_blocks(uint64_t image_size) {
    return image_size / block_map_block_size + (image_size % block_map_block_size != 0 ? 1 : 0);
}
/** Offset of the hashes in the map; cannot overflow. */
constexpr uint64_t block_map_hashes_offset(uint64_t image_size) {
    return sizeof(block_map_header) + sizeof(uint32_t) * block_map_frames(image_size);
}
/** Size of the map; cannot overflow. */
constexpr uint64_t block_map_size(uint64_t image_size) {
    return block_map_hashes_offset(image_size) + sizeof(block_hash) * block_map_blocks(image_size);
}

block_map_header make_block_map_header(uint64_t image_size);

/**
 * Checks the beginning of a map.
 * @param map_size    bytes of the whole map, which may be longer than `bytes`
 * @param image_size  of the image that the map has to be for
 * @return valid; torn, for a map that is too short; foreign, for another magic, version, layout or image
 */
format_answer check_block_map_header(std::span<const uint8_t> bytes, uint64_t map_size, uint64_t image_size);

/**
 * Adds up the lengths of frames, which may be checked piece by piece. Never reaches past the entry.
 * @param lengths      as stored: a multiple of 4 bytes
 * @param packed_size  of the image's entry
 * @param sum          in and out: of all lengths so far
 */
format_answer add_frame_lengths(std::span<const uint8_t> lengths, uint64_t packed_size, uint64_t* sum);

/** Whether all frames and the end of the stream are exactly the image's entry. */
format_answer check_frame_sum(uint64_t sum, uint64_t packed_size);

/** The three checks above over a whole map. */
format_answer check_block_map(std::span<const uint8_t> map, uint64_t image_size, uint64_t packed_size);

#endif
