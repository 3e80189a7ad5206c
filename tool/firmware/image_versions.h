// SPDX-License-Identifier: Apache-2.0
/** The anti-rollback versions of images, and their comparison with the board's counters. */
#ifndef TOOL_IMAGE_VERSIONS_H
#define TOOL_IMAGE_VERSIONS_H

#include "internal/antirollback_verdict.h"
#include "package/description.h"
#include "package/image_source.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

using FirmwareKind = firmware_kind;
using Counters = antirollback_counters;

const char* firmware_name(FirmwareKind kind);

/** Firmware packages are read whole into memory; larger ones are refused. */
inline constexpr uint64_t firmware_limit = uint64_t{64} << 20;

struct ImageVersion {
    std::string partition;
    FirmwareKind kind;
    std::optional<uint64_t> version;
    std::string problem; /* why the version is unknown */
};

/**
 * The version of an image; 64 bits in a verified-boot image. Throws with the library's
 * reason when there is none.
 */
uint64_t read_image_version(FirmwareKind kind, const std::string& path);

/** The same of a temporary copy, into `result`: a problem is described under the image's own name. */
void read_image_version(FirmwareKind kind, const std::string& path, const std::string& name, ImageVersion& result);

/** The versions of all firmware images of a package that are described as having one, in the description's order. */
std::vector<ImageVersion> read_image_versions(const ImageSource& source, const Description& description);

/** The counters in the board's fuses. */
Counters read_counters();

/** The verdict on a package's images. */
struct VersionCheck {
    antirollback_verdict verdict;
    std::string refusal; /* the first reason, in one sentence; empty when the images pass */
};

/** Without counters, off the board, images only have to agree with each other. */
VersionCheck compare_versions(const std::vector<ImageVersion>& versions, const std::optional<Counters>& counters);

/**
 * Throws Failure, with a clearer message than the library's, for a package that it would refuse. Changes nothing.
 * @return the record for burning the fuses later, to be stored once the package is installed; nothing for a
 *         package without versions
 */
std::optional<antirollback_ver_t> check_versions(const ImageSource& source, const Description& description);

#endif
