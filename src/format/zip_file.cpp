// SPDX-License-Identifier: Apache-2.0
#include "zip_file.h"

namespace {

/** Takes the next value of a zip64 record, if the header refers to it. */
void complete(std::span<const uint8_t>* record, uint64_t* value) {
    if (*value == zip_wide32 && record->size() >= sizeof *value) {
        *value = load_le<uint64_t>(*record, 0);
        *record = record->subspan(sizeof *value);
    }
}

} // namespace

bool zip_complete_extent(std::span<const uint8_t> extra, zip_extent* extent) {
    zip_extra_record record{};
    format_answer answer = take_extra_record(&extra, &record);
    while (answer.state == format_state::valid && record.header != zip64_record) {
        answer = take_extra_record(&extra, &record);
    }
    if (answer.state == format_state::valid) {
        complete(&record.data, &extent->size);
        complete(&record.data, &extent->packed_size);
        complete(&record.data, &extent->offset);
    }
    return answer.state != format_state::torn;
}
