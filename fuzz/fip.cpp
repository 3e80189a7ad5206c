// SPDX-License-Identifier: Apache-2.0
/**
 * A package is read with the same result as a file and as the first package of a miniboot file. If it has a version,
 * the command finds a certificate.
 */
#include "firmware/certificates.h"
#include "image.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t room = 0x40000;
    const std::string package(reinterpret_cast<const char*>(data), size < room ? size : room);
    // Nothing follows the last image, so reading past it is detected.
    const std::optional<uint32_t> version = version_of(package, package.size(), NOSEC_UBOOT_IMG);
    const bool has_certificate = !list_certificates(FirmwareKind::uboot, image_path).empty();
    must(has_certificate || version.value_or(255) == 255);
    if (size % 8 == 0) { // the large file is slow
        must(version_of(package, room, NOSEC_UBOOT_IMG) == version_of(package, 0x240000, SEC_MINIBOOT_IMG));
    }
    return 0;
}
