// SPDX-License-Identifier: Apache-2.0
/** The board's partitions: A/B names from the device directory, and the raw GPT entries. */
#include "gpt.h"
#include "ota_log.h"
#include "ota_owner.h"
#include "ota_paths.h"
#include "ota_utils.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <dirent.h>

namespace {

constexpr size_t suffix_length = 2;

/** Removes the slot suffix of a name; false when it has none. */
bool cut_slot_suffix(char* name) {
    const size_t len = std::strlen(name);
    if (len < suffix_length) {
        return false;
    }
    char* const suffix = name + len - suffix_length;
    if (std::strcmp(suffix, "_a") != 0 && std::strcmp(suffix, "_b") != 0) {
        return false;
    }
    *suffix = '\0';
    return true;
}

bool is_listed(char (*rows)[ota_path_size], size_t count, const char* name) {
    for (size_t i = 0; i < count; ++i) {
        if (std::strcmp(rows[i], name) == 0) {
            return true;
        }
    }
    return false;
}

/** The mask accepts links, device nodes and files, but not directories. */
bool is_partition_entry(const dirent* entry) {
    return std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0 &&
           (entry->d_type & DT_LNK) != 0;
}

} // namespace

int32_t get_all_ab_partitions(char (*abparts)[128]) {
    if (abparts == nullptr) {
        ota_log_error("abparts is null\n");
        return -1;
    }
    const ota_directory dir(opendir(ota_partition_dir));
    if (dir == nullptr) {
        ota_log_error("Open dir error...\n");
        return -1;
    }
    size_t index = 0;
    while (dirent* entry = readdir(dir.get())) {
        char* const name = entry->d_name;
        if (!is_partition_entry(entry) || !cut_slot_suffix(name) || is_listed(abparts, index, name)) {
            continue;
        }
        const size_t size = std::strlen(name) + 1;
        if (size > ota_path_size) {
            ota_log_warning("partition name %s is too long, passed over\n", name);
            continue;
        }
        std::memcpy(abparts[index], name, size);
        ++index;
    }
    return 0;
}

int32_t emmc_gpt_entry_read(struct gpt_entry* gpt_entries) {
    if (gpt_entries == nullptr) {
        ota_log_error("gpt_entries is null\n");
        return -1;
    }
    const ota_stream gpt_on_emmc(std::fopen(ota_gpt_device, "r"));
    if (gpt_on_emmc == nullptr) {
        ota_log_error("mmc:%s not found!\n", ota_gpt_device);
        return -1;
    }
    (void)std::fseek(gpt_on_emmc.get(), static_cast<long>(gpt_entries_offset), SEEK_SET);
    if (std::fread(gpt_entries, sizeof *gpt_entries, gpt_entry_count, gpt_on_emmc.get()) != gpt_entry_count) {
        ota_log_error("read short\n");
        return -1;
    }
    return 0;
}

void convert_partname(uint16_t* str, char* result) {
    if (str == nullptr || result == nullptr) {
        return;
    }
    for (size_t label_count = 0; label_count < gpt_name_units; ++label_count) {
        const auto c = static_cast<unsigned char>(str[label_count] & 0xFF);
        result[label_count] = static_cast<char>(c != 0 && std::isprint(c) == 0 ? '!' : c);
    }
}
