// SPDX-License-Identifier: Apache-2.0
/**
 * The anti-rollback verdict: whether firmware images agree with each other, and none of their versions is below the
 * board's counter. This is decided here only; the callers write the messages.
 */
#ifndef ANTIROLLBACK_VERDICT_H
#define ANTIROLLBACK_VERDICT_H

#include <cstdint>
#include <optional>
#include <string_view>

/** Firmware with a version. miniboot has the secure version, uboot and vbmeta share the non-secure one. */
enum class firmware_kind { miniboot, uboot, vbmeta };

/** The kind in a partition's name: the first of the three words that it contains; nullopt without one. */
std::optional<firmware_kind> firmware_kind_of(std::string_view name);

/** The version of a firmware package without any of the known certificates. */
inline constexpr uint32_t version_without_certificates = 255;

/** The versions of the images so far; a missing one counts as 0. */
struct firmware_versions {
    std::optional<uint32_t> miniboot;
    std::optional<uint32_t> uboot;
    std::optional<uint32_t> vbmeta;
};

/**
 * Adds the version of one more image, in the order of the description. A second miniboot or uboot replaces the
 * first; verified-boot images have to agree; a version of 0 is ignored and 32 bits are kept.
 * @return false, with nothing changed, for a verified-boot image whose version differs from the one before it
 */
bool add_firmware_version(firmware_versions* versions, firmware_kind kind, uint64_t version);

struct antirollback_counters {
    uint32_t secure;
    uint32_t non_secure;

    bool operator==(const antirollback_counters&) const = default;
};

enum class antirollback_reason {
    none,             /* the versions pass */
    kinds_differ,     /* uboot and vbmeta have different versions */
    secure_below,     /* the secure version is below its counter */
    non_secure_below, /* the non-secure version is below its counter */
};

struct antirollback_verdict {
    uint32_t secure;
    uint32_t non_secure;        /* meaningless where the kinds differ */
    antirollback_reason reason; /* the first that applies */
};

/** @param counters  with nullopt, the versions only have to agree with each other */
antirollback_verdict check_firmware_versions(const firmware_versions& versions,
                                             const std::optional<antirollback_counters>& counters);

#endif
