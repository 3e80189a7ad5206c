// SPDX-License-Identifier: Apache-2.0
/** A certificate is good when libcrypto decodes it, and nine copies of it agree. */
#include "image.h"

#include <openssl/x509.h>

static std::optional<uint32_t> version_of_copies(const std::string& certificate, size_t copies) {
    const uint64_t fields[] = {16 + 40 * (copies + 1), certificate.size(), 0};
    std::string package("\x01\x00\x64\xaa............", 16);
    for (size_t row = 0; row < copies; ++row) {
        package.append(reinterpret_cast<const char*>(&toc_entries[row].uuid), sizeof(uuid_t));
        package.append(reinterpret_cast<const char*>(fields), sizeof fields);
    }
    package.append(40, '\0').append(certificate);
    return version_of(package, package.size(), NOSEC_UBOOT_IMG);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string certificate(reinterpret_cast<const char*>(data), size);
    X509* const decoded = d2i_X509(nullptr, &data, static_cast<long>(size));
    const std::optional<uint32_t> version = version_of_copies(certificate, 1);
    must(version.has_value() == (decoded != nullptr) && version_of_copies(certificate, 9) == version);
    X509_free(decoded);
    return 0;
}
