// SPDX-License-Identifier: Apache-2.0
#include "verified_boot.h"

#include <endian.h>

namespace {

constexpr char magic[verified_boot_magic_size] = {'A', 'V', 'B', '0', '\0'};

} // namespace

format_answer check_verified_boot_magic(std::span<const uint8_t> head) {
    if (head.size() < sizeof magic) {
        return format_too_short;
    }
    return std::memcmp(head.data(), magic, sizeof magic) == 0 ? format_valid : format_wrong_magic;
}

uint64_t load_rollback_index(std::span<const uint8_t, verified_boot_index_size> bytes) {
    return be64toh(load_le<uint64_t>(bytes, 0));
}

format_answer decode_verified_boot(std::span<const uint8_t> head, uint64_t* index) {
    const format_answer answer = check_verified_boot_magic(head);
    if (answer.state != format_state::valid) {
        return answer;
    }
    if (head.size() < verified_boot_head_size) {
        return format_too_short;
    }
    *index = load_rollback_index(head.subspan<verified_boot_index_offset, verified_boot_index_size>());
    return format_valid;
}
