// SPDX-License-Identifier: Apache-2.0
#include "zip_file.h"

namespace {

constexpr uint16_t zip64_record = 0x0001;
constexpr size_t record_head_size = 4;

/** Takes the next value of a zip64 record, if the header refers to it. */
void complete(std::span<const uint8_t>* record, uint64_t* value) {
    if (*value == zip_wide32 && record->size() >= sizeof *value) {
        *value = load_le<uint64_t>(*record, 0);
        *record = record->subspan(sizeof *value);
    }
}

} // namespace

bool zip_complete_extent(std::span<const uint8_t> extra, zip_extent* extent) {
    while (extra.size() >= record_head_size) {
        const auto header = load_le<uint16_t>(extra, 0);
        const auto length = load_le<uint16_t>(extra, 2);
        extra = extra.subspan(record_head_size);
        if (length > extra.size()) {
            return false;
        }
        if (header == zip64_record) {
            std::span<const uint8_t> record = extra.first(length);
            complete(&record, &extent->size);
            complete(&record, &extent->packed_size);
            complete(&record, &extent->offset);
            return true;
        }
        extra = extra.subspan(length);
    }
    return true;
}
