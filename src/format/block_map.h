// SPDX-License-Identifier: Apache-2.0
/**
 * The block map of a framed image: where each frame of the deflated entry ends, and a hash of each block.
 */
#ifndef BLOCK_MAP_FORMAT_H
#define BLOCK_MAP_FORMAT_H

#include "format.h"

#include <array>

inline constexpr uint32_t block_map_block_size = 4096;
inline constexpr uint32_t block_map_frame_size = 131072;

/** The first 16 bytes of the SHA-256 of a block. */
using block_hash = std::array<uint8_t, 16>;

#endif
