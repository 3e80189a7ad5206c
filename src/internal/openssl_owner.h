// SPDX-License-Identifier: Apache-2.0
/** Owners of libcrypto's objects. */
#ifndef OPENSSL_OWNER_H
#define OPENSSL_OWNER_H

#include "ota_owner.h"

#include <openssl/asn1.h>
#include <openssl/x509.h>

using ota_certificate = std::unique_ptr<X509, ota_releaser<X509_free>>;
using ota_asn1_integer = std::unique_ptr<ASN1_INTEGER, ota_releaser<ASN1_INTEGER_free>>;

#endif
