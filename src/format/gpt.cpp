// SPDX-License-Identifier: Apache-2.0
#include "gpt.h"

static_assert(sizeof(gpt_entry) == 128);
static_assert(offsetof(gpt_entry, uuid_low) == 16);
static_assert(offsetof(gpt_entry, start_lba) == 32);
static_assert(offsetof(gpt_entry, attrs) == 48);
static_assert(offsetof(gpt_entry, part_name) == 56);
static_assert(sizeof gpt_entry::part_name == gpt_name_units * sizeof(uint16_t));

format_answer check_gpt_entry(const gpt_entry& entry) {
    if ((entry.part_type_guid_low | entry.part_type_guid_high) == 0) {
        return {format_state::absent, "not used"};
    }
    return entry.start_lba <= entry.end_lba ? format_valid
                                            : format_answer{format_state::foreign, "ends before it begins"};
}
