// SPDX-License-Identifier: Apache-2.0
/** PEM files: blocks of base64 between BEGIN and END lines, with any text around them. */
#ifndef TOOL_PEM_H
#define TOOL_PEM_H

#include "board/openssl_handle.h"

#include <string>
#include <vector>

struct PemBlock {
    std::string kind; /* the words of its BEGIN line, such as "CERTIFICATE" */
    std::vector<unsigned char> der;

    [[nodiscard]] bool is_certificate() const;
    [[nodiscard]] bool is_revocation_list() const;
};

/** Opens a PEM file. Throws Failure that names it. */
Bio open_pem(const std::string& path);

/** All blocks of a PEM file, in their order. Throws Failure when it cannot be read or a block is damaged. */
std::vector<PemBlock> read_pem(const std::string& path);

/** @return null when the block does not hold one, and nothing else */
X509Certificate parse_certificate(const PemBlock& block);
RevocationList parse_revocation_list(const PemBlock& block);

#endif
