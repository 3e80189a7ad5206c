// SPDX-License-Identifier: Apache-2.0
/** Boot parameters from the kernel command line, device names, and the choice of the update slot. */
#include "ota_boot_control.h"
#include "ota_log.h"
#include "ota_owner.h"
#include "ota_paths.h"
#include "ota_record.h"
#include "ota_utils.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <span>
#include <unistd.h>

namespace {

constexpr char medium_key[] = "veloxboot.medium=";
constexpr char mode_key[] = "veloxboot.mode=";
constexpr char slot_key[] = "veloxboot.slot_suffix=_";

constexpr size_t value_size = 16; /* bytes of a value in which its end is searched */

/** Reads the start of the command line into all but the last byte of `text`; empty when it cannot be read. */
bool read_cmdline(std::span<char> text) {
    std::fill(text.begin(), text.end(), '\0');
    const ota_descriptor cmdline(open(ota_cmdline_path, O_RDONLY));
    if (!cmdline.is_open()) {
        ota_log_error("open %s error.\n", ota_cmdline_path);
        return false;
    }
    if (read(cmdline.get(), text.data(), text.size() - 1) < 1) {
        text[0] = '\0';
    }
    return true;
}

/** The word after `key`, with each blank and line end near it turned into a NUL; null without the key. */
const char* find_value(std::span<char> text, const char* key) {
    const char* found = std::strstr(text.data(), key);
    if (found == nullptr) {
        return nullptr;
    }
    const size_t start = static_cast<size_t>(found - text.data()) + std::strlen(key);
    const auto value = text.subspan(start, std::min(value_size, text.size() - start));
    std::replace_if(
        value.begin(), value.end(), [](char c) { return c == ' ' || c == '\r' || c == '\n'; }, '\0');
    return value.data();
}

/** A value that a key may have, and what it stands for. */
struct key_word {
    char text[value_size];
    int32_t number;
};

constexpr key_word medium_words[] = {{"nand", OTA_NAND}, {"nor", OTA_NOR}, {"MMC", OTA_EMMC}};
constexpr key_word mode_words[] = {{"recovery", RECOVERY_MODE}, {"normal", NORMAL_MODE}};

/** What the value of `key` on the command line stands for; -1 without the key or with any other value. */
int32_t read_key(const char* key, std::span<const key_word> words) {
    char cmdline[2048];
    if (!read_cmdline(cmdline)) {
        return -1;
    }
    const char* value = find_value(cmdline, key);
    if (value == nullptr) {
        return -1;
    }
    const auto found = std::find_if(words.begin(), words.end(),
                                    [&](const key_word& word) { return std::strcmp(value, word.text) == 0; });
    return found != words.end() ? found->number : -1;
}

void device_path(char* path, const char* part_name, const char* suffix) {
    (void)std::snprintf(path, ota_path_size, "%s%s%s", ota_partition_dir, part_name, suffix);
}

} // namespace

int32_t get_boot_medium() {
    return read_key(medium_key, medium_words);
}

int32_t get_boot_mode() {
    const int32_t mode = read_key(mode_key, mode_words);
    if (mode == RECOVERY_MODE) {
        ota_log_info("recovery mode\n");
    } else if (mode == NORMAL_MODE) {
        ota_log_info("normal mode\n");
    }
    return mode;
}

int32_t ota_get_cur_slot() {
    char cmdline[1024];
    if (!read_cmdline(cmdline)) {
        return -1;
    }
    const char* found = std::strstr(cmdline, slot_key);
    if (found == nullptr) {
        ota_log_error("error:slot conf not in cmdline.\n");
        return -1;
    }
    const char letter = found[sizeof slot_key - 1];
    if (letter < 'a' || letter > 'c') {
        ota_log_error("get current slot error.\n");
        return -1;
    }
    return letter - 'a';
}

int32_t get_part_device_name(const char* part_name, char* cur_dev_path, char* opp_dev_path, ota_part_type_e type) {
    if (cur_dev_path == nullptr || part_name == nullptr || opp_dev_path == nullptr) {
        ota_log_error("dev path or part name is empty\n");
        return -1;
    }
    if (type != AB) {
        device_path(cur_dev_path, part_name, "");
        device_path(opp_dev_path, part_name, "");
        return 0;
    }
    const int32_t slot = ota_get_update_slot();
    if (slot != 0 && slot != 1) {
        ota_log_error("get update slot error\n");
        return -1;
    }
    device_path(cur_dev_path, part_name, slot == 0 ? "_b" : "_a");
    device_path(opp_dev_path, part_name, slot == 0 ? "_a" : "_b");
    return 0;
}

int32_t locate_record(const char* part_name, uint64_t offset, ota_file_info_t* record) {
    char cur_dev_path[ota_path_size];
    const int32_t ret = get_part_device_name(part_name, cur_dev_path, record->path, PERMANENT);
    if (ret < 0) {
        return ret;
    }
    record->medium = static_cast<ota_medium_e>(get_boot_medium());
    record->offset = offset;
    return 0;
}

int32_t ota_get_update_slot() {
    const int32_t cur = ota_get_cur_slot();
    if (cur < 0) {
        return -1;
    }
    const int32_t other = cur ^ 1;
    const int32_t cur_state = ota_get_slot_boot_success_state(cur);
    const int32_t other_state = ota_get_slot_boot_success_state(other);
    if (cur_state < 0 || other_state < 0) {
        return -1;
    }
    /* The only slot that is known to boot must survive: only in this case is the running slot written. */
    const int32_t slot = cur_state == 0 && other_state == 1 ? cur : other;
    ota_log_info("this update slot is:%d!\n", slot);
    return slot;
}
