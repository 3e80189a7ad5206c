/** The anti-rollback versions that images show, and what they mean against the board's counters. */
#ifndef TOOL_IMAGE_VERSIONS_H
#define TOOL_IMAGE_VERSIONS_H

#include "description.h"
#include "package.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum class FirmwareKind { miniboot, uboot, vbmeta };

/** What an image is by the name of its partition or file; nothing when the name does not tell. */
std::optional<FirmwareKind> firmware_kind(std::string_view name);
const char* firmware_name(FirmwareKind kind);

/**
 * The one version that an image shows, 64 bits wide in a verified-boot image. Throws with the library's
 * reason when there is none.
 */
uint64_t read_image_version(FirmwareKind kind, const std::string& path);

struct ImageVersion {
    std::string partition;
    FirmwareKind kind;
    std::optional<uint64_t> version;
    std::string problem; /* why there is no version */
};

/** The versions of all images of a package that are described as having one, in the description's order. */
std::vector<ImageVersion> read_image_versions(const Package& package, const Description& description);

struct Counters {
    uint32_t secure;
    uint32_t non_secure;
};

/** The counters in the board's fuses. */
Counters read_counters();

/** Why images are refused by these counters, in one sentence; empty when they pass. */
std::string refusal_by_versions(const std::vector<ImageVersion>& versions, const Counters& counters);

/** Throws Failure where the library would refuse the package, in better words. Touches nothing. */
void judge_versions(const Package& package, const Description& description);

/**
 * Has the library judge a package that passed above, and store its versions for a later burning of the
 * fuses. Throws Failure, of the device: what can still fail is the storing.
 */
void verify_versions(const Package& package, const Description& description);

#endif
