// SPDX-License-Identifier: Apache-2.0
/** The certificates in a firmware image, one by one. The library returns only what they agree on. */
#ifndef TOOL_CERTIFICATES_H
#define TOOL_CERTIFICATES_H

#include "firmware/image_versions.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct Certificate {
    std::string name;
    std::string short_name;
    std::optional<uint32_t> version; /* nullopt if the certificate has no version of its own */
    std::string problem;             /* why it cannot be read; else empty */
};

/** In the order in which they are checked. Empty for a verified-boot image, and for a file that is not a package. */
std::vector<Certificate> list_certificates(FirmwareKind kind, const std::string& path);

#endif
