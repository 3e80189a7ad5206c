// SPDX-License-Identifier: Apache-2.0
#include "zip_entry.h"

namespace {

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

format_answer take_extra_record(std::span<const uint8_t>* extra, zip_extra_record* record) {
    if (extra->size() < record_head_size) {
        return {format_state::absent, "no further record in the extra field"};
    }
    const auto length = load_le<uint16_t>(*extra, 2);
    if (length > extra->size() - record_head_size) {
        return {format_state::torn, "a record ends past the extra field"};
    }
    *record = {load_le<uint16_t>(*extra, 0), extra->subspan(record_head_size, length)};
    *extra = extra->subspan(record_head_size + length);
    return format_valid;
}

format_answer decode_zip64_size(std::span<const uint8_t> extra, uint64_t* size) {
    zip_extra_record record{};
    format_answer answer = take_extra_record(&extra, &record);
    for (; answer.state == format_state::valid; answer = take_extra_record(&extra, &record)) {
        if (record.header == zip64_record && record.data.size() >= sizeof *size) {
            *size = load_le<uint64_t>(record.data, 0);
            return format_valid;
        }
    }
    return answer;
}
