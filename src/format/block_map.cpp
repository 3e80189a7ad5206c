// SPDX-License-Identifier: Apache-2.0
#include "block_map.h"

namespace {

constexpr format_answer format_past_entry = {format_state::torn, "a frame ends past its entry"};

} // namespace

block_map_header make_block_map_header(uint64_t image_size) {
    return {block_map_magic, block_map_version, image_size, block_map_block_size, block_map_frame_size};
}

format_answer check_block_map_header(std::span<const uint8_t> bytes, uint64_t map_size, uint64_t image_size) {
    if (bytes.size() < sizeof(block_map_header) || map_size < sizeof(block_map_header)) {
        return format_too_short;
    }
    block_map_header header;
    std::memcpy(&header, bytes.data(), sizeof header);
    if (header.magic != block_map_magic) {
        return format_wrong_magic;
    }
    if (header.version != block_map_version) {
        return {format_state::foreign, "unknown version"};
    }
    if (header.block_size != block_map_block_size || header.frame_size != block_map_frame_size) {
        return {format_state::foreign, "unknown size of blocks or frames"};
    }
    if (header.image_size == 0 || header.image_size != image_size) {
        return {format_state::foreign, "made for an image of another size"};
    }
    if (map_size != block_map_size(image_size)) {
        return {format_state::torn, "wrong length"};
    }
    return format_valid;
}

format_answer add_frame_lengths(std::span<const uint8_t> lengths, uint64_t packed_size, uint64_t* sum) {
    for (size_t at = 0; at + sizeof(uint32_t) <= lengths.size(); at += sizeof(uint32_t)) {
        const auto length = load_le<uint32_t>(lengths, at);
        if (length == 0 || length > block_map_longest_frame) {
            return {format_state::torn, "impossible length of a frame"};
        }
        if (*sum > packed_size || length > packed_size - *sum) {
            return format_past_entry;
        }
        *sum += length;
    }
    return format_valid;
}

format_answer check_frame_sum(uint64_t sum, uint64_t packed_size) {
    if (packed_size < block_map_stream_end.size() || sum > packed_size - block_map_stream_end.size()) {
        return format_past_entry;
    }
    if (sum < packed_size - block_map_stream_end.size()) {
        return {format_state::torn, "the frames end before their entry"};
    }
    return format_valid;
}

format_answer check_block_map(std::span<const uint8_t> map, uint64_t image_size, uint64_t packed_size) {
    format_answer answer = check_block_map_header(map, map.size(), image_size);
    if (answer.state != format_state::valid) {
        return answer;
    }
    uint64_t sum = 0;
    const uint64_t lengths_size = block_map_hashes_offset(image_size) - sizeof(block_map_header);
    answer = add_frame_lengths(map.subspan(sizeof(block_map_header), lengths_size), packed_size, &sum);
    return answer.state == format_state::valid ? check_frame_sum(sum, packed_size) : answer;
}
