// SPDX-License-Identifier: Apache-2.0
#include "certificate.h"

#include "openssl_owner.h"

#include <openssl/objects.h>

namespace {

constexpr char trusted_counter_oid[] = "1.3.6.1.4.1.4128.2100.1";
constexpr char non_trusted_counter_oid[] = "1.3.6.1.4.1.4128.2100.2";

bool is_counter_extension(X509_EXTENSION* extension) {
    char oid[80] = {};
    (void)OBJ_obj2txt(oid, sizeof oid, X509_EXTENSION_get_object(extension), 0);
    return std::strcmp(oid, trusted_counter_oid) == 0 || std::strcmp(oid, non_trusted_counter_oid) == 0;
}

format_answer read_counter(X509_EXTENSION* extension, uint32_t* version) {
    const ASN1_OCTET_STRING* octets = X509_EXTENSION_get_data(extension);
    const unsigned char* data = ASN1_STRING_get0_data(octets);
    const ota_asn1_integer integer(d2i_ASN1_INTEGER(nullptr, &data, ASN1_STRING_length(octets)));
    if (integer == nullptr) {
        return {format_state::torn, "its counter is not an integer"};
    }
    *version = static_cast<uint32_t>(ASN1_INTEGER_get(integer.get()));
    return format_valid;
}

} // namespace

certificate_version read_certificate_version(std::span<const uint8_t> der) {
    certificate_version result = {format_valid, {format_state::absent, "no counter"}, 0};
    const unsigned char* data = der.data();
    const ota_certificate certificate(d2i_X509(nullptr, &data, static_cast<long>(der.size())));
    if (certificate == nullptr) {
        result.certificate = {format_state::foreign, "not a certificate"};
        return result;
    }
    const int count = X509_get_ext_count(certificate.get());
    for (int i = 0; i < count; ++i) {
        X509_EXTENSION* const extension = X509_get_ext(certificate.get(), i);
        if (is_counter_extension(extension)) {
            result.counter = read_counter(extension, &result.version);
            break;
        }
    }
    return result;
}
