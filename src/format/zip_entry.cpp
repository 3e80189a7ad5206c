// SPDX-License-Identifier: Apache-2.0
#include "zip_entry.h"

namespace {

constexpr uint16_t zip64_header = 0x0001;
constexpr size_t record_head_size = 4;
constexpr uint64_t file_type_mask = 0xF0000000;
constexpr uint64_t file_type_link = 0xA0000000;

} // namespace

const char* zip_last_component(const char* name) {
    const char* last = name;
    for (const char* p = name; *p != '\0'; ++p) {
        if (*p == '/' || *p == '\\') {
            last = p + 1;
        }
    }
    return last;
}

zip_kind zip_kind_of(const char* name, uint64_t attributes) {
    if (*zip_last_component(name) == '\0') {
        return zip_kind::directory;
    }
    return (attributes & file_type_mask) == file_type_link ? zip_kind::link : zip_kind::file;
}

uint32_t zip_permissions(uint64_t attributes) {
    return static_cast<uint32_t>(attributes >> 16) & 0x1FF;
}

format_answer decode_zip64_size(std::span<const uint8_t> extra, uint64_t* size) {
    while (extra.size() >= record_head_size) {
        const auto header = load_le<uint16_t>(extra, 0);
        const auto length = load_le<uint16_t>(extra, 2);
        extra = extra.subspan(record_head_size);
        if (length > extra.size()) {
            return {format_state::torn, "a record ends past the extra field"};
        }
        if (header == zip64_header && length >= sizeof *size) {
            *size = load_le<uint64_t>(extra, 0);
            return format_valid;
        }
        extra = extra.subspan(length);
    }
    return {format_state::absent, "no size in the extra field"};
}
