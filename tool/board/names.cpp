// SPDX-License-Identifier: Apache-2.0
#include "board/names.h"

#include "format/slot_block.h"
#include "velox_ota_hl.h"

namespace {

constexpr Name media[] = {{OTA_RAW, "raw"}, {OTA_NOR, "nor"}, {OTA_EMMC, "emmc"}, {OTA_NAND, "nand"}};
constexpr Name described_media[] = {{OTA_EMMC, "emmc"}, {OTA_NAND, "nand"}, {OTA_NOR, "nor"}};
constexpr Name methods[] = {{IMAGE_UP, "image"}};
constexpr Name modes[] = {{NORMAL_MODE, "normal"}, {RECOVERY_MODE, "recovery"}};
constexpr Name types[] = {{GOLDEN, "golden"}, {AB, "ab"}, {BAK, "bak"}, {PERMANENT, "permanent"}};
constexpr Name flags[] = {
    {OTA_FLAG_NORMAL, "normal"}, {OTA_FLAG_BURN, "burn"}, {OTA_FLAG_VERIFY, "verify"}, {OTA_FLAG_VERIFIED, "verified"}};
constexpr Name owners[] = {{NORMAL_BOOT, "none"}, {OTA_TOOL, "tool"}, {OTA_SERVICE, "service"}};

} // namespace

const Names medium_names(media);
const Names described_medium_names(described_media);
const Names method_names(methods);
const Names mode_names(modes);
const Names type_names(types);
const Names flag_names(flags);
const Names owner_names(owners);

std::string Names::word(int32_t value) const {
    for (const Name& name : names_) {
        if (name.value == value) {
            return name.word;
        }
    }
    return value < 0 ? "unknown" : "unknown (" + std::to_string(value) + ")";
}

std::optional<int32_t> Names::value(std::string_view word) const {
    for (const Name& name : names_) {
        if (word == name.word) {
            return name.value;
        }
    }
    return std::nullopt;
}

std::string Names::choices() const {
    std::string text;
    for (size_t i = 0; i < names_.size(); ++i) {
        const char* separator = i == 0 ? "" : i + 1 < names_.size() ? ", " : " or ";
        text += std::string(separator) + names_[i].word;
    }
    return text;
}

std::string slot_letter(int32_t slot) {
    return slot >= 0 && slot < int32_t{slot_block_slots} ? std::string(1, static_cast<char>('a' + slot)) : "unknown";
}

std::optional<int32_t> slot_from_word(std::string_view word) {
    for (int32_t slot = 0; slot < int32_t{slot_block_slots}; ++slot) {
        if (word == slot_letter(slot) || word == std::to_string(slot)) {
            return slot;
        }
    }
    return std::nullopt;
}
