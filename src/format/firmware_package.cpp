// SPDX-License-Identifier: Apache-2.0
#include "firmware_package.h"

static_assert(sizeof(uuid_t) == 16);
static_assert(sizeof(fip_toc_header_t) == 16);
static_assert(offsetof(fip_toc_header_t, flags) == 8);
static_assert(sizeof(fip_toc_entry_t) == 40);
static_assert(offsetof(fip_toc_entry_t, offset_address) == 16);
static_assert(offsetof(fip_toc_entry_t, size) == 24);
static_assert(offsetof(fip_toc_entry_t, flags) == 32);

format_answer check_firmware_package(std::span<const uint8_t> file) {
    if (file.size() < sizeof(fip_toc_header_t)) {
        return format_too_short;
    }
    return load_le<uint32_t>(file, offsetof(fip_toc_header_t, name)) == firmware_package_magic ? format_valid
                                                                                               : format_wrong_magic;
}

bool next_firmware_entry(firmware_walk* walk, fip_toc_entry_t* entry) {
    constexpr uuid_t end = {};
    if (walk->at > walk->package.size() || sizeof *entry > walk->package.size() - walk->at) {
        return false;
    }
    std::memcpy(entry, walk->package.data() + walk->at, sizeof *entry);
    walk->at += sizeof *entry;
    walk->is_terminated = std::memcmp(&entry->uuid, &end, sizeof end) == 0;
    return !walk->is_terminated;
}

firmware_place check_firmware_place(const fip_toc_entry_t& entry, size_t size) {
    uint64_t end = 0;
    if (__builtin_add_overflow(entry.offset_address, entry.size, &end)) {
        return firmware_place::wraps;
    }
    return end > size ? firmware_place::past_end : firmware_place::inside;
}
