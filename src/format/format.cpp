// SPDX-License-Identifier: Apache-2.0
#include "format.h"

#include <zlib.h>

bool is_erased(std::span<const uint8_t> bytes) {
    if (bytes.empty()) {
        return true;
    }
    const bool is_blank = bytes[0] == 0 || bytes[0] == 0xFF;
    return is_blank && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0;
}

/* Not CRC32() of the library's interface, which fills a table on its first call. */
uint32_t crc32_of(std::span<const uint8_t> bytes) {
    return static_cast<uint32_t>(crc32_z(0, bytes.data(), bytes.size()));
}
