// SPDX-License-Identifier: Apache-2.0
/**
 * A package reads the same as a file of its own and as the first one of a miniboot file. Where it has a version the
 * command sees a certificate.
 */
#include "firmware/certificates.h"
#include "image.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t room = 0x40000;
    const std::string package(reinterpret_cast<const char*>(data), size < room ? size : room);
    // Nothing stands behind the last image: reading on is seen.
    const std::optional<uint32_t> version = version_of(package, package.size(), NOSEC_UBOOT_IMG);
    const bool has_certificate = !list_certificates(FirmwareKind::uboot, image_path).empty();
    must(has_certificate || version.value_or(255) == 255);
    if (size % 8 == 0) { // the large file is slow
        must(version_of(package, room, NOSEC_UBOOT_IMG) == version_of(package, 0x240000, SEC_MINIBOOT_IMG));
    }
    return 0;
}
