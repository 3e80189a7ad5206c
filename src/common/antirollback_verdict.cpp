// SPDX-License-Identifier: Apache-2.0
#include "antirollback_verdict.h"

std::optional<firmware_kind> firmware_kind_of(std::string_view name) {
    if (name.find("miniboot") != name.npos) {
        return firmware_kind::miniboot;
    }
    if (name.find("uboot") != name.npos) {
        return firmware_kind::uboot;
    }
    return name.find("vbmeta") != name.npos ? std::optional(firmware_kind::vbmeta) : std::nullopt;
}

bool add_firmware_version(firmware_versions* versions, firmware_kind kind, uint64_t version) {
    const auto kept = static_cast<uint32_t>(version);
    switch (kind) {
    case firmware_kind::miniboot:
        versions->miniboot = kept;
        return true;
    case firmware_kind::uboot:
        versions->uboot = kept;
        return true;
    case firmware_kind::vbmeta:
        break;
    }
    const uint32_t before = versions->vbmeta.value_or(0);
    if (before != 0 && before != version) {
        return false;
    }
    versions->vbmeta = kept;
    return true;
}

antirollback_verdict check_firmware_versions(const firmware_versions& versions,
                                             const std::optional<antirollback_counters>& counters) {
    antirollback_verdict verdict = {versions.miniboot.value_or(0), versions.uboot.value_or(0),
                                    antirollback_reason::none};
    if (verdict.non_secure != versions.vbmeta.value_or(0)) {
        verdict.reason = antirollback_reason::kinds_differ;
    } else if (counters && verdict.secure < counters->secure) {
        verdict.reason = antirollback_reason::secure_below;
    } else if (counters && verdict.non_secure < counters->non_secure) {
        verdict.reason = antirollback_reason::non_secure_below;
    }
    return verdict;
}
