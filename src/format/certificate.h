// SPDX-License-Identifier: Apache-2.0
/**
 * The anti-rollback version in an X.509 certificate of the Trusted Firmware-A scheme: an extension with one of the
 * object identifiers 1.3.6.1.4.1.4128.2100.1 (trusted firmware) and .2 (non-trusted firmware), whose value is a DER
 * INTEGER. The first extension with either is used. The certificate is not verified.
 */
#ifndef CERTIFICATE_FORMAT_H
#define CERTIFICATE_FORMAT_H

#include "format.h"

struct certificate_version {
    format_answer certificate; /* valid, or foreign: not a certificate */
    format_answer counter;     /* valid, absent, or torn: its value is not an integer */
    uint32_t version;          /* where the counter is valid: the low 32 bits of the integer */
};

/**
 * Reads the version. Bytes after the end of the certificate are ignored.
 * Errors of libcrypto stay in its error queue, for the caller to print or drop.
 */
certificate_version read_certificate_version(std::span<const uint8_t> der);

#endif
